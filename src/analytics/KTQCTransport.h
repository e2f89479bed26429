#pragma once

#include <functional>
#include <optional>
#include <string>

/// One upload: the body is sent exactly as given.
struct KTQCRequest {
    std::string url;
    std::string contentType;
    std::string body;
    /// A certificate authority file to trust instead of the system's; empty for the system's.
    std::string caFile;
};

/// The network behind analytics. `start` never waits for the answer: it
/// answers false at once when no connection can be made for the request (the
/// address is not one it can post to), else true, and later calls `finished`
/// on a thread of its own with nothing on success or the error's description.
class KTQCTransport {
  public:
    using Finished = std::function<void(const std::optional<std::string>& error)>;
    virtual ~KTQCTransport() = default;
    virtual bool start(const KTQCRequest& request, Finished finished) = 0;
    /// Ends every post still running (quitting) and waits for their threads.
    virtual void cancelAll() {}
};
