#pragma once

#include <optional>
#include <string>
#include <vector>

/// What the privileged helper agrees to run. It trusts nothing it is sent:
/// only the file tools of the privileged operations, only the options those
/// operations pass, operands that are absolute paths (never an option in
/// disguise), and never a system folder as something to move, remove or
/// re-own. Kept apart from the helper so that it can be checked unprivileged.
class KTHelperPolicy {
  public:
    /// `fields` = tool (as the program names it, "/bin/mv") then arguments.
    /// Nothing when the request may run, else the reason it may not.
    static std::optional<std::string> refusal(const std::vector<std::string>& fields);
};
