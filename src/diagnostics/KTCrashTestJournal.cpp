#include "diagnostics/KTCrashTestJournal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"

namespace fs = std::filesystem;

KTCrashTestJournal::~KTCrashTestJournal() {
    if (lockFd_ >= 0) ::close(lockFd_);
}

std::string KTCrashTestJournal::folder() {
    return KTLocalPaths::appSupportDirectory(true) + "/Ambrel";
}

std::string KTCrashTestJournal::journalPath() {
    return folder() + "/Crash Test Journal.plist";
}

bool KTCrashTestJournal::lock() {
    if (lockFd_ >= 0) return true;
    std::error_code ec;
    fs::create_directories(folder(), ec);
    const std::string lockPath = folder() + "/Crash Test Journal.lock";
    const int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        KTLog::appendLog("Unable to open the crash test journal %@.", lockPath);
        return false;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    lockFd_ = fd;
    return true;
}

bool KTCrashTestJournal::begin() {
    if (!lock()) return false;
    entries_.clear();
    return true;
}

bool KTCrashTestJournal::write() {
    plist_t array = plist_new_array();
    for (const std::string& path : entries_)
        plist_array_append_item(array, plist_new_string(path.c_str()));
    KTPlistPtr owner(array);
    std::string error;
    if (KTPlist::writeFileAtomically(journalPath(), KTPlist::toXML(array), &error)) return true;
    KTLog::appendLog("Unable to write the crash test journal %@ - %@", journalPath(), error);
    return false;
}

bool KTCrashTestJournal::add(const std::string& enabledPath) {
    if (lockFd_ < 0) return false;
    entries_.push_back(enabledPath);
    return write();
}

void KTCrashTestJournal::clear() {
    entries_.clear();
    // Without the lock the journal is another test's (or none).
    if (lockFd_ < 0) return;
    std::error_code ec;
    fs::remove(journalPath(), ec);
    ::close(lockFd_);
    lockFd_ = -1;
}

std::optional<std::vector<std::string>> KTCrashTestJournal::takeLeftOver() {
    std::error_code ec;
    if (!fs::exists(journalPath(), ec)) return std::nullopt;
    if (!lock()) {
        KTLog::appendLog("A crash test is running in another process; its journal is left alone.");
        return std::nullopt;
    }
    std::vector<std::string> paths;
    if (KTPlistPtr array = KTPlist::readFile(journalPath());
        array && plist_get_node_type(array.get()) == PLIST_ARRAY) {
        for (uint32_t i = 0; i < plist_array_get_size(array.get()); ++i) {
            if (auto path = KTPlist::stringValue(plist_array_get_item(array.get(), i)))
                paths.push_back(*path);
        }
    } else {
        KTLog::appendLog("The crash test journal %@ is unreadable and is removed.", journalPath());
    }
    entries_ = paths;
    return paths;
}
