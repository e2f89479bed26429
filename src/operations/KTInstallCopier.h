#pragma once

#include <memory>
#include <string>

/// The copy of a plug-in into a plug-in folder, whole or not at all: it is
/// built under a hidden name beside its destination, compared with the
/// source, and only then renamed into place, so that a host never finds half
/// a plug-in where it loads them. An existing destination is never replaced.
///
/// The tree copy is virtual so that a test can make it fail half-way;
/// `shared()` is the instance the installation uses.
class KTInstallCopier {
  public:
    virtual ~KTInstallCopier() = default;

    /// Copies `source` (file, folder or link; modes and times kept) to the
    /// new path `destination`, whose folder must exist. On failure nothing
    /// is left at `destination` or beside it and `error` (when given) says why.
    bool copyItem(const std::string& source, const std::string& destination,
                  std::string* error = nullptr);

    /// The same through the administrator tools: copied under a hidden name,
    /// checked, then moved into place; the staging copy is removed when it
    /// came out incomplete. Pauses after each privileged step.
    bool authCopyItem(const std::string& source, const std::string& destination,
                      std::string* error = nullptr);

    /// The hidden name beside `destination` that a copy is built under.
    static std::string stagingPathFor(const std::string& destination);
    /// True when `copy` holds the same tree as `original` (kinds, link
    /// targets, sizes and bytes).
    static bool sameTree(const std::string& original, const std::string& copy);

    static KTInstallCopier& shared();
    /// Replaces the shared instance; null puts the ordinary one back.
    static void setShared(std::shared_ptr<KTInstallCopier> copier);

  protected:
    /// Copies the tree at `from` to the new path `to`. False with `error`
    /// set on the first failure (what was copied so far stays for the caller
    /// to remove).
    virtual bool copyTree(const std::string& from, const std::string& to, std::string* error);
};
