#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "operations/KTBatchThreads.h"

class AppController;

/// One Audio Unit as the system's validator lists it. The codes and names
/// are fixed when the record is made; the status changes while the
/// validation runs, from a queue thread, while the table reads it.
class KTAURecord {
  public:
    std::string typeCode;  ///< first field of the unit's line
    std::string idCode;    ///< second field (empty for a three-letter subtype)
    std::string manCode;   ///< third field
    std::string manName;   ///< "Unknown" when the line has no " - "; keeps its leading space
    std::string title;     ///< "Unknown" when the line has no ": "

    std::string status() const;
    void setStatus(const std::string& status);
    /// The record's value for a key of the table ("title", "manName",
    /// "status", ...); "" for any other key.
    std::string valueForKey(const std::string& key) const;

  private:
    mutable std::mutex lock_;
    std::string status_ = "Validating...";
};
using KTAURecordPtr = std::shared_ptr<KTAURecord>;

/// The validator's window, told on the main thread.
class KTAUValidatorView {
  public:
    virtual ~KTAUValidatorView() = default;
    /// The list was replaced, or a status changed: redraw.
    virtual void reloadAUValTableView() {}
    virtual void startAUValProgress() {}
    virtual void endAUValProgress() {}
    /// Shows the sort indicator on `column`, or removes it (nothing).
    virtual void setSortIndicator(const std::string& column, std::optional<bool> descending) {}
};

/// Audio Unit validation: lists every unit through "/usr/bin/auval -a",
/// validates each with "auval -v TYPE SUBTYPE MANUFACTURER", at most five at
/// a time, and keeps the verdicts in a list the validator window shows
/// and sorts. Failures of the listing are shown as alerts and leave the old
/// list; failures of a unit only set its status.
class KTAUValidator {
  public:
    explicit KTAUValidator(AppController& app);
    /// Waits for runs still going; units not yet started are skipped, tools
    /// already running are waited for.
    ~KTAUValidator();
    KTAUValidator(const KTAUValidator&) = delete;
    KTAUValidator& operator=(const KTAUValidator&) = delete;

    /// The table's columns and the record keys they show.
    static constexpr const char* colTitle = "colTitle";
    static constexpr const char* colManufacturer = "colManufacturer";
    static constexpr const char* colStatus = "colStatus";
    static std::string keyForColumn(const std::string& column);

    /// Set by the window on the main thread; null without one.
    void setView(KTAUValidatorView* view);

    /// The menu action: a new run on a thread of its own. A run already
    /// going carries on and replaces the list when it gets there.
    void validateAU();
    /// The whole run on the calling thread. False when no list could be made
    /// (the validator missing, no output, too few lines).
    bool processAUValidation();
    /// Validates one unit and sets its status.
    void validateAudioUnit(const KTAURecordPtr& record);
    /// Waits for every run started by `validateAU` so far (not from a run).
    /// On the main thread it keeps handling events meanwhile: the runs hand
    /// their table updates to it.
    void waitForValidation();

    /// The status an exit status of "auval -v" gives, and the log line for
    /// it (empty for none).
    static std::pair<std::string, std::string> statusForTerminationCode(int code,
                                                                        const std::string& title);
    /// The image of a status: "Success", "Error", "Warning", or "" for none.
    static std::string imageNameForStatus(const std::string& status);

    /// The list, main thread.
    std::vector<KTAURecordPtr> auValArray() const { return list_; }
    void updateAUValArray(std::vector<KTAURecordPtr> list);
    bool hasList() const { return hasList_; }

    // Sorting, main thread, kept in "auValSortedColumn" and "auValSortedDescending".
    /// A click on a column header: the stored column again reverses the
    /// order, another column sorts ascending.
    void didClickTableColumn(const std::string& column);
    /// Sorts by the column's key, ignoring case; an unknown column does nothing.
    void sortColumnWithIdentifier(const std::string& column, bool descending);
    /// After a new list: the stored column and order, else the first column.
    void applySortingForTableView();

    /// The validator's full report on one unit (output and errors), for the
    /// inspector. Blocks until the tool ends.
    std::string inspectionReport(const KTAURecordPtr& record);

  private:
    void showAlert(const std::string& message, const std::string& informative);
    void onView(void (KTAUValidatorView::*call)());

    AppController& app_;
    KTAUValidatorView* view_ = nullptr;  // main thread
    std::vector<KTAURecordPtr> list_;    // main thread
    bool hasList_ = false;
    std::atomic<bool> stopping_{false};
    std::atomic<int> running_{0};
    // Last: the runs end before the rest goes.
    KTBatchThreads runs_;
};
