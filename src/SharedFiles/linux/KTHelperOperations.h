#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "SharedFiles/linux/KTHelperPlaces.h"
#include "SharedFiles/linux/KTHelperPolicy.h"

/// The privileged helper's file steps, done by the helper itself with calls
/// relative to folders it opened without following a link, so that nothing
/// swapped in between a check and a use can lead it elsewhere: every folder
/// on the way to an operand is opened component by component with
/// O_NOFOLLOW, and the step acts on the descriptor of the last folder.
///
/// What a step may touch is decided against `KTHelperPlaces`: moves, copies
/// and removals only strictly inside a place; folders made only in, or on
/// the way to, a place; owner and mode changes only in the program's own
/// folder, only to the requesting user and the repair's mode, never through
/// a link and never on a file with a second name elsewhere. A copy reads its
/// source with the requesting user's file-system identity, so it can only
/// carry what that user could read.
class KTHelperOperations {
  public:
    struct Result {
        std::int32_t status = 0;  // 0, KTAuthorization::kStatusRefused or kStatusFailed
        std::string message;      // why, naming the path
    };

    KTHelperOperations(uid_t uid, gid_t gid, KTHelperPlaces places);

    Result perform(const KTHelperStep& step);

    /// A descriptor (O_PATH) of the folder at normalised `path`, reached
    /// without passing through a link; -1 with errno set otherwise (ELOOP
    /// or ENOTDIR for a link on the way).
    static int openFolder(const std::string& path);

  private:
    Result makeDirectory(const std::string& path);
    Result move(const KTHelperStep& step);
    Result copy(const KTHelperStep& step);
    Result remove(const KTHelperStep& step, const std::string& path);
    Result changeOwnerOrMode(const KTHelperStep& step, const std::string& path);

    uid_t uid_;
    gid_t gid_;
    KTHelperPlaces places_;
    unsigned workCounter_ = 0;
};
