#include "installer/KTAppleToolSigning.h"

#include "installer/KTCodeSigner.h"
#include "installer/KTInstallerBuilder.h"
#include "installer/KTNotarizer.h"

std::optional<std::string> KTAppleToolSigning::signInstaller(const std::string& bundlePath,
                                                             const std::string& identity) {
    return KTCodeSigner::signInstaller(bundlePath, identity);
}

bool KTAppleToolSigning::notarizeInstaller(KTInstallerBuilder& builder,
                                           const KTInstallerRequest& request,
                                           const std::string& bundlePath, const std::string&,
                                           const std::string&) {
    // The account is read afresh at each step, as every step needs it.
    KTNotarizer notarizer(builder.delegate(), [&builder] { return builder.installerCancelled(); });
    return notarizer.notarizeInstallerBundle(
        bundlePath, KTInstallerSettings::bundleIDForApp(
                        request.installerName, request.installerAuthor, request.installerVersion));
}
