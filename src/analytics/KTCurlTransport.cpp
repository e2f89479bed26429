#include "analytics/KTCurlTransport.h"

#include "SharedFiles/linux/KTServiceModule.h"

KTCurlTransport::KTCurlTransport() = default;

KTCurlTransport::~KTCurlTransport() {
    cancelAll();
}

bool KTCurlTransport::start(const KTQCRequest& request, Finished finished) {
    if (cancelled_) return false;
    // libcurl lives in the services module: without it nothing is sent.
    const KTServiceTable* services = KTServiceModule::services();
    if (!services) return false;
    void* prepared = services->httpsPrepare(request, &cancelled_);
    if (!prepared) return false;

    std::lock_guard<std::mutex> l(lock_);
    reapLocked();
    auto post = std::make_unique<Post>();
    Post* p = post.get();
    p->thread = std::thread([services, prepared, finished = std::move(finished), p] {
        const std::optional<std::string> error = services->httpsPerform(prepared);
        if (finished) finished(error);
        p->done = true;
    });
    posts_.push_back(std::move(post));
    return true;
}

void KTCurlTransport::reapLocked() {
    for (auto it = posts_.begin(); it != posts_.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            it = posts_.erase(it);
        } else {
            ++it;
        }
    }
}

void KTCurlTransport::waitUntilFinished() {
    std::list<std::unique_ptr<Post>> posts;
    {
        std::lock_guard<std::mutex> l(lock_);
        posts.swap(posts_);
    }
    for (auto& p : posts) p->thread.join();
}

void KTCurlTransport::cancelAll() {
    cancelled_ = true;
    waitUntilFinished();
}
