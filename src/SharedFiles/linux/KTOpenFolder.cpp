#include "SharedFiles/linux/KTOpenFolder.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace {

std::atomic<int> gOpen{0};

/// A quarter of the soft descriptor limit, at most 4096: the rest of the
/// program (the log, transfers, the window) must never run short because a
/// load holds folders.
int bound() {
    static const int limit = [] {
        struct rlimit rl {};
        if (::getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY) return 256;
        return static_cast<int>(std::min<rlim_t>(rl.rlim_cur / 4, 4096));
    }();
    return limit;
}

}  // namespace

std::shared_ptr<const KTOpenFolder> KTOpenFolder::keep(int fd) {
    if (fd < 0) return nullptr;
    if (gOpen.fetch_add(1) >= bound()) {
        --gOpen;
        return nullptr;
    }
    const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (own < 0) {
        --gOpen;
        return nullptr;
    }
    return std::shared_ptr<const KTOpenFolder>(new KTOpenFolder(own));
}

KTOpenFolder::~KTOpenFolder() {
    ::close(fd_);
    --gOpen;
}

int KTOpenFolder::openCount() {
    return gOpen.load();
}
