#include "installer/KTInstallerSigning.h"

#include <mutex>

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "installer/KTInstallerBuilder.h"

namespace {
std::mutex gSharedLock;
std::shared_ptr<KTInstallerSigning> gShared;
}  // namespace

KTInstallerSigning& KTInstallerSigning::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTUnavailableSigning>();
    return *gShared;
}

void KTInstallerSigning::setShared(std::shared_ptr<KTInstallerSigning> signing) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(signing);
}

std::optional<std::string> KTUnavailableSigning::signInstaller(const std::string& bundlePath,
                                                               const std::string& identity) {
    KTLog::appendLogAndPrint("Error signing installer: %@",
                             "code signing is not available in this version of Ambrel");
    return KTFormat::str(
        "Code signing is not available in this version of Ambrel, so the installer at %@ could "
        "not be signed with %@. Choose \"(not set)\" to create it unsigned.",
        bundlePath, identity);
}

bool KTUnavailableSigning::notarizeInstaller(KTInstallerBuilder& builder,
                                             const KTInstallerRequest& request,
                                             const std::string& bundlePath,
                                             const std::string& appleID,
                                             const std::string& password) {
    KTLog::appendLog("Installer successfully created (without notarization) at %@", bundlePath);
    builder.delegate().showSheet(
        "Installer created",
        KTFormat::str("An installer was successfully created at %@. Notarization is not "
                      "available in this version of Ambrel, so it was not notarized although "
                      "an Apple ID is stored.",
                      bundlePath));
    return true;
}
