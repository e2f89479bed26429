#include "SharedFiles/KTMainThread.h"

#include <chrono>
#include <mutex>

namespace {
std::mutex gSharedLock;
std::shared_ptr<KTMainThread> gShared;
std::recursive_mutex gInlineLock;
}  // namespace

KTMainThread& KTMainThread::shared() {
    std::lock_guard<std::mutex> lock(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTInlineMainThread>();
    return *gShared;
}

void KTMainThread::setShared(std::shared_ptr<KTMainThread> dispatcher) {
    std::lock_guard<std::mutex> lock(gSharedLock);
    gShared = std::move(dispatcher);
}

KTInlineMainThread::KTInlineMainThread() : mainId_(std::this_thread::get_id()) {}

void KTInlineMainThread::runAndWait(const std::function<void()>& work) {
    std::lock_guard<std::recursive_mutex> lock(gInlineLock);
    work();
}

void KTInlineMainThread::post(std::function<void()> work) {
    std::lock_guard<std::recursive_mutex> lock(gInlineLock);
    work();
}

bool KTInlineMainThread::isMainThread() const {
    return std::this_thread::get_id() == mainId_;
}

void KTMainThread::processPendingEvents(double maxWaitSeconds) {
    if (maxWaitSeconds > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(maxWaitSeconds));
}
