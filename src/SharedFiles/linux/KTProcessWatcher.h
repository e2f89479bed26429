#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// Watches child processes of this program until they end, each through a
/// pidfd, all on one thread, which also reaps them (a host left running by
/// the crash tester must not turn into a zombie when it quits later).
class KTProcessWatcher {
  public:
    /// Called on the watcher's thread once the child has ended and been
    /// reaped, with its wait status.
    using ExitHandler = std::function<void(pid_t pid, int status)>;

    KTProcessWatcher();
    /// Stops watching; children still running are left alone (and unreaped).
    ~KTProcessWatcher();
    KTProcessWatcher(const KTProcessWatcher&) = delete;
    KTProcessWatcher& operator=(const KTProcessWatcher&) = delete;

    /// Starts watching `pid`, a child of this process. False when it cannot
    /// be watched (no pidfd for it); the child is then the caller's to reap.
    bool watch(pid_t pid, ExitHandler onExit);

  private:
    struct Entry {
        pid_t pid;
        ExitHandler onExit;
    };
    void run();
    void childEnded(int pidfd);

    int epoll_ = -1;
    int wake_ = -1;
    std::mutex mutex_;
    std::map<int, Entry> children_;  ///< by pidfd
    std::thread thread_;
};
