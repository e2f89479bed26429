#include "SharedFiles/linux/KTHelperChannel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

namespace {

std::optional<long long> parseNumber(std::string_view s) {
    long long v = 0;
    if (s.empty() || s.size() > 12) return std::nullopt;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || p != s.data() + s.size()) return std::nullopt;
    return v;
}

}  // namespace

bool KTHelperChannel::fill() {
    if (timeoutMs_ >= 0) {
        pollfd p{readFd_, POLLIN, 0};
        int r;
        while ((r = poll(&p, 1, timeoutMs_)) < 0 && errno == EINTR) {
        }
        if (r <= 0) return false;
    }
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(readFd_, buf, sizeof buf);
        if (n > 0) {
            buffer_.append(buf, static_cast<size_t>(n));
            return true;
        }
        if (n < 0 && errno == EINTR) continue;
        return false;
    }
}

std::optional<std::string> KTHelperChannel::readLine() {
    for (;;) {
        size_t nl = buffer_.find('\n');
        if (nl != std::string::npos) {
            if (nl > kMaxLineLength) return std::nullopt;
            std::string line = buffer_.substr(0, nl);
            buffer_.erase(0, nl + 1);
            return line;
        }
        if (buffer_.size() > kMaxLineLength) return std::nullopt;
        if (!fill()) return std::nullopt;
    }
}

std::optional<std::string> KTHelperChannel::readExact(size_t n) {
    while (buffer_.size() < n) {
        if (!fill()) return std::nullopt;
    }
    std::string out = buffer_.substr(0, n);
    buffer_.erase(0, n);
    return out;
}

bool KTHelperChannel::writeAll(const std::string& bytes) {
    size_t done = 0;
    struct stat st;
    const bool isSocket = fstat(writeFd_, &st) == 0 && S_ISSOCK(st.st_mode);
    while (done < bytes.size()) {
        // A vanished peer must answer an error, not kill us with SIGPIPE.
        ssize_t n = isSocket
                        ? send(writeFd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL)
                        : ::write(writeFd_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool KTHelperChannel::sendRequest(const Request& request) {
    if (request.fields.empty() || request.fields.size() > kMaxFields) return false;
    std::string msg = "run " + std::string(request.wait ? "1" : "0") + " " +
                      std::to_string(request.fields.size()) + "\n";
    for (const auto& f : request.fields) {
        if (f.size() > kMaxFieldLength) return false;
        msg += std::to_string(f.size()) + "\n" + f;
    }
    return writeAll(msg);
}

std::optional<KTHelperChannel::Request> KTHelperChannel::readRequest() {
    auto line = readLine();
    if (!line) return std::nullopt;
    // "run W N"
    if (line->size() < 7 || line->compare(0, 4, "run ") != 0) return std::nullopt;
    Request r;
    char w = (*line)[4];
    if ((w != '0' && w != '1') || (*line)[5] != ' ') return std::nullopt;
    r.wait = w == '1';
    auto count = parseNumber(std::string_view(*line).substr(6));
    if (!count || *count < 1 || *count > static_cast<long long>(kMaxFields)) return std::nullopt;
    for (long long i = 0; i < *count; ++i) {
        auto lenLine = readLine();
        if (!lenLine) return std::nullopt;
        auto len = parseNumber(*lenLine);
        if (!len || *len < 0 || *len > static_cast<long long>(kMaxFieldLength)) return std::nullopt;
        auto field = readExact(static_cast<size_t>(*len));
        if (!field) return std::nullopt;
        r.fields.push_back(std::move(*field));
    }
    return r;
}

bool KTHelperChannel::sendStatus(std::int32_t status) {
    return writeAll("status " + std::to_string(status) + "\n");
}

std::optional<std::int32_t> KTHelperChannel::readStatus() {
    auto line = readLine();
    if (!line || line->compare(0, 7, "status ") != 0) return std::nullopt;
    auto v = parseNumber(std::string_view(*line).substr(7));
    if (!v || *v < INT32_MIN || *v > INT32_MAX) return std::nullopt;
    return static_cast<std::int32_t>(*v);
}

bool KTHelperChannel::sendRoot(const std::string& root) {
    if (root.size() > kMaxFieldLength) return false;
    return writeAll("root " + std::to_string(root.size()) + "\n" + root);
}

std::optional<std::string> KTHelperChannel::readRoot() {
    auto line = readLine();
    if (!line || line->compare(0, 5, "root ") != 0) return std::nullopt;
    auto len = parseNumber(std::string_view(*line).substr(5));
    if (!len || *len < 1 || *len > static_cast<long long>(kMaxFieldLength)) return std::nullopt;
    return readExact(static_cast<size_t>(*len));
}
