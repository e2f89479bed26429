#include "SharedFiles/KTOperationQueue.h"

KTOperationQueue::KTOperationQueue(std::size_t maxConcurrent) : max_(maxConcurrent ? maxConcurrent : 1) {}

KTOperationQueue::~KTOperationQueue() {
    {
        std::lock_guard<std::mutex> l(lock_);
        queue_.clear();
        stopping_ = true;
    }
    wake_.notify_all();
    for (auto& t : workers_) t.join();
}

void KTOperationQueue::addOperation(std::function<void()> op) {
    std::lock_guard<std::mutex> l(lock_);
    queue_.push_back(std::move(op));
    if (idleWorkers_ == 0 && workers_.size() < max_) {
        workers_.emplace_back([this] { workerLoop(); });
    } else {
        wake_.notify_one();
    }
}

void KTOperationQueue::workerLoop() {
    std::unique_lock<std::mutex> l(lock_);
    for (;;) {
        ++idleWorkers_;
        wake_.wait(l, [this] { return stopping_ || !queue_.empty(); });
        --idleWorkers_;
        if (queue_.empty()) return;  // stopping
        auto op = std::move(queue_.front());
        queue_.pop_front();
        ++running_;
        l.unlock();
        op();
        op = nullptr;
        l.lock();
        --running_;
        if (queue_.empty() && running_ == 0) idle_.notify_all();
    }
}

void KTOperationQueue::waitUntilAllOperationsAreFinished() {
    std::unique_lock<std::mutex> l(lock_);
    idle_.wait(l, [this] { return queue_.empty() && running_ == 0; });
}

void KTOperationQueue::cancelAllOperations() {
    std::lock_guard<std::mutex> l(lock_);
    queue_.clear();
    if (running_ == 0) idle_.notify_all();
}

std::size_t KTOperationQueue::operationCount() const {
    std::lock_guard<std::mutex> l(lock_);
    return queue_.size() + running_;
}
