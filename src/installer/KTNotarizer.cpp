#include "installer/KTNotarizer.h"

#include <chrono>
#include <thread>

#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/KTTimeScale.h"
#include "installer/KTCodeSigner.h"
#include "operations/KTOperationSupport.h"

namespace {

const char* const kXcrun = "/usr/bin/xcrun";
const double kToolTimeout = 600;
const char* const kUploading = "Uploading bundle to Apple for notarization...";
const char* const kWaiting =
    "Waiting for Apple to finish notarizing. This may take several minutes...";

std::vector<std::string> accountArguments(const KTNotarizer::Credentials& account) {
    if (account.tool == KTNotarizer::Tool::Altool)
        return {"-u", account.appleID, "-p", account.password};
    return {"--apple-id",     account.appleID, "--password",
            account.password, "--team-id",     account.teamID};
}

std::vector<std::string> joined(std::vector<std::string> head,
                                const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

}  // namespace

KTNotarizer::KTNotarizer(Delegate& delegate, std::function<bool()> cancelled)
    : delegate_(delegate), cancelled_(std::move(cancelled)) {}

KTNotarizer::Tool KTNotarizer::chosenTool(const std::string& teamID) {
    const std::string chosen = KTPreferences::standard().stringForKey(kToolKey).value_or("");
    if (chosen == "altool") return Tool::Altool;
    if (chosen == "notarytool") return Tool::Notarytool;
    return teamID.empty() ? Tool::Altool : Tool::Notarytool;
}

std::optional<KTNotarizer::Credentials> KTNotarizer::credentials(std::string* error) {
    Credentials account;
    const bool stored = KTKeychain::appleIDInfo(&account.appleID, &account.password);
    account.teamID = KTPreferences::standard().stringForKey(kTeamIDKey).value_or("");
    account.tool = chosenTool(account.teamID);
    if (!stored || account.appleID.empty() || account.password.empty() ||
        (account.tool == Tool::Notarytool && account.teamID.empty())) {
        if (error) *error = kNoCredentials;
        return std::nullopt;
    }
    return account;
}

std::string KTNotarizer::maskedCommandLine(const std::vector<std::string>& arguments) {
    std::string line = kXcrun;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const bool secret = i > 0 && (arguments[i - 1] == "-p" || arguments[i - 1] == "--password");
        line += " " + (secret ? std::string("********") : arguments[i]);
    }
    return line;
}

KTPlistPtr KTNotarizer::propertyListForXCRunCommand(const std::vector<std::string>& arguments,
                                                    std::string* error) {
    KTLog::appendLog("Running %@", maskedCommandLine(arguments));
    if (!KTTaskEx::isExecutable(kXcrun)) {
        if (error) *error = KTFormat::str("Error: %@ is not executable", kXcrun);
        return nullptr;
    }
    const KTData data = KTTaskEx::dataFromTask(kXcrun, arguments, kToolTimeout).value_or("");
    const std::string text = KTTaskEx::decode(data, KTStringEncoding::UTF8).value_or(data);
    KTLog::appendLogAndPrint("%@", text);
    return KTNotarizationStatus::propertyListFromAnswer(text, error);
}

std::optional<std::string> KTNotarizer::uuidFromNotarization(const std::string& file,
                                                             const std::string& bundleID,
                                                             std::string* error) {
    const auto account = credentials(error);
    if (!account) return std::nullopt;
    std::string upload = file;
    if (KTOperationSupport::isDirectory(file)) {
        // The service takes archives, not folders. The zip stays behind for
        // the developer to look at.
        upload = KTLocalPaths::tempDirectory() + KTOperationSupport::lastComponent(file) + "." +
                 KTLocalPaths::randomString(8) + ".zip";
        while (KTOperationSupport::exists(upload))
            upload = KTLocalPaths::tempDirectory() + KTLocalPaths::randomString(12) + ".zip";
        if (!KTFileManager::compressFile(file, upload)) {
            if (error) *error = "Unable to compress bundle for notarization.";
            return std::nullopt;
        }
    }
    if (account->tool == Tool::Altool) {
        KTPlistPtr answer = propertyListForXCRunCommand(
            joined({"altool", "--notarize-app", "-t", "osx", "-f", upload, "--primary-bundle-id",
                    bundleID},
                   joined(accountArguments(*account), {"--output-format", "xml"})),
            error);
        return answer ? KTNotarizationStatus::requestUUID(answer.get(), error) : std::nullopt;
    }
    KTPlistPtr answer = propertyListForXCRunCommand(
        joined({"notarytool", "submit", upload},
               joined(accountArguments(*account), {"--output-format", "plist"})),
        error);
    return answer ? KTNotarizationStatus::submissionID(answer.get(), error) : std::nullopt;
}

KTNotarizationStatus::Status KTNotarizer::notarizationStatus(const std::string& uuid) {
    KTNotarizationStatus::Status out;
    const auto account = credentials(&out.error);
    if (!account) return out;
    const bool altool = account->tool == Tool::Altool;
    std::string error;
    KTPlistPtr answer = propertyListForXCRunCommand(
        altool ? joined({"altool", "--notarization-info", uuid},
                        joined(accountArguments(*account), {"--output-format", "xml"}))
               : joined({"notarytool", "info", uuid},
                        joined(accountArguments(*account), {"--output-format", "plist"})),
        &error);
    if (!answer) {
        out.error = KTFormat::str("Unable to check notarization status: %@", error);
        return out;
    }
    out = altool ? KTNotarizationStatus::altoolStatus(answer.get())
                 : KTNotarizationStatus::notarytoolStatus(answer.get());
    // notarytool hands out no address: its log is fetched into a file, and
    // "View Error Log" opens that.
    if (!altool && out.status && *out.status != KTNotarizationStatus::kSuccess &&
        *out.status != KTNotarizationStatus::kInProgress)
        out.logURL = fetchNotarytoolLog(uuid, *account);
    return out;
}

std::optional<std::string> KTNotarizer::fetchNotarytoolLog(const std::string& uuid,
                                                           const Credentials& account) {
    const std::string file = KTLocalPaths::tempDirectory() + "Ambrel notarization " + uuid + "." +
                             KTLocalPaths::randomString(6) + ".json";
    const std::vector<std::string> arguments =
        joined({"notarytool", "log", uuid, file}, accountArguments(account));
    KTLog::appendLog("Running %@", maskedCommandLine(arguments));
    const KTData data = KTTaskEx::dataFromTask(kXcrun, arguments, kToolTimeout).value_or("");
    KTLog::appendLogAndPrint("%@", KTTaskEx::decode(data, KTStringEncoding::UTF8).value_or(data));
    if (!KTOperationSupport::exists(file)) return std::nullopt;
    return "file://" + file;
}

bool KTNotarizer::stapleBundlePath(const std::string& path) {
    return KTTaskEx::terminationCodeFromTask(kXcrun, {"stapler", "staple", path}, kToolTimeout) ==
           0;
}

bool KTNotarizer::pause(double seconds) {
    // Sliced, so that Cancel ends a long wait at once instead of at its end.
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + KTTimeScale::scaled(std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        if (cancelled_()) return false;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now());
        std::this_thread::sleep_for(
            std::min<std::chrono::nanoseconds>(left, std::chrono::milliseconds(50)));
    }
    return !cancelled_();
}

KTNotarizer::Outcome KTNotarizer::waitForNotarization(const std::string& uuid) {
    Outcome out;
    out.cancelled = true;
    if (!pause(10)) return out;
    KTNotarizationStatus::Status status = notarizationStatus(uuid);
    // No limit: a query that fails (the network, the service) is asked
    // again; only a decision or Cancel ends the wait.
    while (!status.status || *status.status == KTNotarizationStatus::kInProgress) {
        if (!status.status) KTLog::appendLog("%@", status.error);
        if (!pause(25)) return out;
        status = notarizationStatus(uuid);
    }
    out.cancelled = false;
    out.success = *status.status == KTNotarizationStatus::kSuccess;
    if (!out.success) {
        out.error = status.error;
        out.logURL = status.logURL;
    }
    return out;
}

void KTNotarizer::showFailure(const std::string& title, const std::string& error,
                              const std::optional<std::string>& logURL) {
    if (!logURL) {
        delegate_.showSheet(title, error);
        return;
    }
    if (delegate_.showSheetWithButtons(title, error, {"OK", "View Error Log"}) == 1)
        delegate_.openURL(*logURL);
}

bool KTNotarizer::notarizeInstallerBundle(const std::string& bundle, const std::string& bundleID) {
    KTLog::appendLog("Installer bundle ID: %@", bundleID);
    delegate_.setCancelEnabled(true);
    delegate_.showStatusSheet();
    delegate_.setStatusText(kUploading);
    std::string error;
    const auto uuid = uuidFromNotarization(bundle, bundleID, &error);
    if (!uuid) {
        delegate_.hideStatusSheet();
        KTLog::appendLogAndPrint("Unable to notarize bundle %@: %@", bundle, error);
        delegate_.showSheet("Unable to create installer",
                            KTFormat::str("Unable to notarize - %@.", error));
        return false;
    }
    KTLog::appendLog("UUID is %@", *uuid);
    delegate_.setStatusText(kWaiting);
    const Outcome outcome = waitForNotarization(*uuid);

    delegate_.hideStatusSheet();
    delegate_.setCancelEnabled(false);
    if (outcome.cancelled || cancelled_()) return false;
    if (!outcome.success) {
        KTLog::appendLog("Failed to notarize bundle at %@: %@", bundle, outcome.error);
        showFailure("Unable to notarize", outcome.error, outcome.logURL);
        return false;
    }
    if (!stapleBundlePath(bundle)) {
        KTLog::appendLog("Unable to staple bundle at %@", bundle);
        delegate_.showSheet("Unable to notarize",
                            "Notarization was successful but Ambrel was unable to staple the "
                            "authorization to your installer.");
        return false;
    }
    KTLog::appendLog("Installer successfully created at %@", bundle);
    delegate_.showSheet("Installer created",
                        KTFormat::str("An installer was successfully created at %@.", bundle));
    return true;
}

bool KTNotarizer::notarizeDiskImageWithSettings(const DiskImageRequest& request) {
    KTLog::appendLog("Notarizing DMG %@ (%@)...", request.path, request.bundleID);
    if (request.certificate && !request.certificate->empty()) {
        if (auto failure = KTCodeSigner::signDiskImage(request.path, *request.certificate)) {
            delegate_.showSheet("Unable to notarize disk image",
                                KTCodeSigner::failureText(*failure));
            return false;
        }
    }
    std::string error;
    const auto account = credentials(&error);
    if (cancelled_()) return false;
    if (!account) {
        delegate_.showSheet("Apple ID information not set",
                            "Please add your Apple ID information to the Create Installer dialog "
                            "and the retry.");
        return false;
    }
    delegate_.setCancelEnabled(true);
    delegate_.showStatusSheet();
    delegate_.setStatusText(kUploading);
    const auto uuid = uuidFromNotarization(request.path, request.bundleID, &error);
    if (!uuid) {
        delegate_.hideStatusSheet();
        KTLog::appendLogAndPrint("Unable to notarize disk image %@: %@", request.path, error);
        delegate_.showSheet("Unable to notarize disk image", error);
        return false;
    }
    KTLog::appendLog("UUID is %@", *uuid);
    delegate_.setStatusText(kWaiting);
    const Outcome outcome = waitForNotarization(*uuid);

    delegate_.hideStatusSheet();
    delegate_.setCancelEnabled(false);
    if (outcome.cancelled || cancelled_()) return false;
    if (!outcome.success) {
        KTLog::appendLog("Failed to notarize disk image at %@: %@", request.path, outcome.error);
        showFailure("Unable to notarize", outcome.error, outcome.logURL);
        return false;
    }
    if (!stapleBundlePath(request.path)) {
        KTLog::appendLog("Unable to staple disk image at %@", request.path);
        delegate_.showSheet("Unable to notarize",
                            "Notarization was successful but Ambrel was unable to staple the "
                            "authorization to your disk image.");
        return false;
    }
    KTLog::appendLog("Disk image successfully notarized at %@", request.path);
    delegate_.showSheet(
        "Disk image notarized",
        KTFormat::str("A disk image was successfully notarized at %@.", request.path));
    return true;
}
