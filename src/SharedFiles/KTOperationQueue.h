#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// A bounded pool of worker threads running queued operations, at most
/// `maxConcurrent` at a time. Threads are started lazily and kept until the
/// queue goes, so thousands of short operations never mean thousands of threads.
class KTOperationQueue {
public:
    explicit KTOperationQueue(std::size_t maxConcurrent);
    ~KTOperationQueue();  ///< cancels what has not started and waits for the rest
    KTOperationQueue(const KTOperationQueue&) = delete;
    KTOperationQueue& operator=(const KTOperationQueue&) = delete;

    void addOperation(std::function<void()> op);
    void waitUntilAllOperationsAreFinished();
    /// Drops every operation that has not started yet.
    void cancelAllOperations();
    std::size_t operationCount() const;

private:
    void workerLoop();

    std::size_t max_;
    mutable std::mutex lock_;
    std::condition_variable wake_, idle_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> workers_;
    std::size_t running_ = 0;
    std::size_t idleWorkers_ = 0;
    bool stopping_ = false;
};
