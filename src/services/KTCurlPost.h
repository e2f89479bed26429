#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "analytics/KTQCTransport.h"

/// One HTTPS post with libcurl, inside ambrel-services.so: made ready on the
/// caller's thread (so that an address it cannot post to is refused at
/// once), sent later on the transport's own thread. Only "https" addresses
/// are accepted, and the server's certificate is always verified.
class KTCurlPost {
  public:
    /// Null when `request` cannot be posted. `cancelled` aborts the transfer
    /// when it turns true; it must outlive the post.
    static KTCurlPost* prepare(const KTQCRequest& request, const std::atomic<bool>* cancelled);
    /// Sends the post and deletes it: nothing on success, else the error.
    static std::optional<std::string> perform(KTCurlPost* post);

    ~KTCurlPost();

  private:
    KTCurlPost() = default;

    void* easy_ = nullptr;     ///< CURL*
    void* headers_ = nullptr;  ///< curl_slist*
    std::string body_;         ///< libcurl reads it without copying
};
