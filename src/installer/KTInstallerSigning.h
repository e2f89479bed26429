#pragma once

#include <memory>
#include <optional>
#include <string>

#include "installer/KTInstallerSettings.h"

class KTInstallerBuilder;

/// The two steps of an installer build that need Apple's tools: signing the
/// bundle with a Developer ID identity, and notarising and stapling it. The
/// build calls them through this seam; `shared()` is what it uses (Apple's
/// tools, `KTAppleToolSigning`, unless a test replaced it with `setShared`).
class KTInstallerSigning {
  public:
    virtual ~KTInstallerSigning() = default;

    /// Strips the bundle's extended attributes and signs it with `identity`.
    /// Nothing on success; otherwise the text of the "Unable to create
    /// installer" sheet, and the build ends.
    virtual std::optional<std::string> signInstaller(const std::string& bundlePath,
                                                     const std::string& identity) = 0;

    /// Notarises and staples the finished bundle with the stored account,
    /// showing its own status and final sheet through `builder`. True when
    /// the installer came out notarised.
    virtual bool notarizeInstaller(KTInstallerBuilder& builder, const KTInstallerRequest& request,
                                   const std::string& bundlePath, const std::string& appleID,
                                   const std::string& password) = 0;

    static KTInstallerSigning& shared();
    /// Replaces the shared instance; null puts the default back.
    static void setShared(std::shared_ptr<KTInstallerSigning> signing);
};
