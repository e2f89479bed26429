#pragma once

#include <mutex>

#include "SharedFiles/KTMainThread.h"

/// Holds the catalogue's tree lock for an operation. A worker may hold that
/// lock while it waits for the main thread (a load appends its groups that
/// way), so on the main thread the lock is only tried, and events are
/// handled between the tries until it is free; elsewhere it is taken plainly.
class KTOperationTreeLock {
  public:
    explicit KTOperationTreeLock(std::recursive_mutex& lock) : lock_(lock) {
        if (!KTMainThread::shared().isMainThread()) {
            lock_.lock();
            return;
        }
        while (!lock_.try_lock()) KTMainThread::shared().processPendingEvents(0.005);
    }
    ~KTOperationTreeLock() { lock_.unlock(); }
    KTOperationTreeLock(const KTOperationTreeLock&) = delete;
    KTOperationTreeLock& operator=(const KTOperationTreeLock&) = delete;

  private:
    std::recursive_mutex& lock_;
};
