#include "analytics/KTCurlTransport.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>

namespace {

struct CurlEasyDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct CurlListDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct CurlUrlDeleter {
    void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

bool isHTTPS(const std::string& url) {
    std::unique_ptr<CURLU, CurlUrlDeleter> parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
        return false;
    char* scheme = nullptr;
    if (curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) return false;
    std::string s(scheme);
    curl_free(scheme);
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s == "https";
}

size_t discardAnswer(char*, size_t size, size_t count, void*) {
    return size * count;  // the answer is not examined
}

int abortWhenCancelled(void* cancelled, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<std::atomic<bool>*>(cancelled)->load() ? 1 : 0;
}

}  // namespace

KTCurlTransport::KTCurlTransport() {
    // Once per process, before any thread of ours uses libcurl.
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)initialised;
}

KTCurlTransport::~KTCurlTransport() {
    cancelAll();
}

bool KTCurlTransport::start(const KTQCRequest& request, Finished finished) {
    if (cancelled_ || !isHTTPS(request.url)) return false;
    std::unique_ptr<CURL, CurlEasyDeleter> easy(curl_easy_init());
    if (!easy) return false;
    curl_slist* list = nullptr;
    for (const std::string& h : {"Content-Type: " + request.contentType,
                                 // Without this libcurl waits a second for a
                                 // "100 Continue" many form handlers never send.
                                 std::string("Expect:")}) {
        curl_slist* added = curl_slist_append(list, h.c_str());
        if (!added) {
            curl_slist_free_all(list);
            return false;
        }
        list = added;
    }
    std::unique_ptr<curl_slist, CurlListDeleter> headers(list);

    CURL* c = easy.get();
    auto body = std::make_shared<std::string>(request.body);
    bool ok = curl_easy_setopt(c, CURLOPT_URL, request.url.c_str()) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POST, 1L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POSTFIELDS, body->data()) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE,
                               static_cast<curl_off_t>(body->size())) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discardAnswer) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 30L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_TIMEOUT, 120L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, abortWhenCancelled) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_XFERINFODATA, &cancelled_) == CURLE_OK;
    if (ok && !request.caFile.empty())
        ok = curl_easy_setopt(c, CURLOPT_CAINFO, request.caFile.c_str()) == CURLE_OK;
    if (!ok) return false;

    std::lock_guard<std::mutex> l(lock_);
    reapLocked();
    auto post = std::make_unique<Post>();
    Post* p = post.get();
    p->thread = std::thread([easy = std::move(easy), headers = std::move(headers), body,
                             finished = std::move(finished), p]() mutable {
        char detail[CURL_ERROR_SIZE] = {};
        curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, detail);
        const CURLcode result = curl_easy_perform(easy.get());
        std::optional<std::string> error;
        if (result != CURLE_OK) error = detail[0] ? detail : curl_easy_strerror(result);
        easy.reset();
        headers.reset();
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
