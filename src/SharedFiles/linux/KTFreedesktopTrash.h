#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

#include "SharedFiles/KTTrash.h"

/// The freedesktop.org Trash: the item goes to TRASH/files/NAME and a
/// TRASH/info/NAME.trashinfo records where it came from and when, which is
/// what desktop trash tools read to list and restore it.
///
/// An item on the home's file system goes to the home Trash. An item on
/// another mount goes to that mount's own Trash ($topdir/.Trash/$uid when
/// $topdir/.Trash is a sticky folder and no link, else $topdir/.Trash-$uid),
/// so that removal there is a rename, but only when the mount's top folder
/// lies inside the system root or the home: otherwise, and when that Trash
/// cannot be made, the item goes to the home Trash by `KTTransfer`'s staged
/// copy. The .trashinfo is reserved first (created exclusively) and removed
/// when the move fails. Under sudo everything made in the Trash, the item
/// included, is given to the user who ran sudo.
class KTFreedesktopTrash : public KTTrash {
  public:
    /// `trashFolder` holds files/ and info/ and is used for every item;
    /// empty means the rule above, looked up on each call.
    explicit KTFreedesktopTrash(std::string trashFolder = {});

    bool trashItem(const std::string& path, std::string* trashedPath = nullptr,
                   std::string* error = nullptr) override;
    bool authTrashItem(const std::string& path, std::string* trashedPath = nullptr,
                       std::string* error = nullptr) override;

    /// The Trash folder (holding files/ and info/) an item goes to, made
    /// when missing; `topdir` is set for a mount's own Trash, whose
    /// .trashinfo paths are relative to it.
    std::string trashFolderFor(const std::string& path, std::string* topdir,
                               std::string* error) const;

    /// The Path value of a .trashinfo: bytes outside the URI unreserved set
    /// and "/" as %XX.
    static std::string percentEncode(const std::string& path);

  private:
    bool trash(const std::string& path, std::string* trashedPath, std::string* error,
               bool withRights);

    std::string trashFolder_;
};
