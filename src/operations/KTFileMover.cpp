#include "operations/KTFileMover.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTimeScale.h"
#include "catalogue/KTPluginLocations.h"

namespace fs = std::filesystem;

namespace {

std::mutex gSharedLock;
std::shared_ptr<KTFileMover> gShared;
std::atomic<double> gPause{1.0};

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

std::string hiddenSibling(const std::string& path, const char* tag) {
    return KTPluginLocations::appendPathComponent(
        KTPluginLocations::deletingLastPathComponent(path),
        std::string(".") + tag + "-" + KTLocalPaths::randomString(8) + "-" +
            fs::path(path).filename().string());
}

}  // namespace

KTFileMover& KTFileMover::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTFileMover>();
    return *gShared;
}

void KTFileMover::setShared(std::shared_ptr<KTFileMover> mover) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(mover);
}

double KTFileMover::privilegedPauseSeconds() {
    return gPause;
}
void KTFileMover::setPrivilegedPauseSecondsForTesting(double seconds) {
    gPause = seconds;
}
void KTFileMover::pauseAfterPrivilegedStep() {
    std::this_thread::sleep_for(KTTimeScale::scaled(std::chrono::duration<double>(gPause.load())));
}

bool KTFileMover::moveItem(const std::string& from, const std::string& to, std::string* error) {
    if (!KTFileTree::existsNoFollow(from)) {
        setError(error, KTFormat::str("%@ does not exist", from));
        return false;
    }
    if (KTFileTree::existsNoFollow(to)) {
        setError(error, KTFormat::str("%@ already exists", to));
        return false;
    }
    int err = KTFileTree::renameNoReplace(from, to);
    if (err == 0) return true;
    if (err == EXDEV) return moveAcrossFileSystems(from, to, error);
    setError(error, err == EEXIST ? KTFormat::str("%@ already exists", to) : std::strerror(err));
    return false;
}

bool KTFileMover::moveAcrossFileSystems(const std::string& from, const std::string& to,
                                        std::string* error) {
    // Built under a hidden name so that no half copy is ever seen at `to`.
    const std::string staging = hiddenSibling(to, "ambrel-copy");
    std::string why;
    auto abandon = [&](const std::string& text) {
        std::string ignored;
        removeTree(staging, &ignored);
        setError(error, text);
        return false;
    };
    if (!copyTree(from, staging, &why))
        return abandon(KTFormat::str("Unable to copy %@ - %@", from, why));
    if (!KTFileTree::sameTree(from, staging))
        return abandon(KTFormat::str("The copy of %@ is incomplete", from));
    if (int err = KTFileTree::renameNoReplace(staging, to))
        return abandon(err == EEXIST ? KTFormat::str("%@ already exists", to)
                                     : std::string(std::strerror(err)));

    // The source goes aside in one step first: if that is refused the copy
    // is withdrawn and the source was never touched.
    const std::string aside = hiddenSibling(from, "ambrel-moved");
    if (::rename(from.c_str(), aside.c_str()) != 0) {
        const int err = errno;
        std::string ignored;
        removeTree(to, &ignored);
        setError(error, KTFormat::str("Unable to remove %@ - %@", from, std::strerror(err)));
        return false;
    }
    if (!removeTree(aside, &why)) {
        // The plug-in is whole at its new place; only the leftover is reported.
        KTLog::appendLog("Unable to remove %@ - %@", aside, why);
    }
    return true;
}

bool KTFileMover::copyTree(const std::string& from, const std::string& to, std::string* error) {
    return KTFileTree::copyTree(from, to, error);
}

bool KTFileMover::removeTree(const std::string& path, std::string* error) {
    return KTFileTree::removeTree(path, error);
}
