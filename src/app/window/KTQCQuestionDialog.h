#pragma once

#include <QObject>
#include <QPointer>

#include "analytics/KTQCQuestion.h"

class QWidget;

/// The analytics question as a window-modal message box on the main window
/// (a sheet on macOS), put after the delay by a timer so that start-up goes
/// on meanwhile. Closing the box without pressing a button answers nothing,
/// so the question comes again at the next launch.
class KTQCQuestionDialog : public QObject, public KTQCQuestion {
    Q_OBJECT
  public:
    explicit KTQCQuestionDialog(QWidget* window);

    void ask(std::chrono::milliseconds delay, const KTAlert& question,
             std::function<void(int button)> answered) override;
    void openURL(const std::string& url) override;

  private:
    QPointer<QWidget> window_;
};
