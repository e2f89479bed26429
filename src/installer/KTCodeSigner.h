#pragma once

#include <optional>
#include <string>

/// Signing with Apple's codesign: installer bundles (after their extended
/// attributes are stripped) and disk images. codesign is silent on success
/// and says "...: replacing existing signature" when it re-signs; any other
/// text on its error stream is a failure.
class KTCodeSigner {
  public:
    /// Strips the bundle's extended attributes and signs it deeply with the
    /// hardened runtime. Nothing on success; otherwise the text of the
    /// "Unable to create installer" sheet.
    static std::optional<std::string> signInstaller(const std::string& bundlePath,
                                                    const std::string& identity);
    /// Signs a disk image. Nothing on success; otherwise codesign's text.
    static std::optional<std::string> signDiskImage(const std::string& path,
                                                    const std::string& identity);
    /// "Code signing failed: %@.\n\nMake sure you have Xcode ..." with `output`.
    static std::string failureText(const std::string& output);
    /// True for codesign's answer of a successful signing.
    static bool signingSucceeded(const std::string& output);
};
