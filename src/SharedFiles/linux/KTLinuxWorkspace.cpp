#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/linux/KTProcessWatcher.h"
#include "SharedFiles/linux/KTServiceModule.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

bool hasAppExtension(const fs::path& p) {
    return p.extension() == ".app";
}

/// Folder entries sorted by name, so that "first found" does not depend on
/// the order the file system happens to list them in.
std::vector<fs::path> sortedFolders(const fs::path& folder) {
    std::vector<fs::path> out;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        std::error_code typeError;
        if (it->is_directory(typeError)) out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

void addBundle(const fs::path& bundle, std::map<std::string, std::string>& apps) {
    KTPlistPtr info = KTPlist::readFile((bundle / "Contents" / "Info.plist").string());
    if (!info) return;
    auto identifier = KTPlist::stringForKey(info.get(), "CFBundleIdentifier");
    if (identifier && !identifier->empty()) apps.emplace(*identifier, bundle.string());
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// A process's command line, word by word.
std::vector<std::string> commandLine(const std::string& procDir) {
    // Plain reads: a process can end between the open and the read, which
    // then fails with ESRCH, and a stream would throw for that. What was
    // read by then (often nothing) is the answer.
    std::string bytes;
    const int fd = ::open((procDir + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        ::close(fd);
    }
    std::vector<std::string> words;
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\0', start);
        if (end == std::string::npos) end = bytes.size();
        words.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return words;
}

std::string readLink(const std::string& path) {
    std::error_code ec;
    fs::path target = fs::read_symlink(path, ec);
    return ec ? std::string() : target.string();
}

/// Owns the spawn attributes and file actions for one launch.
struct SpawnSetup {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    SpawnSetup() {
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
};

}  // namespace

KTLinuxWorkspace::KTLinuxWorkspace() = default;
KTLinuxWorkspace::~KTLinuxWorkspace() = default;

std::vector<std::string> KTLinuxWorkspace::applicationFolders() {
    return {KTLocalPaths::applicationDirectory(false), KTLocalPaths::applicationDirectory(true)};
}

std::map<std::string, std::string> KTLinuxWorkspace::scanApplications() {
    std::map<std::string, std::string> apps;
    for (const std::string& folder : applicationFolders()) {
        for (const fs::path& entry : sortedFolders(folder)) {
            if (hasAppExtension(entry)) {
                addBundle(entry, apps);
                continue;
            }
            for (const fs::path& inner : sortedFolders(entry)) {
                if (hasAppExtension(inner)) addBundle(inner, apps);
            }
        }
    }
    return apps;
}

std::optional<std::string> KTLinuxWorkspace::absolutePathForAppBundleWithIdentifier(
    const std::string& bundleIdentifier) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!loaded_) {
        applications_ = scanApplications();
        loaded_ = true;
    }
    auto it = applications_.find(bundleIdentifier);
    if (it == applications_.end()) return std::nullopt;
    return it->second;
}

void KTLinuxWorkspace::refreshApplications() {
    std::lock_guard<std::mutex> lock(mutex_);
    loaded_ = false;
    applications_.clear();
}

std::optional<std::pair<std::string, std::string>> KTLinuxWorkspace::findApplicationIgnoringCase(
    const std::string& bundleIdentifier) {
    const std::string wanted = lowercase(bundleIdentifier);
    for (const auto& [identifier, path] : scanApplications()) {
        if (lowercase(identifier) == wanted) return std::make_pair(path, identifier);
    }
    return std::nullopt;
}

std::string KTLinuxWorkspace::executablePath(const std::string& bundle) {
    KTPlistPtr info = KTPlist::readFile(bundle + "/Contents/Info.plist");
    if (!info) return {};
    auto executable = KTPlist::stringForKey(info.get(), "CFBundleExecutable");
    if (!executable || executable->empty() || executable->find('/') != std::string::npos) return {};
    return bundle + "/Contents/MacOS/" + *executable;
}

bool KTLinuxWorkspace::launchApplication(const std::string& bundleIdentifier) {
    auto app = findApplicationIgnoringCase(bundleIdentifier);
    if (!app) {
        KTLog::appendLog("No application with the identifier %@ was found.", bundleIdentifier);
        return false;
    }
    const std::string executable = executablePath(app->first);
    if (executable.empty()) {
        KTLog::appendLog("%@ names no executable in its Info.plist.", app->first);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(watcherMutex_);
        if (!watcher_) watcher_ = std::make_unique<KTProcessWatcher>();
    }

    SpawnSetup setup;
    // The host must not hold the tester's pipes or terminal: streams on
    // /dev/null, a session of its own (no Ctrl-C from the tester's terminal),
    // and the signals this program handles back at their defaults.
    // Nothing else this program holds open (pipes above all) goes with it.
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    for (int fd : {0, 1, 2}) {
        posix_spawn_file_actions_addopen(&setup.actions, fd, "/dev/null",
                                         fd == 0 ? O_RDONLY : O_WRONLY, 0);
    }
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGCHLD}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&setup.attr, &none);
    posix_spawnattr_setsigdefault(&setup.attr, &defaults);
    posix_spawnattr_setflags(&setup.attr,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::string arg0 = executable;
    char* argv[] = {arg0.data(), nullptr};
    pid_t pid = 0;
    const int err =
        posix_spawn(&pid, executable.c_str(), &setup.actions, &setup.attr, argv, environ);
    if (err != 0) {
        KTLog::appendLog("Unable to launch %@ - %s", executable, std::strerror(err));
        return false;
    }
    const std::string identifier = app->second;
    // Posted before the watch starts, so that "did terminate" always follows it.
    postNotice({KTWorkspaceNotice::Kind::didLaunch, identifier, pid});
    std::lock_guard<std::mutex> lock(watcherMutex_);
    const bool watched = watcher_->watch(pid, [this, identifier](pid_t ended, int) {
        postNotice({KTWorkspaceNotice::Kind::didTerminate, identifier, ended});
    });
    if (!watched) KTLog::appendLog("Unable to watch process %i of %@.", pid, identifier);
    return true;
}

std::map<pid_t, std::string> KTLinuxWorkspace::runningApplications() {
    // Executables of the known bundles, as written and as resolved.
    std::map<std::string, std::string> byExecutable;
    for (const auto& [identifier, bundle] : scanApplications()) {
        const std::string executable = executablePath(bundle);
        if (executable.empty()) continue;
        byExecutable.emplace(executable, identifier);
        std::error_code ec;
        fs::path resolved = fs::canonical(executable, ec);
        if (!ec) byExecutable.emplace(resolved.string(), identifier);
    }
    std::map<pid_t, std::string> running;
    if (byExecutable.empty()) return running;
    DIR* proc = ::opendir("/proc");
    if (!proc) return running;
    while (dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        const std::string dir = std::string("/proc/") + entry->d_name;
        std::vector<std::string> candidates{readLink(dir + "/exe")};
        // A script runs as its interpreter: "/bin/sh /path/to/script".
        const std::vector<std::string> words = commandLine(dir);
        for (std::size_t i = 0; i < words.size() && i < 2; ++i) candidates.push_back(words[i]);
        for (const std::string& candidate : candidates) {
            auto it = byExecutable.find(candidate);
            if (candidate.empty() || it == byExecutable.end()) continue;
            running.emplace(static_cast<pid_t>(pid), it->second);
            break;
        }
    }
    ::closedir(proc);
    return running;
}

std::vector<std::string> KTLinuxWorkspace::runningApplicationIdentifiers() {
    std::vector<std::string> identifiers;
    for (const auto& [pid, identifier] : runningApplications()) identifiers.push_back(identifier);
    return identifiers;
}

KTTerminateResult KTLinuxWorkspace::terminateApplication(const std::string& bundleIdentifier) {
    const std::string wanted = lowercase(bundleIdentifier);
    for (const auto& [pid, identifier] : runningApplications()) {
        if (lowercase(identifier) != wanted) continue;
        if (::kill(pid, SIGTERM) == 0) return KTTerminateResult::requested;
        return errno == EPERM ? KTTerminateResult::refused : KTTerminateResult::notRunning;
    }
    return KTTerminateResult::notRunning;
}

bool KTLinuxWorkspace::showItemsOnSessionBus(const std::string& path) {
    // No address means no session: connecting would only try to start one.
    if (!std::getenv("DBUS_SESSION_BUS_ADDRESS")) return false;
    const KTServiceTable* services = KTServiceModule::services();
    if (!services) return false;
    std::string error;
    switch (services->showItems(path, &error)) {
        case 0:
            return true;
        case 1:
            KTLog::appendLog("Unable to reach the session bus. %@", error);
            return false;
        case 2:
            KTLog::appendLog("No file manager answered on the session bus. %@", error);
            return false;
        default:  // a path with no file address: the fall-back says it
            return false;
    }
}

bool KTLinuxWorkspace::openContainingFolder(const std::string& path) {
    const std::string folder = fs::path(path).parent_path().string();
    const char* searchPath = std::getenv("PATH");
    std::string list = searchPath ? searchPath : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        const std::string dir = list.substr(start, end - start);
        start = end + 1;
        if (dir.empty()) continue;
        const std::string opener = dir + "/xdg-open";
        if (::access(opener.c_str(), X_OK) != 0) continue;
        KTTaskEx::runTaskAndReturn(opener, {folder});
        return true;
    }
    KTLog::appendLog("Unable to show %@ - no file manager and no xdg-open.", path);
    return false;
}

bool KTLinuxWorkspace::selectFile(const std::string& path) {
    if (path.empty()) return false;
    return showItemsOnSessionBus(path) || openContainingFolder(path);
}

bool KTLinuxWorkspace::openFile(const std::string& path) {
    const std::string opener = "/usr/bin/xdg-open";
    if (!KTTaskEx::isExecutable(opener)) return false;
    KTTaskEx::runTaskAndReturn(opener, {path});
    return true;
}
