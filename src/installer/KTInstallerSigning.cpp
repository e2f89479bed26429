#include "installer/KTInstallerSigning.h"

#include <mutex>

#include "installer/KTAppleToolSigning.h"

namespace {
std::mutex gSharedLock;
std::shared_ptr<KTInstallerSigning> gShared;
}  // namespace

KTInstallerSigning& KTInstallerSigning::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTAppleToolSigning>();
    return *gShared;
}

void KTInstallerSigning::setShared(std::shared_ptr<KTInstallerSigning> signing) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(signing);
}
