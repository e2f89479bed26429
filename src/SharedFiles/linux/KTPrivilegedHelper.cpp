#include "SharedFiles/linux/KTPrivilegedHelper.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <sstream>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/linux/KTHelperChannel.h"

namespace {

/// posix_spawn takes a path; elevation commands are named by word.
std::string findInPath(const std::string& word) {
    if (word.find('/') != std::string::npos) return word;
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path && *path ? path : "/usr/local/bin:/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::string candidate = (dir.empty() ? "." : dir) + "/" + word;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

// sudo allows three tries; each is fed the same line so that a wrong
// password ends sudo instead of leaving it waiting for more.
constexpr int kPasswordLines = 3;
// "sudo -S" never shows a prompt, so its answer cannot take long.
constexpr int kPasswordStartTimeoutMs = 60000;

/// While a helper runs, no other process of the user may look into this one
/// (ptrace, pidfd_getfd, /proc/<pid>/fd): the channel is a root right.
std::mutex gDumpableLock;
int gHelpersHeld = 0;
int gDumpableBefore = 1;

void holdUndumpable() {
    std::lock_guard<std::mutex> guard(gDumpableLock);
    if (gHelpersHeld++ == 0) {
        gDumpableBefore = prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
        prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    }
}

void releaseUndumpable() {
    std::lock_guard<std::mutex> guard(gDumpableLock);
    if (--gHelpersHeld == 0 && gDumpableBefore > 0)
        prctl(PR_SET_DUMPABLE, gDumpableBefore, 0, 0, 0);
}

}  // namespace

std::string KTPrivilegedHelper::helperPath() {
    // Never from the environment: whoever sets it would choose what runs as root.
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string exe(self, static_cast<size_t>(n));
        std::string beside = exe.substr(0, exe.rfind('/')) + "/ambrel-helper";
        if (access(beside.c_str(), X_OK) == 0) return beside;
    }
    return AMBREL_HELPER_PATH;
}

std::vector<std::string> KTPrivilegedHelper::elevationCommand() {
    std::vector<std::string> words;
    const char* env = std::getenv("AMBREL_ELEVATE");
    std::stringstream in(env && *env ? env : "pkexec");
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

std::shared_ptr<KTPrivilegedHelper> KTPrivilegedHelper::start(
    const std::vector<std::string>& command, const std::string* password) {
    if (command.empty()) return nullptr;
    const std::string exec = findInPath(command[0]);
    if (exec.empty()) return nullptr;
    std::string root = KTLocalPaths::systemRoot();
    if (root.empty()) root = "/";

    holdUndumpable();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        releaseUndumpable();
        return nullptr;
    }
    KTTaskProcess::keepFromChildren(fds[0]);
    auto fail = [&] {
        KTTaskProcess::releaseToChildren(fds[0]);
        close(fds[0]);
        releaseUndumpable();
        return nullptr;
    };
    auto process = std::make_shared<KTTaskProcess>(
        command[0], exec, std::vector<std::string>(command.begin() + 1, command.end()));
    int rc = process->launch(fds[1], fds[1], KTTaskProcess::kInherit);
    close(fds[1]);
    if (rc != 0) return fail();
    KTHelperChannel channel(fds[0], fds[0]);
    if (password) {
        std::string lines;
        for (int i = 0; i < kPasswordLines; ++i) lines += *password + "\n";
        channel.writeAll(lines);
        channel.setReadTimeout(kPasswordStartTimeoutMs);
    }
    auto ready = channel.readLine();
    if (!ready || *ready != "ready" || !channel.writeAll("begin\n") || !channel.sendRoot(root)) {
        shutdown(fds[0], SHUT_RDWR);
        if (process->isRunning()) process->terminate();
        process->waitUntilExit();
        return fail();
    }
    return std::shared_ptr<KTPrivilegedHelper>(new KTPrivilegedHelper(fds[0], process));
}

KTPrivilegedHelper::~KTPrivilegedHelper() {
    // End of data tells the helper its parent is done; the elevation
    // process is reaped in the background (the helper may still be
    // finishing a tool).
    shutdown(fd_, SHUT_RDWR);
    KTTaskProcess::releaseToChildren(fd_);
    close(fd_);
    releaseUndumpable();
}

std::int32_t KTPrivilegedHelper::run(const std::string& tool,
                                     const std::vector<std::string>& arguments, bool wait) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!alive_) return KTAuthorization::kStatusRefused;
    KTHelperChannel::Request request;
    request.wait = wait;
    request.fields.push_back(tool);
    request.fields.insert(request.fields.end(), arguments.begin(), arguments.end());
    if (request.fields.size() > KTHelperChannel::kMaxFields) return KTAuthorization::kStatusRefused;
    for (const auto& f : request.fields) {
        if (f.size() > KTHelperChannel::kMaxFieldLength) return KTAuthorization::kStatusRefused;
    }
    KTHelperChannel channel(fd_, fd_);
    if (!channel.sendRequest(request)) {
        alive_ = false;
        return KTAuthorization::kStatusRefused;
    }
    auto status = channel.readStatus();
    if (!status) {
        alive_ = false;
        return KTAuthorization::kStatusRefused;
    }
    return *status;
}

bool KTPrivilegedHelper::isAlive() const {
    std::lock_guard<std::mutex> guard(lock_);
    return alive_ && process_->isRunning();
}
