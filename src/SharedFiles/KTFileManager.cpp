#include "SharedFiles/KTFileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTTransferPlan.h"
#include "SharedFiles/KTTrash.h"
#include "SharedFiles/linux/KTFileLook.h"
#include "SharedFiles/linux/KTZipArchive.h"

bool KTFileManager::fileExistsAtPath(const std::string& path) {
    // In a dry run what the plan moved away is gone and what it placed is there.
    return KTTransferPlan::existsNow(path);
}

bool KTFileManager::unlockFile(const std::string& path) {
    if (KTTransferPlan::active()) return true;  // a dry run changes no flag
    const KTFileLook::Unlock result = KTFileLook::clearLocked(path);
    if (result.error == 0) return true;
    KTLog::fastAppendLog("Unable to unlock file %@: %@", path, std::strerror(result.error));
    return false;
}

bool KTFileManager::trashFile(const std::string& path, bool shouldAuth) {
    unlockFile(path);
    if (!fileExistsAtPath(path)) return true;
    std::string error;
    if (KTTrash::shared().trashItem(path, nullptr, &error)) return true;
    KTLog::fastAppendLog("Unable to move %@ to the Trash: %@", path, error);
    if (!shouldAuth) return false;
    KTAuthorization* auth = KTAuthorization::sharedController();
    if (!auth->isAuthorized() && !auth->canAuthorize()) {
        // Nobody to ask (the command line): the item stays, and says why.
        KTLog::appendLogAndPrint("Left %@ where it is - %@", path, error);
        KTTransferPlan::noteSkip(path, "needs administrator rights");
        return false;
    }
    if (KTTrash::shared().authTrashItem(path, nullptr, &error)) return true;
    KTLog::appendLog("Unable to move %@ to the Trash: %@", path, error);
    return false;
}

bool KTFileManager::trashFile(const std::string& path, std::chrono::duration<double> timeout) {
    if (!trashFile(path)) return false;
    const auto start = std::chrono::steady_clock::now();
    while (fileExistsAtPath(path) && std::chrono::steady_clock::now() - start < timeout) {
        KTMainThread& main = KTMainThread::shared();
        if (main.isMainThread())
            main.processPendingEvents(0.01);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    return !fileExistsAtPath(path);
}

bool KTFileManager::compressFile(const std::string& source, const std::string& destinationFile) {
    std::string error;
    if (KTZipArchive::compress(source, destinationFile, true, &error)) return true;
    KTLog::fastAppendLog("Unable to compress %@: %@", source, error);
    return false;
}
