#pragma once

#include <optional>
#include <string>

/// The operating system's version text, as analytics reports it: on Linux the
/// PRETTY_NAME of os-release (/etc/os-release, else /usr/lib/os-release,
/// both under the system root).
class KTOSVersion {
  public:
    static std::optional<std::string> osxVersion();
    /// PRETTY_NAME from the text of an os-release file, unquoted; nothing
    /// when absent or empty.
    static std::optional<std::string> prettyNameFromOSRelease(const std::string& text);
};
