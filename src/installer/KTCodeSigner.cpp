#include "installer/KTCodeSigner.h"

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskEx.h"

namespace {

const char* const kCodesign = "/usr/bin/codesign";
const std::string kReplacing = "replacing existing signature";

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

/// codesign's error stream. A codesign that cannot be started (as on any
/// system without Xcode) must not pass for a silent success.
std::string runCodesign(const std::vector<std::string>& arguments, KTStringEncoding encoding,
                        double timeout) {
    if (!KTTaskEx::isExecutable(kCodesign))
        return KTFormat::str("Error: %@ is not executable", kCodesign);
    return KTTaskEx::stringFromTask(kCodesign, arguments, encoding, timeout, false, true)
        .value_or("");
}

}  // namespace

bool KTCodeSigner::signingSucceeded(const std::string& output) {
    const std::string text = trimmed(output);
    return text.empty() ||
           (text.size() >= kReplacing.size() &&
            text.compare(text.size() - kReplacing.size(), kReplacing.size(), kReplacing) == 0);
}

std::string KTCodeSigner::failureText(const std::string& output) {
    return KTFormat::str(
        "Code signing failed: %@.\n\nMake sure you have Xcode and the Xcode command-line tools "
        "installed.",
        output);
}

std::optional<std::string> KTCodeSigner::signInstaller(const std::string& bundlePath,
                                                       const std::string& identity) {
    // Finder information and resource forks make codesign refuse the bundle.
    const std::string stripped =
        KTTaskEx::stringFromTask("/usr/bin/xattr", {"-c", "-r", bundlePath}).value_or("");
    KTLog::appendLog("Output from attribute strip task: %@", stripped);

    const std::string output = trimmed(runCodesign(
        {"--deep", "--timestamp", "--options=runtime", "-f", "-s", identity, bundlePath},
        KTStringEncoding::UTF8, 30));
    if (signingSucceeded(output)) return std::nullopt;
    KTLog::appendLogAndPrint("Error signing installer: %@", output);
    return failureText(output);
}

std::optional<std::string> KTCodeSigner::signDiskImage(const std::string& path,
                                                       const std::string& identity) {
    const std::string output = trimmed(runCodesign(
        {"--force", "--timestamp", "--sign", identity, path}, KTStringEncoding::ASCII, 120));
    if (signingSucceeded(output)) return std::nullopt;
    KTLog::appendLogAndPrint("Error signing disk image: %@", output);
    return output;
}
