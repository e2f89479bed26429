#include "services/KTCurlPost.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>

namespace {

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
    return static_cast<const std::atomic<bool>*>(cancelled)->load() ? 1 : 0;
}

}  // namespace

KTCurlPost::~KTCurlPost() {
    if (easy_) curl_easy_cleanup(static_cast<CURL*>(easy_));
    if (headers_) curl_slist_free_all(static_cast<curl_slist*>(headers_));
}

KTCurlPost* KTCurlPost::prepare(const KTQCRequest& request, const std::atomic<bool>* cancelled) {
    // Once per process, before any thread uses libcurl.
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)initialised;
    if (!isHTTPS(request.url)) return nullptr;
    std::unique_ptr<KTCurlPost> post(new KTCurlPost);
    CURL* c = curl_easy_init();
    if (!c) return nullptr;
    post->easy_ = c;
    for (const std::string& h : {"Content-Type: " + request.contentType,
                                 // Without this libcurl waits a second for a
                                 // "100 Continue" many form handlers never send.
                                 std::string("Expect:")}) {
        curl_slist* added = curl_slist_append(static_cast<curl_slist*>(post->headers_), h.c_str());
        if (!added) return nullptr;
        post->headers_ = added;
    }
    post->body_ = request.body;
    const std::string& body = post->body_;
    bool ok = curl_easy_setopt(c, CURLOPT_URL, request.url.c_str()) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POST, 1L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data()) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE,
                               static_cast<curl_off_t>(body.size())) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_HTTPHEADER, post->headers_) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discardAnswer) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 30L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_TIMEOUT, 120L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, abortWhenCancelled) == CURLE_OK &&
              curl_easy_setopt(c, CURLOPT_XFERINFODATA, cancelled) == CURLE_OK;
    if (ok && !request.caFile.empty())
        ok = curl_easy_setopt(c, CURLOPT_CAINFO, request.caFile.c_str()) == CURLE_OK;
    return ok ? post.release() : nullptr;
}

std::optional<std::string> KTCurlPost::perform(KTCurlPost* post) {
    std::unique_ptr<KTCurlPost> owned(post);
    CURL* c = static_cast<CURL*>(post->easy_);
    char detail[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, detail);
    const CURLcode result = curl_easy_perform(c);
    if (result == CURLE_OK) return std::nullopt;
    return std::string(detail[0] ? detail : curl_easy_strerror(result));
}
