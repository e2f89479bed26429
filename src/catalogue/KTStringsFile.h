#pragma once

#include <map>
#include <optional>
#include <string>

/// A ".strings" file of a bundle's localisation: old-style "key" = "value";
/// pairs in UTF-8 or UTF-16 with a byte-order mark, or a property list.
/// Plug-ins ship these files, so a key or value with a zero character (which
/// the rest of the program could not carry) refuses the whole file, and a
/// property list goes through the same guard as every other.
class KTStringsFile {
  public:
    using Table = std::map<std::string, std::string>;

    /// The pairs; nothing when the file is refused, with the reason in
    /// `refused`. Text that stops making sense ends the table there.
    static std::optional<Table> parse(const std::string& bytes, std::string* refused = nullptr);
};
