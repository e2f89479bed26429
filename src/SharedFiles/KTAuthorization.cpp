#include "SharedFiles/KTAuthorization.h"

#include <unistd.h>

// First cut: the API exists so that callers can be written against it; the
// privileged paths follow.

KTAuthorization* KTAuthorization::sharedController(bool withGUI) {
    static std::mutex classLock;
    static KTAuthorization* shared = nullptr;
    std::lock_guard<std::mutex> guard(classLock);
    if (!shared) shared = new KTAuthorization(withGUI);
    return shared;
}

KTAuthorization::KTAuthorization(bool withGUI) : hasGUI_(withGUI) {}
KTAuthorization::~KTAuthorization() { authEnd(); }

bool KTAuthorization::hasGUI() const { return hasGUI_; }
void KTAuthorization::setHasGUI(bool hasGUI) { hasGUI_ = hasGUI; }
std::shared_ptr<KTPrivilegedHelper> KTAuthorization::authRef() const { return authRef_; }
void KTAuthorization::setAuthRef(std::shared_ptr<KTPrivilegedHelper> ref) { authRef_ = std::move(ref); }
bool KTAuthorization::isAuthorized() const { return runningAsRoot() || authRef_ != nullptr; }
bool KTAuthorization::canAuthorize() const { return hasGUI_ || runningAsRoot(); }
bool KTAuthorization::authStart() { return isAuthorized(); }
bool KTAuthorization::authStartWithUser(const std::string&, const std::string&) { return runningAsRoot(); }
void KTAuthorization::authEnd() { authRef_.reset(); }
bool KTAuthorization::authRemoveFile(const std::string&) { return false; }
bool KTAuthorization::authTrashFile(const std::string&, bool) { return false; }
bool KTAuthorization::authTrashFolderContents(const std::string&, bool) { return false; }
bool KTAuthorization::authMoveFolderContents(const std::string&, const std::string&) { return false; }
bool KTAuthorization::authMoveFile(const std::string&, const std::string&) { return false; }
bool KTAuthorization::authCopyFile(const std::string&, const std::string&) { return false; }
bool KTAuthorization::authCreateDir(const std::string&) { return false; }
std::int32_t KTAuthorization::authExecTask(const std::string&, const std::vector<std::string>&, bool) { return -1; }
bool KTAuthorization::runningAsRoot() { return geteuid() == 0; }
bool KTAuthorization::startHelper(const std::vector<std::string>&, const std::string*) { return false; }
