#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The wire between the program and its privileged helper: one stream
/// socket, the helper's standard input and output.
///
///   helper -> program   "ready\n"            once it runs as root
///   program -> helper   "begin\n"            anything before it is dropped
///   program -> helper   "root <length>\n<bytes>"  the system root it runs with
///   program -> helper   "run <wait> <n>\n" then n fields "<length>\n<bytes>"
///                       (field 0 the tool as the program names it)
///   helper -> program   "status <int>\n"
///
/// The marker exists because "sudo -S" reads its password from the same
/// stream and the helper must never take leftover password lines for a
/// request.
class KTHelperChannel {
  public:
    static constexpr size_t kMaxFields = 64;
    static constexpr size_t kMaxFieldLength = 4096;
    static constexpr size_t kMaxLineLength = 64;

    struct Request {
        bool wait = false;
        std::vector<std::string> fields;
    };

    /// Takes over neither end: the caller owns `readFd`/`writeFd`.
    KTHelperChannel(int readFd, int writeFd) : readFd_(readFd), writeFd_(writeFd) {}

    /// A line without its newline; nothing at end of data, on error, or
    /// when the line is longer than `kMaxLineLength`.
    std::optional<std::string> readLine();
    bool writeAll(const std::string& bytes);

    bool sendRequest(const Request& request);
    /// Nothing at end of data or for anything malformed or oversized.
    std::optional<Request> readRequest();
    bool sendStatus(std::int32_t status);
    bool sendRoot(const std::string& root);
    /// Nothing for anything but a root message of at most `kMaxFieldLength` bytes.
    std::optional<std::string> readRoot();
    std::optional<std::int32_t> readStatus();

    /// Bounds each wait for data (milliseconds; negative waits for ever).
    void setReadTimeout(int milliseconds) { timeoutMs_ = milliseconds; }

  private:
    bool fill();
    std::optional<std::string> readExact(size_t n);

    int readFd_, writeFd_;
    int timeoutMs_ = -1;
    std::string buffer_;
};
