#include "SharedFiles/linux/KTProcessWatcher.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

// glibc 2.36's header lacks the C++ guards.
extern "C" {
#include <sys/pidfd.h>
}

KTProcessWatcher::KTProcessWatcher() {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_ < 0 || wake_ < 0) return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = wake_;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &ev);
    thread_ = std::thread([this] { run(); });
}

KTProcessWatcher::~KTProcessWatcher() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        (void)!::write(wake_, &one, sizeof one);
        thread_.join();
    }
    for (const auto& [fd, entry] : children_) ::close(fd);
    if (wake_ >= 0) ::close(wake_);
    if (epoll_ >= 0) ::close(epoll_);
}

bool KTProcessWatcher::watch(pid_t pid, ExitHandler onExit) {
    if (!thread_.joinable()) return false;
    const int fd = ::pidfd_open(pid, 0);
    if (fd < 0) return false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        children_[fd] = Entry{pid, std::move(onExit)};
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) != 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        children_.erase(fd);
        ::close(fd);
        return false;
    }
    return true;
}

void KTProcessWatcher::run() {
    epoll_event events[16];
    for (;;) {
        const int n = ::epoll_wait(epoll_, events, 16, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == wake_) return;
            childEnded(events[i].data.fd);
        }
    }
}

void KTProcessWatcher::childEnded(int pidfd) {
    Entry entry;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = children_.find(pidfd);
        if (it == children_.end()) return;
        entry = std::move(it->second);
        children_.erase(it);
    }
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, pidfd, nullptr);
    // The pidfd is still open, so the number cannot have been reused.
    int status = 0;
    while (::waitpid(entry.pid, &status, 0) < 0 && errno == EINTR) {
    }
    ::close(pidfd);
    if (entry.onExit) entry.onExit(entry.pid, status);
}
