#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "analytics/KTQCTransport.h"

/// Posts over HTTPS with libcurl (loaded with the services module on the
/// first post), each request on a thread of its own so the interface never
/// waits. The body goes out as given (CURLOPT_POSTFIELDS with
/// the caller's Content-Type): libcurl's own multipart writer would add a
/// closing boundary the form handler is not sent. Only "https" addresses are
/// accepted, and the server's certificate is always verified.
class KTCurlTransport : public KTQCTransport {
  public:
    KTCurlTransport();
    ~KTCurlTransport() override;  ///< cancels and waits, like cancelAll
    KTCurlTransport(const KTCurlTransport&) = delete;
    KTCurlTransport& operator=(const KTCurlTransport&) = delete;

    bool start(const KTQCRequest& request, Finished finished) override;
    void cancelAll() override;
    /// Waits until every post started so far has ended (tests).
    void waitUntilFinished();

  private:
    struct Post {
        std::thread thread;
        std::atomic<bool> done{false};
    };
    /// Joins the threads of posts that have ended.
    void reapLocked();

    std::mutex lock_;
    std::list<std::unique_ptr<Post>> posts_;
    std::atomic<bool> cancelled_{false};
};
