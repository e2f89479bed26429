#pragma once

#include <QWidget>

#include "diagnostics/KTAUValidator.h"

class QPlainTextEdit;
class QProgressBar;

/// Shows the validator's full report on one Audio Unit, titled
/// "<unit> - Inspector".
class KTAUInspectorWindow : public QWidget {
    Q_OBJECT
  public:
    explicit KTAUInspectorWindow(KTAUValidator& validator, QWidget* parent = nullptr);

    /// Clears the text, brings the window forward and shows the report. The
    /// validator runs on this thread: the interface waits for it.
    void inspect(const KTAURecordPtr& record);

    QPlainTextEdit* text() const { return text_; }

  private:
    KTAUValidator& validator_;
    QPlainTextEdit* text_ = nullptr;
    QProgressBar* busy_ = nullptr;
};
