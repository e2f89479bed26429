#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTPlist.h"
#include "installer/KTInstallerBuilder.h"
#include "installer/KTNotarizationStatus.h"

/// Has Apple's notary service notarise an installer bundle or a disk image
/// and staples the ticket: submit (a bundle compressed first), wait 10
/// seconds, then ask every 25 seconds until the service decides, staple.
/// Two tools do the talking: altool, the historical one, and notarytool,
/// the only one the service still accepts uploads from; the preference
/// "notaryTool" chooses, and notarytool is the default once a Team ID is set.
///
/// Runs on a worker thread; what it shows goes through the builder's
/// delegate (the window hands it to its main thread). Cancel takes effect
/// between steps: a running tool is never cut short.
class KTNotarizer {
  public:
    using Delegate = KTInstallerBuilder::Delegate;
    enum class Tool { Altool, Notarytool };

    /// The account, as stored: Apple ID and app-specific password in the
    /// keychain, the Team ID and the tool in the preferences.
    struct Credentials {
        std::string appleID;
        std::string password;
        std::string teamID;
        Tool tool = Tool::Altool;
    };
    /// How waiting ended.
    struct Outcome {
        bool success = false;
        bool cancelled = false;
        std::string error;
        std::optional<std::string> logURL;
    };
    /// A disk image to sign (when `certificate` is set) and notarise.
    struct DiskImageRequest {
        std::string path;
        std::string bundleID;
        std::optional<std::string> certificate;
    };

    static constexpr const char* kTeamIDKey = "installerTeamID";
    static constexpr const char* kToolKey = "notaryTool";
    static constexpr const char* kNoCredentials =
        "Apple ID information must be specified in the Create Installer dialog to notarize a "
        "bundle.";

    /// `cancelled` is asked between steps.
    KTNotarizer(Delegate& delegate, std::function<bool()> cancelled);

    /// The stored account, or nothing with the error text when the Apple ID,
    /// the password, or (for notarytool) the Team ID is missing.
    static std::optional<Credentials> credentials(std::string* error);
    /// The tool the preferences choose for an account with `teamID`.
    static Tool chosenTool(const std::string& teamID);

    /// Compresses a bundle if need be and submits; the request identifier, or
    /// nothing with `error` set.
    std::optional<std::string> uuidFromNotarization(const std::string& file,
                                                    const std::string& bundleID,
                                                    std::string* error);
    /// Polls until the service decides or Cancel.
    Outcome waitForNotarization(const std::string& uuid);
    /// One status query.
    KTNotarizationStatus::Status notarizationStatus(const std::string& uuid);
    /// "xcrun stapler staple PATH"; true when it exits 0.
    static bool stapleBundlePath(const std::string& path);
    /// Runs xcrun with `arguments`, logs its answer whole and reads it.
    KTPlistPtr propertyListForXCRunCommand(const std::vector<std::string>& arguments,
                                           std::string* error);

    /// Submits, waits and finishes a built installer with its sheets. True
    /// when it came out notarised and stapled.
    bool notarizeInstallerBundle(const std::string& bundle, const std::string& bundleID);
    /// Signs, submits, waits and finishes a disk image with its sheets. True
    /// when it came out notarised and stapled.
    bool notarizeDiskImageWithSettings(const DiskImageRequest& request);

    /// The command line as logged: the word after "-p" or "--password" masked.
    static std::string maskedCommandLine(const std::vector<std::string>& arguments);

  private:
    bool pause(double seconds);
    std::optional<std::string> fetchNotarytoolLog(const std::string& uuid,
                                                  const Credentials& account);
    void showFailure(const std::string& title, const std::string& error,
                     const std::optional<std::string>& logURL);

    Delegate& delegate_;
    std::function<bool()> cancelled_;
};
