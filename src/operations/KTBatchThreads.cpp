#include "operations/KTBatchThreads.h"

void KTBatchThreads::start(std::function<void()> work) {
    std::list<Batch> ended;
    {
        std::lock_guard<std::mutex> l(lock_);
        for (auto it = threads_.begin(); it != threads_.end();) {
            auto next = std::next(it);
            if (it->done->load()) ended.splice(ended.end(), threads_, it);
            it = next;
        }
        auto done = std::make_shared<std::atomic<bool>>(false);
        threads_.push_back({std::thread([work = std::move(work), done] {
                                work();
                                done->store(true);
                            }),
                            done});
    }
    for (auto& b : ended) b.thread.join();
}

void KTBatchThreads::waitForAll() {
    while (true) {
        std::list<Batch> running;
        {
            std::lock_guard<std::mutex> l(lock_);
            if (threads_.empty()) return;
            running.swap(threads_);
        }
        for (auto& b : running) {
            if (!b.thread.joinable()) continue;
            // A batch cannot wait for itself; it is let go instead.
            if (b.thread.get_id() == std::this_thread::get_id())
                b.thread.detach();
            else
                b.thread.join();
        }
    }
}
