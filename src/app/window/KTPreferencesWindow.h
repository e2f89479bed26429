#pragma once

#include <QDialog>

class KTQC;
class QAction;
class QCheckBox;

/// The preferences window: the analytics switch and the administrator
/// password at launch. The password box is a second face of the main
/// window's menu item, so both always show the same state and the stored
/// preference is written in one place.
class KTPreferencesWindow : public QDialog {
    Q_OBJECT
  public:
    KTPreferencesWindow(KTQC& analytics, QAction* requireAdminPassword, QWidget* parent);

    /// Shows the window, made once, for the main window's menu.
    static void showShared(QAction* requireAdminPassword, QWidget* parent);

    QCheckBox* analyticsCheckBox() const { return qcShouldLogCheckbox_; }
    QCheckBox* adminPasswordCheckBox() const { return adminCheckbox_; }

  protected:
    void showEvent(QShowEvent* event) override;

  private:
    KTQC& analytics_;
    QCheckBox* qcShouldLogCheckbox_ = nullptr;
    QCheckBox* adminCheckbox_ = nullptr;
};
