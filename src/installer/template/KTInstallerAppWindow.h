#pragma once

#include <QWidget>
#include <thread>

#include "installer/KTInstallerRunner.h"

class QCheckBox;
class QLabel;
class QPushButton;

/// The built installer's window: the product's name, version and author,
/// the licence to accept, the background picture, and an Install button
/// that puts the plug-ins in place on a thread of its own.
class KTInstallerAppWindow : public QWidget {
    Q_OBJECT
  public:
    explicit KTInstallerAppWindow(KTInstallerRunner& runner, QWidget* parent = nullptr);
    ~KTInstallerAppWindow() override;

  private:
    void startInstall();
    void finished(const KTInstallerRunner::Report& report);

    KTInstallerRunner& runner_;
    QLabel* status_ = nullptr;
    QCheckBox* accept_ = nullptr;
    QPushButton* install_ = nullptr;
    std::thread worker_;
};
