#include "diagnostics/KTAUValidator.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <thread>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTOperationQueue.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/KTUserInterface.h"
#include "SharedFiles/linux/KTToolPaths.h"
#include "app/core/AppController.h"

namespace {

const char* const kAuval = "/usr/bin/auval";
const char* const kNotCompleted = "Audio Unit validation could not be completed.";
const char* const kSortedColumn = "auValSortedColumn";
const char* const kSortedDescending = "auValSortedDescending";

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t at = text.find(separator, start);
        if (at == std::string::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
}

std::string trimmed(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::string lowercased(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

/// The records of the validator's "-a" listing, banner and header left out.
std::vector<KTAURecordPtr> recordsFromLines(std::vector<std::string> lines) {
    // The tool's banner (a row of "* *" on the second line) takes nine lines
    // at the top; the last line goes with it.
    if (trimmed(lines[1]).rfind("* *", 0) == 0)
        lines = std::vector<std::string>(lines.begin() + 9, lines.end() - 1);
    std::vector<KTAURecordPtr> records;
    int number = 0;
    for (const auto& line : lines) {
        // A fixed allowance for the header under the banner.
        if (++number <= 5) continue;
        const std::vector<std::string> fields = split(line, " ");
        if (fields.size() < 3) continue;
        const std::size_t colon = line.rfind(": ");
        const std::size_t dash = line.rfind(" - ");
        const std::string title = colon == std::string::npos ? "Unknown" : line.substr(colon + 2);
        if (title == "DefaultOutputUnit" || title == "DLSMusicDevice" ||
            title == "SystemOutputUnit")
            continue;
        std::string manufacturer = "Unknown";
        if (dash != std::string::npos) {
            const std::size_t from = dash + 3;
            if (colon == std::string::npos)
                manufacturer = line.substr(from);
            else if (colon >= from)
                manufacturer = line.substr(from, colon - from);
        }
        KTLog::appendLog("Found Audio Unit %@", title);
        auto record = std::make_shared<KTAURecord>();
        record->typeCode = fields[0];
        record->idCode = fields[1];
        record->manCode = fields[2];
        record->manName = manufacturer;
        record->title = title;
        records.push_back(std::move(record));
    }
    return records;
}

std::string describeLines(const std::vector<std::string>& lines) {
    std::string out = "(\n";
    for (std::size_t i = 0; i < lines.size(); ++i)
        out += "    \"" + lines[i] + (i + 1 < lines.size() ? "\",\n" : "\"\n");
    return out + ")";
}

}  // namespace

std::string KTAURecord::status() const {
    std::lock_guard<std::mutex> l(lock_);
    return status_;
}

void KTAURecord::setStatus(const std::string& status) {
    std::lock_guard<std::mutex> l(lock_);
    status_ = status;
}

std::string KTAURecord::valueForKey(const std::string& key) const {
    if (key == "typeCode") return typeCode;
    if (key == "idCode") return idCode;
    if (key == "manCode") return manCode;
    if (key == "manName") return manName;
    if (key == "title") return title;
    if (key == "status") return status();
    return "";
}

KTAUValidator::KTAUValidator(AppController& app) : app_(app) {}

KTAUValidator::~KTAUValidator() {
    stopping_ = true;
    waitForValidation();
}

void KTAUValidator::waitForValidation() {
    KTMainThread& main = KTMainThread::shared();
    while (running_ > 0) {
        if (main.isMainThread())
            main.processPendingEvents(0.02);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    runs_.waitForAll();
}

std::string KTAUValidator::keyForColumn(const std::string& column) {
    if (column == colTitle) return "title";
    if (column == colManufacturer) return "manName";
    if (column == colStatus) return "status";
    return "";
}

void KTAUValidator::setView(KTAUValidatorView* view) {
    view_ = view;
}

void KTAUValidator::onView(void (KTAUValidatorView::*call)()) {
    KTMainThread::shared().runAndWait([this, call] {
        if (view_) (view_->*call)();
    });
}

void KTAUValidator::showAlert(const std::string& message, const std::string& informative) {
    KTUserInterface* ui = app_.hasGUI() ? app_.userInterface() : nullptr;
    if (ui) {
        ui->runAlert(KTAlert{message, informative, {}});
    } else {
        KTConsoleUserInterface().runAlert(KTAlert{message, informative, {}});
    }
}

void KTAUValidator::validateAU() {
    ++running_;
    runs_.start([this] {
        processAUValidation();
        --running_;
    });
}

bool KTAUValidator::processAUValidation() {
    KTLog::appendLog("Populating audio units for validation...");
    onView(&KTAUValidatorView::startAUValProgress);
    struct ProgressEnd {
        KTAUValidator* self;
        ~ProgressEnd() { self->onView(&KTAUValidatorView::endAUValProgress); }
    } progressEnd{this};

    if (!KTToolPaths::resolve(kAuval)) {
        KTLog::appendLog(
            "Unable to locate auval utility. Audio Unit validation could not be completed.");
        showAlert("Unable to locate validator", kNotCompleted);
        return false;
    }
    const std::string text =
        KTTaskEx::stringFromTask(kAuval, {"-a"}, KTStringEncoding::ASCII, 20.0, true, false)
            .value_or("");
    if (text.empty()) {
        KTLog::appendLog(
            "Error: no data returned from validator. Audio Unit validation could not be "
            "completed.");
        showAlert("Error: no data returned from validator", kNotCompleted);
        return false;
    }
    KTLog::appendLogAndDebugPrint("Response from audio unit validator: %@", text);
    const std::vector<std::string> lines = split(text, "\n");
    if (lines.size() < 10) {
        KTLog::appendLog(
            "Error: invalid data returned from validator. Audio Unit validation could not be "
            "completed.");
        KTLog::appendLog("Items: %@", describeLines(lines));
        showAlert("Error: invalid data returned from validator", kNotCompleted);
        return false;
    }
    std::vector<KTAURecordPtr> records = recordsFromLines(lines);

    KTLog::appendLog("Updating audio unit list...");
    KTMainThread::shared().runAndWait([this, &records] {
        updateAUValArray(records);
        if (view_) applySortingForTableView();
    });
    KTLog::appendLog("Validating audio units...");
    {
        KTOperationQueue queue(5);
        for (const auto& record : records)
            queue.addOperation([this, record] {
                if (!stopping_) validateAudioUnit(record);
            });
        queue.waitUntilAllOperationsAreFinished();
    }
    KTLog::appendLog("Audio unit validation complete");
    return true;
}

std::pair<std::string, std::string> KTAUValidator::statusForTerminationCode(
    int code, const std::string& title) {
    switch (code) {
        case -1:
            return {"Failed", KTFormat::str("%@ returned Failed", title)};
        case 0:
            return {"OK", ""};
        case 1:
            return {"General Error", KTFormat::str("%@ returned General Error", title)};
        case 2:
            return {"Fatal Error", KTFormat::str("%@ returned Fatal Error", title)};
        case 4:
            return {"Unauthorized", KTFormat::str("%@ returned Unauthorized (open)", title)};
        case 5:
            return {"Unauthorized", KTFormat::str("%@ returned Unauthorized (init)", title)};
        default:
            // 3 included: the tool's "unknown" is not a named error.
            return {"Unknown", KTFormat::str("%@ returned Unknown (return code %i)", title, code)};
    }
}

void KTAUValidator::validateAudioUnit(const KTAURecordPtr& record) {
    const int code = KTTaskEx::terminationCodeFromTask(
        kAuval, {"-v", record->typeCode, record->idCode, record->manCode});
    auto [status, line] = statusForTerminationCode(code, record->title);
    if (!line.empty()) KTLog::appendLog("%@", line);
    record->setStatus(status);
    onView(&KTAUValidatorView::reloadAUValTableView);
}

std::string KTAUValidator::imageNameForStatus(const std::string& status) {
    if (status == "OK") return "Success";
    if (status == "Validating...") return "";
    if (status == "General Error" || status == "Fatal Error" || status == "Unauthorized" ||
        status == "Failed")
        return "Error";
    return "Warning";
}

void KTAUValidator::updateAUValArray(std::vector<KTAURecordPtr> list) {
    list_ = std::move(list);
    hasList_ = true;
    if (view_) view_->reloadAUValTableView();
}

void KTAUValidator::didClickTableColumn(const std::string& column) {
    KTPreferences& prefs = KTPreferences::standard();
    const std::optional<std::string> stored = prefs.stringForKey(kSortedColumn);
    bool descending = prefs.boolForKey(kSortedDescending);
    if (stored && *stored == column) {
        descending = !descending;
    } else {
        if (stored && view_) view_->setSortIndicator(*stored, std::nullopt);
        descending = false;
    }
    sortColumnWithIdentifier(column, descending);
    prefs.setBool(kSortedDescending, descending);
    prefs.setString(kSortedColumn, column);
}

void KTAUValidator::sortColumnWithIdentifier(const std::string& column, bool descending) {
    const std::string key = keyForColumn(column);
    if (key.empty()) return;
    std::vector<std::pair<std::string, KTAURecordPtr>> keyed;
    for (const auto& r : list_) keyed.emplace_back(lowercased(r->valueForKey(key)), r);
    std::stable_sort(keyed.begin(), keyed.end(), [descending](const auto& a, const auto& b) {
        return descending ? b.first < a.first : a.first < b.first;
    });
    std::vector<KTAURecordPtr> sorted;
    for (auto& [k, r] : keyed) sorted.push_back(std::move(r));
    if (view_) view_->setSortIndicator(column, descending);
    list_ = std::move(sorted);
    if (view_) view_->reloadAUValTableView();
}

void KTAUValidator::applySortingForTableView() {
    if (!hasList_) return;
    KTPreferences& prefs = KTPreferences::standard();
    const std::string column = prefs.stringForKey(kSortedColumn).value_or(colTitle);
    sortColumnWithIdentifier(column, prefs.boolForKey(kSortedDescending));
}

std::string KTAUValidator::inspectionReport(const KTAURecordPtr& record) {
    KTLog::appendLog("Inspecting %@...", record->title);
    return KTTaskEx::stringFromTask(kAuval,
                                    {"-v", record->typeCode, record->idCode, record->manCode})
        .value_or("");
}
