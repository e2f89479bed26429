#pragma once

#include <mutex>

#include "SharedFiles/KTMainThread.h"

/// Takes the catalogue's tree lock on the main thread. A worker may hold that
/// lock while it waits for the main thread to run something (a load appends
/// its groups that way), so the main thread never simply blocks on it: it
/// keeps handling events until the lock is free.
class KTTreeLockGuard {
  public:
    explicit KTTreeLockGuard(std::recursive_mutex& lock) : lock_(lock) {
        while (!lock_.try_lock()) KTMainThread::shared().processPendingEvents(0.005);
    }
    ~KTTreeLockGuard() { lock_.unlock(); }
    KTTreeLockGuard(const KTTreeLockGuard&) = delete;
    KTTreeLockGuard& operator=(const KTTreeLockGuard&) = delete;

  private:
    std::recursive_mutex& lock_;
};
