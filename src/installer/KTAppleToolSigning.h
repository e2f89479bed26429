#pragma once

#include "installer/KTInstallerSigning.h"

/// The installer build's signing and notarisation through Apple's tools:
/// codesign, then the notary service through xcrun. Where the tools do not
/// exist each step fails with its own message.
class KTAppleToolSigning : public KTInstallerSigning {
  public:
    std::optional<std::string> signInstaller(const std::string& bundlePath,
                                             const std::string& identity) override;
    bool notarizeInstaller(KTInstallerBuilder& builder, const KTInstallerRequest& request,
                           const std::string& bundlePath, const std::string& appleID,
                           const std::string& password) override;
};
