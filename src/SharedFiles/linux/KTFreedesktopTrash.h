#pragma once

#include <string>

#include "SharedFiles/KTTrash.h"

/// The freedesktop.org home trash: the item goes to TRASH/files/NAME and a
/// TRASH/info/NAME.trashinfo records where it came from and when, which is
/// what desktop trash tools read to list and restore it. An item on another
/// file system than the trash is copied, checked against the original and
/// only then removed; a copy that fails is removed again and the item stays.
class KTFreedesktopTrash : public KTTrash {
  public:
    /// `trashFolder` holds files/ and info/; empty means the home trash
    /// (the parent of `KTLocalPaths::trashDirectory`), looked up on each call.
    explicit KTFreedesktopTrash(std::string trashFolder = {});

    bool trashItem(const std::string& path, std::string* trashedPath = nullptr,
                   std::string* error = nullptr) override;

    /// The Path value of a .trashinfo: bytes outside the URI unreserved set
    /// and "/" as %XX.
    static std::string percentEncode(const std::string& path);

  private:
    std::string trashFolder_;
};
