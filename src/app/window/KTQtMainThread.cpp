#include "app/window/KTQtMainThread.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <thread>

KTQtMainThread::KTQtMainThread() {
    if (QCoreApplication::instance()) moveToThread(QCoreApplication::instance()->thread());
}

void KTQtMainThread::runAndWait(const std::function<void()>& work) {
    if (isMainThread()) {
        work();
        return;
    }
    // Blocking: `work` lives on the caller's stack until the main thread ran it.
    QMetaObject::invokeMethod(
        this, [&work] { work(); }, Qt::BlockingQueuedConnection);
}

void KTQtMainThread::post(std::function<void()> work) {
    QMetaObject::invokeMethod(
        this, [w = std::move(work)] { w(); }, Qt::QueuedConnection);
}

bool KTQtMainThread::isMainThread() const {
    return QThread::currentThread() == thread();
}

void KTQtMainThread::processPendingEvents(double maxWaitSeconds) {
    if (!isMainThread()) {
        KTMainThread::processPendingEvents(maxWaitSeconds);
        return;
    }
    QEventLoop loop;
    // The timer wakes the wait when no interface event arrives in time.
    QTimer::singleShot(std::chrono::milliseconds(static_cast<int>(maxWaitSeconds * 1000)), &loop,
                       [] {});
    loop.processEvents(maxWaitSeconds > 0 ? QEventLoop::WaitForMoreEvents : QEventLoop::AllEvents);
}
