#include "operations/KTOperationSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransferPlan.h"
#include "app/core/AppController.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTFileMover.h"

namespace KTOperationSupport {

bool hasInterface(const AppController* app) {
    return app && app->hasGUI() && app->userInterface();
}

FolderCreation createFolder(const std::string& folder, std::string_view failureFormat) {
    if (KTTransferPlan* plan = KTTransferPlan::active()) {
        if (exists(folder)) return FolderCreation::Existed;
        if (plan->makeFolder(folder)) return FolderCreation::Created;
        // Only rights would make it, and a dry run asks for none.
        KTLog::appendLog(failureFormat, folder, "Permission denied");
        KTTransferPlan::noteSkip(folder, "needs administrator rights to create the folder");
        return FolderCreation::Refused;
    }
    const int err = KTFileTree::makeFolders(folder);
    if (err == 0) return FolderCreation::Created;
    if (err == EEXIST) return FolderCreation::Existed;
    KTLog::appendLog(failureFormat, folder, std::generic_category().message(err));
    if (!KTAuthorization::sharedController()->authCreateDir(folder)) return FolderCreation::Refused;
    KTFileMover::pauseAfterPrivilegedStep();
    return FolderCreation::CreatedWithRights;
}

void onMain(const std::function<void()>& work) {
    KTMainThread::shared().runAndWait(work);
}

void onMainNoWait(std::function<void()> work) {
    KTMainThread::shared().post(std::move(work));
}

void postAndLog(const std::string& text) {
    KTTaskNotification::postTaskErrorString(text);
    KTLog::appendLog("%@", text);
}

int ask(const AppController* app, const KTAlert& question) {
    if (!hasInterface(app)) return -1;
    int answer = -1;
    onMain([&] { answer = app->userInterface()->runAlert(question); });
    return answer;
}

void alert(const AppController* app, const std::string& message, const std::string& informative) {
    if (!hasInterface(app)) return;
    onMain([&] { app->userInterface()->runAlert({message, informative, {}}); });
}

void tell(const AppController* app, const std::string& message, const std::string& informative) {
    if (hasInterface(app)) {
        alert(app, message, informative);
    } else {
        KTLog::appendLogAndPrint("%@ %@", message, informative);
    }
}

bool exists(const std::string& path) {
    return KTTransferPlan::existsNow(path);
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isWritable(const std::string& path) {
    // A folder a dry run only pretends to have made belongs to the user.
    if (KTTransferPlan* plan = KTTransferPlan::active(); plan && ::access(path.c_str(), F_OK) != 0)
        return plan->canWriteInto(path);
    return ::access(path.c_str(), W_OK) == 0;
}

bool isDeletable(const std::string& path) {
    const std::string parent = parentOf(path);
    if (KTTransferPlan* plan = KTTransferPlan::active();
        plan && ::access(parent.c_str(), F_OK) != 0)
        return plan->canWriteInto(parent);
    if (::access(parent.c_str(), W_OK | X_OK) != 0) return false;
    // In a sticky folder only the owner (or root) may take an entry away.
    struct stat folder {
    }, item{};
    if (::stat(parent.c_str(), &folder) == 0 && (folder.st_mode & S_ISVTX) &&
        ::lstat(path.c_str(), &item) == 0) {
        const uid_t me = ::geteuid();
        return me == 0 || item.st_uid == me || folder.st_uid == me;
    }
    return true;
}

std::string parentOf(const std::string& path) {
    return KTPluginLocations::deletingLastPathComponent(path);
}

std::string lastComponent(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (p == "/") return "";
    const auto slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::vector<std::string> pathComponents(const std::string& path) {
    std::vector<std::string> out;
    if (!path.empty() && path[0] == '/') out.push_back("/");
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) out.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace KTOperationSupport
