// libFuzzer entry: the privileged helper reads its requests from a client
// it does not trust. Whatever bytes arrive, the reader must not fail, and
// every request it lets through must name only normalised paths outside the
// machine's system folders.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/linux/KTHelperChannel.h"
#include "SharedFiles/linux/KTHelperPlaces.h"
#include "SharedFiles/linux/KTHelperPolicy.h"

namespace {

bool plain(const std::string& p) {
    if (p.empty() || p[0] != '/') return false;
    if (p.size() > 1 && p.back() == '/') return false;
    if (p.find("//") != std::string::npos || p.find("/./") != std::string::npos) return false;
    if (p.find("/../") != std::string::npos) return false;
    const auto tail = p.substr(p.rfind('/'));
    return tail != "/." && tail != "/..";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 16384) return 0;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    // The whole input first, then end of data: the reader sees what a
    // client could send in one go.
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = write(fds[1], data + done, size - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    shutdown(fds[1], SHUT_WR);

    static const KTHelperPlaces places("/srv/scratch", 1000, "/home/user", {"/", "/media/disk"});
    KTHelperChannel channel(fds[0], fds[1]);
    if (auto root = channel.readRoot()) {
        (void)KTHelperPlaces::rootRefusal(*root);
        (void)KTHelperPlaces::mountPointsFrom(*root);
    }
    while (auto request = channel.readRequest()) {
        auto parsed = KTHelperPolicy::parse(request->fields);
        if (auto* step = std::get_if<KTHelperStep>(&parsed)) {
            for (std::size_t i = 0; i < step->paths.size(); ++i) {
                const std::string& p = step->paths[i];
                if (!plain(p)) __builtin_trap();
                const bool copySource = step->kind == KTHelperStep::Kind::Copy && i == 0;
                if (!copySource && KTLocalPaths::isRealSystemFolder(p)) __builtin_trap();
                (void)places.placeOf(p);
                (void)places.mayMakeFolder(p);
            }
        }
    }
    close(fds[0]);
    close(fds[1]);
    return 0;
}
