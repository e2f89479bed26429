#include "SharedFiles/linux/KTStandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

bool KTStandardStreams::openMissing() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        // open() takes the lowest free number, which is this one.
        const int opened = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
        if (opened < 0) return false;
        if (opened != fd) {
            const bool moved = ::dup2(opened, fd) == fd;
            ::close(opened);
            if (!moved) return false;
        }
    }
    return true;
}
