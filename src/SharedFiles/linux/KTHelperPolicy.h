#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

/// One step the privileged helper agrees to take, read from a request.
struct KTHelperStep {
    enum class Kind { MakeDirectory, Move, Copy, Remove, Chown, Chmod };
    Kind kind = Kind::MakeDirectory;
    /// mv/cp without -T: an existing folder at the destination receives the
    /// source inside it.
    bool intoExistingFolder = false;
    /// rm -R, chown -R, chmod -R.
    bool recursive = false;
    /// rmdir: an empty folder or nothing.
    bool onlyEmptyFolders = false;
    /// chown: the owner as sent (a login name or a numeric id).
    std::string owner;
    /// Normalised absolute paths: mkdir/rm/chown/chmod operands, or source
    /// then destination for mv/cp.
    std::vector<std::string> paths;
};

/// What the privileged helper agrees to read from a request, before it
/// looks at the disk: only the file tools of the privileged operations, only
/// the options and arguments those operations pass (chmod only "a+rw",
/// chown to one owner, mv and cp with one source), operands that are
/// absolute, free of "..", and never one of the machine's system folders
/// however spelled. Where a path may lead, and who may own what, is decided
/// afterwards by `KTHelperPlaces` against the requesting user. Kept apart
/// from the helper so that it can be checked unprivileged and fuzzed.
class KTHelperPolicy {
  public:
    /// The mode the permission repair sends, the only one accepted.
    static constexpr const char* kRepairMode = "a+rw";

    /// `fields` = tool (as the program names it, "/bin/mv") then arguments.
    /// The step, or the reason it is refused.
    static std::variant<KTHelperStep, std::string> parse(const std::vector<std::string>& fields);
    /// Nothing when `parse` accepts the request, else the reason.
    static std::optional<std::string> refusal(const std::vector<std::string>& fields);
};
