#include "SharedFiles/linux/KTTaskProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

extern char** environ;

namespace {

std::mutex gPrivateLock;
std::vector<int>& privateDescriptors() {
    static std::vector<int> fds;
    return fds;
}

}  // namespace

void KTTaskProcess::keepFromChildren(int fd) {
    std::lock_guard<std::mutex> guard(gPrivateLock);
    privateDescriptors().push_back(fd);
}

void KTTaskProcess::releaseToChildren(int fd) {
    std::lock_guard<std::mutex> guard(gPrivateLock);
    auto& fds = privateDescriptors();
    fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
}

KTTaskProcess::KTTaskProcess(std::string launchPath, std::string execPath,
                             std::vector<std::string> arguments,
                             std::optional<std::map<std::string, std::string>> environment)
    : launchPath_(std::move(launchPath)),
      execPath_(std::move(execPath)),
      arguments_(std::move(arguments)),
      environment_(std::move(environment)) {}

KTTaskProcess::~KTTaskProcess() {
    std::lock_guard<std::mutex> guard(lock_);
    if (pid_ > 0 && !reaped_) {
        int st;
        if (waitpid(pid_, &st, WNOHANG) == pid_) return;
        // Nobody waits for this child any more; a zombie must not be left.
        pid_t pid = pid_;
        std::thread([pid] {
            int st;
            while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    }
}

int KTTaskProcess::launch(int stdinFd, int stdoutFd, int stderrFd) {
    std::lock_guard<std::mutex> guard(lock_);
    if (pid_ > 0) return EALREADY;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int fds[3] = {stdinFd, stdoutFd, stderrFd};
    for (int target = 0; target < 3; ++target) {
        if (fds[target] == kNullDevice) {
            posix_spawn_file_actions_addopen(&actions, target, "/dev/null",
                                             target == 0 ? O_RDONLY : O_WRONLY, 0);
        } else if (fds[target] >= 0) {
            posix_spawn_file_actions_adddup2(&actions, fds[target], target);
        }
    }
    // Held until the child has started, so that a descriptor is not closed
    // and its number reused by someone else in between.
    std::unique_lock<std::mutex> privateGuard(gPrivateLock);
    for (int fd : privateDescriptors()) {
        if (fd != stdinFd && fd != stdoutFd && fd != stderrFd)
            posix_spawn_file_actions_addclose(&actions, fd);
    }
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // Children start with default signal handling and no blocked signals,
    // whatever the test runner or the window toolkit did to ours.
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    std::vector<std::string> argStore;
    argStore.reserve(arguments_.size() + 1);
    argStore.push_back(launchPath_);
    argStore.insert(argStore.end(), arguments_.begin(), arguments_.end());
    std::vector<char*> argv;
    for (auto& a : argStore) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStore;
    std::vector<char*> envp;
    char** envArg = environ;
    if (environment_) {
        for (const auto& [k, v] : *environment_) envStore.push_back(k + "=" + v);
        for (auto& e : envStore) envp.push_back(e.data());
        envp.push_back(nullptr);
        envArg = envp.data();
    }

    pid_t pid = 0;
    int rc = posix_spawn(&pid, execPath_.c_str(), &actions, &attr, argv.data(), envArg);
    privateGuard.unlock();
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) return rc;
    pid_ = pid;
    if (terminateRequested_) kill(pid_, SIGTERM);
    return 0;
}

pid_t KTTaskProcess::processIdentifier() const {
    std::lock_guard<std::mutex> guard(lock_);
    return pid_;
}

bool KTTaskProcess::launched() const {
    std::lock_guard<std::mutex> guard(lock_);
    return pid_ > 0;
}

void KTTaskProcess::reapLocked(int waitStatus) {
    reaped_ = true;
    if (WIFEXITED(waitStatus)) {
        status_ = WEXITSTATUS(waitStatus);
    } else if (WIFSIGNALED(waitStatus)) {
        status_ = WTERMSIG(waitStatus);
    }
}

bool KTTaskProcess::isRunning() {
    std::lock_guard<std::mutex> guard(lock_);
    if (pid_ <= 0 || reaped_) return false;
    siginfo_t info{};
    if (waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
    return info.si_pid == 0;
}

void KTTaskProcess::waitUntilExit() {
    pid_t pid;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (pid_ <= 0 || reaped_) return;
        pid = pid_;
    }
    // Wait without reaping, so that the id stays ours while terminate() may
    // still be called; reap under the lock.
    siginfo_t info{};
    while (waitid(P_PID, pid, &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    std::lock_guard<std::mutex> guard(lock_);
    if (reaped_) return;
    int st = 0;
    pid_t r;
    while ((r = waitpid(pid, &st, 0)) < 0 && errno == EINTR) {
    }
    if (r == pid) {
        reapLocked(st);
    } else {
        reaped_ = true;
    }
}

int KTTaskProcess::terminationStatus() {
    waitUntilExit();
    std::lock_guard<std::mutex> guard(lock_);
    return status_;
}

void KTTaskProcess::terminate() {
    std::lock_guard<std::mutex> guard(lock_);
    if (pid_ <= 0) {
        terminateRequested_ = true;
        return;
    }
    if (!reaped_) kill(pid_, SIGTERM);
}
