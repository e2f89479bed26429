#include "installer/KTNotarizationStatus.h"

#include "SharedFiles/KTFormat.h"

namespace {

const char* const kUnknownFormat = "Unknown data format returned by notarization process.";

plist_t dictionaryForKey(plist_t dict, const char* key) {
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return nullptr;
    plist_t node = plist_dict_get_item(dict, key);
    return node && plist_get_node_type(node) == PLIST_DICT ? node : nullptr;
}

std::string stringOr(plist_t dict, const char* key, const std::string& fallback) {
    return KTPlist::stringForKey(dict, key).value_or(fallback);
}

}  // namespace

KTPlistPtr KTNotarizationStatus::propertyListFromAnswer(const std::string& text,
                                                        std::string* error) {
    // Only an XML property list is an answer: a tool that failed before it
    // could answer prints plain text, and that text is what the user sees.
    const bool looksLikeXML = text.find("<plist") != std::string::npos;
    KTPlistPtr answer = looksLikeXML ? KTPlist::fromMemory(text) : nullptr;
    if (!answer || plist_get_node_type(answer.get()) != PLIST_DICT) {
        if (error) *error = text;
        return nullptr;
    }
    const std::string errors = productErrors(answer.get());
    if (!errors.empty()) {
        if (error) *error = errors;
        return nullptr;
    }
    return answer;
}

std::string KTNotarizationStatus::productErrors(plist_t answer) {
    plist_t list = answer && plist_get_node_type(answer) == PLIST_DICT
                       ? plist_dict_get_item(answer, "product-errors")
                       : nullptr;
    if (!list || plist_get_node_type(list) != PLIST_ARRAY) return {};
    std::string joined;
    for (uint32_t i = 0; i < plist_array_get_size(list); ++i) {
        plist_t entry = plist_array_get_item(list, i);
        if (!entry || plist_get_node_type(entry) != PLIST_DICT) continue;
        std::optional<std::string> text =
            KTPlist::stringForKey(dictionaryForKey(entry, "userInfo"), "NSLocalizedDescription");
        if (!text) text = KTPlist::stringForKey(entry, "message");
        if (text) joined += KTFormat::str("%@ ", *text);
    }
    return joined;
}

std::optional<std::string> KTNotarizationStatus::requestUUID(plist_t answer, std::string* error) {
    plist_t upload = dictionaryForKey(answer, "notarization-upload");
    if (!upload) {
        if (error) *error = kUnknownFormat;
        return std::nullopt;
    }
    auto uuid = KTPlist::stringForKey(upload, "RequestUUID");
    if (!uuid && error) *error = "Unable to get UUID from notarization process.";
    return uuid;
}

KTNotarizationStatus::Status KTNotarizationStatus::altoolStatus(plist_t answer) {
    Status out;
    plist_t info = dictionaryForKey(answer, "notarization-info");
    if (!info) {
        out.error = kUnknownFormat;
        return out;
    }
    out.status = KTPlist::stringForKey(info, "Status");
    if (!out.status) {
        out.error = "Unable to get status check from notarization process.";
        return out;
    }
    if (*out.status != kSuccess && *out.status != kInProgress) {
        out.error = stringOr(info, "Status Message", "");
        out.logURL = KTPlist::stringForKey(info, "LogFileURL");
    }
    return out;
}

std::optional<std::string> KTNotarizationStatus::submissionID(plist_t answer, std::string* error) {
    if (!answer || plist_get_node_type(answer) != PLIST_DICT) {
        if (error) *error = kUnknownFormat;
        return std::nullopt;
    }
    auto id = KTPlist::stringForKey(answer, "id");
    if (!id && error)
        *error = stringOr(answer, "message", "Unable to get UUID from notarization process.");
    return id;
}

KTNotarizationStatus::Status KTNotarizationStatus::notarytoolStatus(plist_t answer) {
    Status out;
    if (!answer || plist_get_node_type(answer) != PLIST_DICT) {
        out.error = kUnknownFormat;
        return out;
    }
    const auto status = KTPlist::stringForKey(answer, "status");
    if (!status) {
        out.error =
            stringOr(answer, "message", "Unable to get status check from notarization process.");
        return out;
    }
    if (*status == "In Progress") {
        out.status = kInProgress;
    } else if (*status == "Accepted") {
        out.status = kSuccess;
    } else {
        out.status = *status;
        out.error = KTFormat::str("The notary service answered \"%@\" for %@.", *status,
                                  stringOr(answer, "name", "the submission"));
    }
    return out;
}
