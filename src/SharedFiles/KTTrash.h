#pragma once

#include <memory>
#include <string>

/// The user's Trash: moves one item into it so that the desktop's own tools
/// list it and can put it back. Nothing is deleted outright anywhere in the
/// program; this is where removed plug-ins go.
class KTTrash {
  public:
    virtual ~KTTrash() = default;

    /// Moves the item at `path` (a file, folder or link) into the Trash.
    /// On success `trashedPath` names where it now is; on failure the item is
    /// where it was and `error` says why.
    virtual bool trashItem(const std::string& path, std::string* trashedPath = nullptr,
                           std::string* error = nullptr) = 0;

    /// The same move made with administrator rights (the record of it is
    /// still the user's). False, with "User cancelled authorization." as
    /// the error, when no right could be had.
    virtual bool authTrashItem(const std::string& path, std::string* trashedPath = nullptr,
                               std::string* error = nullptr) {
        (void)path, (void)trashedPath;
        if (error) *error = "User cancelled authorization.";
        return false;
    }

    /// The process-wide Trash (the platform's unless a test replaced it).
    static KTTrash& shared();
    /// Replaces the process-wide Trash; null puts the platform's back.
    static void setShared(std::shared_ptr<KTTrash> trash);
};
