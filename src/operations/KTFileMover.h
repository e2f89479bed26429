#pragma once

#include <memory>
#include <string>

/// The ordinary (unprivileged) move of one plug-in file or bundle, made so
/// that a plug-in is never lost and never silently replaces another:
///
/// - Something already at the destination fails the move; nothing is touched.
/// - Within one file system the move is one rename that refuses to replace.
/// - Across file systems (a home on another disk than the machine-wide
///   library) the item is copied beside its destination under a hidden
///   name, the copy is compared with the source, renamed into place, and
///   only then is the source taken away. Any failure before that point
///   removes the partial copy and leaves the source as it was.
///
/// The copy and the removal are virtual so that a test can make them fail
/// half-way; `shared()` is the instance the operations use.
class KTFileMover {
  public:
    virtual ~KTFileMover() = default;

    /// Moves `from` to `to`. The destination's folder must exist. On failure
    /// `error` (when given) holds a sentence for the log and the source is
    /// where it was.
    bool moveItem(const std::string& from, const std::string& to, std::string* error = nullptr);

    static KTFileMover& shared();
    /// Replaces the shared instance; null puts the ordinary one back.
    static void setShared(std::shared_ptr<KTFileMover> mover);

    /// The fixed pause after each privileged step, so that the tool (which
    /// is not waited for) has finished before the disk is looked at. Tests
    /// shorten it; it is never shortened in the program.
    static double privilegedPauseSeconds();
    static void setPrivilegedPauseSecondsForTesting(double seconds);
    /// Sleeps for the privileged pause.
    static void pauseAfterPrivilegedStep();

  protected:
    /// Copies the tree at `from` to the new path `to` (files, folders,
    /// links; modes and times kept). False with `error` set on any failure.
    virtual bool copyTree(const std::string& from, const std::string& to, std::string* error);
    /// Removes the tree at `path`; false with `error` set when something stays.
    virtual bool removeTree(const std::string& path, std::string* error);

  private:
    bool moveAcrossFileSystems(const std::string& from, const std::string& to, std::string* error);
};
