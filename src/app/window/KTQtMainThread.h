#pragma once

#include <QObject>

#include "SharedFiles/KTMainThread.h"

/// The window's dispatcher: work handed over from a background thread runs on
/// the thread of Qt's event loop, and `runAndWait` blocks the caller until it
/// has run. Must be made on the main thread, after the QApplication.
class KTQtMainThread : public QObject, public KTMainThread {
    Q_OBJECT
  public:
    KTQtMainThread();
    void runAndWait(const std::function<void()>& work) override;
    void post(std::function<void()> work) override;
    bool isMainThread() const override;
    void processPendingEvents(double maxWaitSeconds) override;
};
