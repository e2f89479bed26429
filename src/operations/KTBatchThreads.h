#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

/// The threads that batch operations (enable or disable, scope, removal)
/// run on. Each batch gets a thread of its own; the owner waits for all of
/// them before it goes, so no batch outlives the tree it works on.
class KTBatchThreads {
  public:
    KTBatchThreads() = default;
    ~KTBatchThreads() { waitForAll(); }
    KTBatchThreads(const KTBatchThreads&) = delete;
    KTBatchThreads& operator=(const KTBatchThreads&) = delete;

    /// Runs `work` on a new thread; threads of batches that have ended are
    /// joined here, so a long session does not keep them.
    void start(std::function<void()> work);
    /// Returns when every batch started so far has ended. Not to be called
    /// from a batch thread.
    void waitForAll();

  private:
    struct Batch {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::mutex lock_;
    std::list<Batch> threads_;
};
