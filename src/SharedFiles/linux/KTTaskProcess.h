#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// One child process: launch path, argument list, optional full environment
/// and three standard streams, plus terminate and exit status. Started with
/// posix_spawn and an argument vector, never through a shell.
///
/// Safe to use from several threads: one may wait while another (a time-out
/// watchdog) terminates. The child is reaped only under the object's lock, so
/// a terminate request can never reach a recycled process id. A child still
/// running when the last handle goes is reaped by a detached thread.
class KTTaskProcess {
  public:
    /// Stream settings for `launch`: a file descriptor, or one of these.
    static constexpr int kInherit = -1;
    static constexpr int kNullDevice = -2;

    /// `launchPath` is what the caller named (used in messages); `execPath`
    /// is what is started (the tool's place on this machine).
    KTTaskProcess(std::string launchPath, std::string execPath, std::vector<std::string> arguments,
                  std::optional<std::map<std::string, std::string>> environment = std::nullopt);
    ~KTTaskProcess();
    KTTaskProcess(const KTTaskProcess&) = delete;
    KTTaskProcess& operator=(const KTTaskProcess&) = delete;

    /// Descriptors no child may keep (the channel to the privileged helper):
    /// closed in every child before it runs, even one that would inherit
    /// them. `keepFromChildren` registers, `releaseToChildren` forgets.
    static void keepFromChildren(int fd);
    static void releaseToChildren(int fd);

    /// Starts the child with the given descriptors as its fds 0, 1 and 2.
    /// Answers 0 or the errno of the failed start.
    int launch(int stdinFd = kInherit, int stdoutFd = kInherit, int stderrFd = kInherit);

    const std::string& launchPath() const { return launchPath_; }
    const std::vector<std::string>& arguments() const { return arguments_; }
    pid_t processIdentifier() const;
    bool launched() const;
    /// Launched and not yet exited.
    bool isRunning();
    /// Blocks until the child has exited (at once if it never started).
    void waitUntilExit();
    /// The exit code, or the signal number for a child killed by a signal.
    int terminationStatus();
    /// Sends SIGTERM while the child lives; before launch, the child is
    /// stopped as soon as it starts.
    void terminate();

  private:
    void reapLocked(int waitStatus);

    const std::string launchPath_;
    const std::string execPath_;
    const std::vector<std::string> arguments_;
    const std::optional<std::map<std::string, std::string>> environment_;

    mutable std::mutex lock_;
    pid_t pid_ = 0;
    bool reaped_ = false;
    bool terminateRequested_ = false;
    int status_ = 0;
};

using KTTaskHandle = std::shared_ptr<KTTaskProcess>;
