#pragma once

#include <chrono>
#include <string>

/// The few file operations the plug-in operations share: existence, the
/// locked (immutable) flag, and the move to the Trash with its privileged
/// fall-back.
class KTFileManager {
  public:
    /// True when anything is at `path`, a dangling link included (so that it
    /// can still be trashed).
    static bool fileExistsAtPath(const std::string& path);

    /// Clears the locked flag (the immutable attribute, as `chattr +i` sets
    /// it). A failure is logged ("Unable to unlock file %@: %@") and answered
    /// false; a file system that has no such flag has nothing to unlock.
    static bool unlockFile(const std::string& path);

    /// Moves the item to the user's Trash, unlocking it first. Nothing at the
    /// path counts as done. When the ordinary move fails and `shouldAuth` is
    /// set, the move is repeated with administrator rights; where none can be
    /// asked for (the command line) a line naming the item and the reason
    /// is printed instead.
    static bool trashFile(const std::string& path, bool shouldAuth = true);

    /// `trashFile(path)`, then waits up to `timeout` for the item to be gone,
    /// keeping the interface live on the main thread. False when the move
    /// failed or the item is still there.
    static bool trashFile(const std::string& path, std::chrono::duration<double> timeout);
};
