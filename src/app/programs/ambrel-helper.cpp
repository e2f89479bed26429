// The privileged helper: started as root through pkexec or sudo by the
// program's KTAuthorization, it takes the file steps of the privileged
// operations for the user who started it, within that user's plug-in
// places, and nothing else. Requests arrive on standard input, answers
// leave on standard output (see KTHelperChannel); refusals go to standard
// error. It ends when its parent closes the connection.

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/linux/KTHelperChannel.h"
#include "SharedFiles/linux/KTHelperOperations.h"
#include "SharedFiles/linux/KTHelperPlaces.h"
#include "SharedFiles/linux/KTHelperPolicy.h"
#include "SharedFiles/linux/KTModuleLoader.h"

namespace {

constexpr int kMaxDroppedLines = 16;
// pkexec becomes the helper; sudo stays between (and may add a monitor).
constexpr int kMaxAncestors = 4;

void say(const std::string& what) {
    std::fprintf(stderr, "ambrel-helper: %s\n", what.c_str());
    std::fflush(stderr);
}

std::optional<uid_t> uidFrom(const char* text) {
    if (!text || !*text) return std::nullopt;
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 10);
    if (*end != '\0' || v > 0xfffffffeUL) return std::nullopt;
    return static_cast<uid_t>(v);
}

pid_t parentOf(pid_t pid) {
    std::string text;
    try {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        text.assign(std::istreambuf_iterator<char>(stat), std::istreambuf_iterator<char>());
    } catch (const std::exception&) {
        // The process ended between the open and the read (ESRCH): it has
        // no parent to give, and an ancestor that is gone vouches for nobody.
        return 0;
    }
    // "pid (name) state ppid": the name may hold anything, so count from its end.
    size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(text.substr(close + 1));
    std::string state;
    pid_t ppid = 0;
    rest >> state >> ppid;
    return ppid;
}

/// Who is asking: the process at the other end of the socket the helper
/// was started with, which must be the program that started it (one of the
/// helper's own ancestors) and run as the user the elevation tool names.
std::optional<struct ucred> requester(std::string* why) {
    struct stat in, out;
    if (fstat(STDIN_FILENO, &in) != 0 || fstat(STDOUT_FILENO, &out) != 0 || !S_ISSOCK(in.st_mode) ||
        in.st_ino != out.st_ino || in.st_dev != out.st_dev) {
        *why = "standard input and output are not the program's socket";
        return std::nullopt;
    }
    struct ucred peer {};
    socklen_t len = sizeof peer;
    if (getsockopt(STDIN_FILENO, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || peer.pid <= 0) {
        *why = "the socket names no peer";
        return std::nullopt;
    }
    std::optional<uid_t> pkexec = uidFrom(std::getenv("PKEXEC_UID"));
    std::optional<uid_t> sudo = uidFrom(std::getenv("SUDO_UID"));
    const uid_t claimed = pkexec ? *pkexec : sudo ? *sudo : getuid();
    if ((pkexec && *pkexec != peer.uid) || (sudo && *sudo != peer.uid) || claimed != peer.uid) {
        *why = "the peer runs as user " + std::to_string(peer.uid) + ", not as " +
               std::to_string(claimed) + " who started the helper";
        return std::nullopt;
    }
    pid_t p = getppid();
    for (int i = 0; i < kMaxAncestors && p > 1; ++i, p = parentOf(p)) {
        if (p == peer.pid) return peer;
    }
    *why = "the peer (process " + std::to_string(peer.pid) + ") did not start the helper";
    return std::nullopt;
}

/// The system root to serve, or nothing: its name must be plain, and every
/// folder down to it a real folder owned by root or by the requesting user
/// (a root inside someone else's folders would hand out their files).
std::optional<std::string> servedRoot(const std::string& asked, uid_t uid) {
    if (auto why = KTHelperPlaces::rootRefusal(asked)) {
        say("refused: " + *why);
        return std::nullopt;
    }
    for (size_t end = 0; end != std::string::npos;) {
        end = asked.find('/', end + 1);
        const std::string folder = end == std::string::npos ? asked : asked.substr(0, end);
        int fd = KTHelperOperations::openFolder(folder);
        struct stat st;
        bool good = fd >= 0 && fstat(fd, &st) == 0 && (st.st_uid == 0 || st.st_uid == uid);
        if (fd >= 0) close(fd);
        if (!good) {
            say("refused: system root " + asked + " passes through " + folder +
                ", which is a link or belongs to someone else");
            return std::nullopt;
        }
        if (asked == "/") break;
    }
    return asked;
}

std::string readAll(const char* path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

int main() {
    // Root runs no module of ours, whatever a later change asks of the core.
    KTModuleLoader::forbid();
    signal(SIGPIPE, SIG_IGN);
    if (geteuid() != 0) {
        say("must run as root");
        return 1;
    }
    // Learned before the environment goes: the elevation tool's word on
    // who asked is read once, checked against the socket, then dropped.
    std::string why;
    std::optional<struct ucred> peer = requester(&why);
    // Nothing of the caller's environment reaches further: no tool
    // stand-ins, no system root, no loader variables.
    clearenv();
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    umask(022);
    if (!peer) {
        say("refused: " + why);
        return 1;
    }

    const passwd* pw = getpwuid(peer->uid);
    const std::string home = pw && pw->pw_dir ? pw->pw_dir : "";
    const gid_t gid = pw ? pw->pw_gid : peer->gid;
    // A copy reads as the user, with the user's groups, never root's.
    if (pw) {
        int count = 64;
        std::vector<gid_t> groups(static_cast<size_t>(count));
        if (getgrouplist(pw->pw_name, gid, groups.data(), &count) < 0) {
            groups.resize(static_cast<size_t>(count));
            getgrouplist(pw->pw_name, gid, groups.data(), &count);
        }
        groups.resize(static_cast<size_t>(count > 0 ? count : 0));
        if (setgroups(groups.size(), groups.data()) != 0) {
            say("unable to take the user's groups");
            return 1;
        }
    } else if (setgroups(1, &gid) != 0) {
        say("unable to drop root's groups");
        return 1;
    }

    KTHelperChannel channel(STDIN_FILENO, STDOUT_FILENO);
    if (!channel.writeAll("ready\n")) return 1;
    // Lines before the marker are what the elevation tool left unread
    // (password lines fed to "sudo -S"): dropped unseen.
    for (int dropped = 0;; ++dropped) {
        auto line = channel.readLine();
        if (!line || dropped > kMaxDroppedLines) return 1;
        if (*line == "begin") break;
    }
    auto root = channel.readRoot();
    if (!root) return 1;

    KTHelperOperations operations(
        peer->uid, gid,
        KTHelperPlaces(servedRoot(*root, peer->uid), peer->uid, home,
                       KTHelperPlaces::mountPointsFrom(readAll("/proc/self/mountinfo"))));
    for (;;) {
        auto request = channel.readRequest();
        if (!request) break;
        auto parsed = KTHelperPolicy::parse(request->fields);
        std::int32_t status;
        if (auto* refusal = std::get_if<std::string>(&parsed)) {
            say("refused: " + *refusal);
            status = KTAuthorization::kStatusRefused;
        } else {
            KTHelperOperations::Result r = operations.perform(std::get<KTHelperStep>(parsed));
            if (r.status == KTAuthorization::kStatusRefused) say("refused: " + r.message);
            if (r.status == KTAuthorization::kStatusFailed) say("failed: " + r.message);
            status = r.status;
        }
        if (!channel.sendStatus(status)) break;
    }
    return 0;
}
