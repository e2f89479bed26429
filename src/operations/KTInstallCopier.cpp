#include "operations/KTInstallCopier.h"


#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLocalPaths.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTFileMover.h"

namespace fs = std::filesystem;

namespace {

std::mutex gSharedLock;
std::shared_ptr<KTInstallCopier> gShared;

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

void removeQuietly(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
}

}  // namespace

KTInstallCopier& KTInstallCopier::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTInstallCopier>();
    return *gShared;
}

void KTInstallCopier::setShared(std::shared_ptr<KTInstallCopier> copier) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(copier);
}

std::string KTInstallCopier::stagingPathFor(const std::string& destination) {
    return KTPluginLocations::appendPathComponent(
        KTPluginLocations::deletingLastPathComponent(destination),
        ".ambrel-install-" + KTLocalPaths::randomString(8) + "-" +
            fs::path(destination).filename().string());
}

bool KTInstallCopier::sameTree(const std::string& original, const std::string& copy) {
    return KTFileTree::sameTree(original, copy);
}

bool KTInstallCopier::copyItem(const std::string& source, const std::string& destination,
                               std::string* error) {
    if (!KTFileTree::existsNoFollow(source)) {
        setError(error, KTFormat::str("%@ does not exist", source));
        return false;
    }
    if (KTFileTree::existsNoFollow(destination)) {
        setError(error, KTFormat::str("%@ already exists", destination));
        return false;
    }
    const std::string staging = stagingPathFor(destination);
    auto abandon = [&](const std::string& text) {
        removeQuietly(staging);
        setError(error, text);
        return false;
    };
    std::string why;
    if (!copyTree(source, staging, &why)) return abandon(why);
    if (!sameTree(source, staging))
        return abandon(KTFormat::str("The copy of %@ is incomplete", source));
    if (int err = KTFileTree::renameNoReplace(staging, destination)) return abandon(std::strerror(err));
    return true;
}

bool KTInstallCopier::authCopyItem(const std::string& source, const std::string& destination,
                                   std::string* error) {
    if (KTFileTree::existsNoFollow(destination)) {
        setError(error, KTFormat::str("%@ already exists", destination));
        return false;
    }
    KTAuthorization* auth = KTAuthorization::sharedController();
    const std::string staging = stagingPathFor(destination);
    // Waited for, so that the check below sees the tool's whole work.
    if (auth->authExecTask("/bin/cp", {"-f", "-p", "-R", "-T", source, staging}, false) != 0) {
        setError(error, "User cancelled authorization.");
        return false;
    }
    KTFileMover::pauseAfterPrivilegedStep();
    if (!sameTree(source, staging)) {
        if (KTFileTree::existsNoFollow(staging)) auth->authExecTask("/bin/rm", {"-Rdf", staging}, false);
        setError(error, KTFormat::str("The copy of %@ is incomplete", source));
        return false;
    }
    // "mv" into an existing folder would move the copy inside it: look again.
    if (KTFileTree::existsNoFollow(destination) ||
        auth->authExecTask("/bin/mv", {"-f", "-T", staging, destination}, false) != 0) {
        auth->authExecTask("/bin/rm", {"-Rdf", staging}, false);
        setError(error, KTFormat::str("Unable to move the copy into place at %@", destination));
        return false;
    }
    KTFileMover::pauseAfterPrivilegedStep();
    return KTFileTree::existsNoFollow(destination);
}

bool KTInstallCopier::copyTree(const std::string& from, const std::string& to, std::string* error) {
    return KTFileTree::copyTree(from, to, error);
}
