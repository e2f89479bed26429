#include "operations/KTBatchThreads.h"

void KTBatchThreads::start(std::function<void()> work) {
    std::lock_guard<std::mutex> l(lock_);
    threads_.emplace_back(std::move(work));
}

void KTBatchThreads::waitForAll() {
    while (true) {
        std::list<std::thread> running;
        {
            std::lock_guard<std::mutex> l(lock_);
            if (threads_.empty()) return;
            running.swap(threads_);
        }
        for (auto& t : running) {
            if (t.joinable() && t.get_id() != std::this_thread::get_id()) t.join();
        }
    }
}
