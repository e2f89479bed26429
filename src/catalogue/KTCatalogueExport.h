#pragma once

#include <string>
#include <vector>

#include "catalogue/KTCatalogueEntry.h"

/// The catalogue for scripts and spreadsheets: one JSON document or one CSV
/// table (RFC 4180) with a row per plug-in, in listing order, with the same
/// fields in both.
class KTCatalogueExport {
  public:
    enum class Format { JSON, CSV };

    /// The field names, in column order.
    static const std::vector<std::string>& fieldNames();

    /// {"plugins": [ {field: value, ...}, ... ]}, UTF-8, newline-terminated.
    static std::string json(const std::vector<KTCatalogueEntry>& entries);
    /// A header line, then one record per plug-in; CRLF line ends, fields
    /// quoted when they hold a comma, a quote or a line break; architectures
    /// joined by ";"; booleans "true" and "false".
    static std::string csv(const std::vector<KTCatalogueEntry>& entries);
    static std::string text(const std::vector<KTCatalogueEntry>& entries, Format format);

    /// One CSV field, quoted when it must be.
    static std::string csvField(const std::string& value);

    /// Writes the export atomically; false with `error` set when it could not.
    static bool writeFile(const std::string& path, const std::string& text, std::string* error);
};
