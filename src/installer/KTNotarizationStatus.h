#pragma once

#include <optional>
#include <string>

#include "SharedFiles/KTPlist.h"

/// Reads the answers of Apple's notarisation tools. altool answers an XML
/// property list with "notarization-upload" / "notarization-info" and, on
/// failure, "product-errors"; notarytool (with "--output-format plist")
/// answers a flat dictionary with "id", "status" and "message". Every answer
/// goes through the one guarded property-list reader.
class KTNotarizationStatus {
  public:
    /// What one status query decided: "in progress", "success", another
    /// status (a failure, with `error` and perhaps `logURL`), or nothing when
    /// the query itself failed (`error` says why).
    struct Status {
        std::optional<std::string> status;
        std::string error;
        std::optional<std::string> logURL;
    };

    static constexpr const char* kInProgress = "in progress";
    static constexpr const char* kSuccess = "success";

    /// The answer as a dictionary; nothing with `error` set to the text
    /// itself when it is no property list, or to the joined "product-errors"
    /// when the tool reported any.
    static KTPlistPtr propertyListFromAnswer(const std::string& text, std::string* error);

    /// The "product-errors" entries, each followed by one space: the
    /// "userInfo"'s "NSLocalizedDescription", else the "message".
    static std::string productErrors(plist_t answer);

    /// altool's "RequestUUID" of "notarization-upload".
    static std::optional<std::string> requestUUID(plist_t answer, std::string* error);
    /// altool's "notarization-info": its "Status", "Status Message" and "LogFileURL".
    static Status altoolStatus(plist_t answer);

    /// notarytool's submission "id"; a dictionary without one hands on its "message".
    static std::optional<std::string> submissionID(plist_t answer, std::string* error);
    /// notarytool's "status": "In Progress" and "Accepted" read as altool's
    /// "in progress" and "success"; "Invalid", "Rejected" or anything else is
    /// a failure.
    static Status notarytoolStatus(plist_t answer);
};
