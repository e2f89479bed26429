#pragma once

#include <optional>
#include <string>

/// Where the system tools that callers name by their macOS paths ("/bin/mv",
/// "/usr/sbin/chown", "/usr/bin/xcrun") live on this machine. Callers keep
/// writing the macOS paths; the task runner and the privileged helper look
/// them up here just before starting them.
///
/// A tool this platform lacks (xcrun, auval, codesign, ditto, ...) maps to
/// nothing, so its callers take their "not found" paths even if something
/// else of the same name happens to be installed. Paths outside the table
/// are used as given.
///
/// When AMBREL_TOOL_DIR names a folder, a file there named like a table
/// tool ("mv", "auval") stands in for that tool; tests use it to put stand-ins
/// in place of tools. It is never read unless set, and the helper never
/// reads it (it runs with a cleared environment).
class KTToolPaths {
  public:
    /// The path to start for `path`, or nothing when the tool is absent here.
    static std::optional<std::string> resolve(const std::string& path);
    /// The same, ignoring AMBREL_TOOL_DIR: what a privileged process may run.
    static std::optional<std::string> resolveSystem(const std::string& path);
    /// True when `path` is one of the table's tools.
    static bool isKnownTool(const std::string& path);
};
