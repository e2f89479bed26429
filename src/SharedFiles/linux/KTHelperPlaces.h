#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// The places the privileged helper serves one requesting user, and nothing
/// else: the kind folders of both scopes (the machine's under the system
/// root the program runs with, the user's under the home the account
/// database gives for the user's id), the disabled folder and the program's
/// own folder that the permission repair touches, the user's Trash in the
/// home and on each mounted file system ($topdir/.Trash/$uid and
/// $topdir/.Trash-$uid). Pure: the caller supplies what it learned.
class KTHelperPlaces {
  public:
    enum class Role { PluginFolder, ProgramFolder, Trash };
    struct Place {
        std::string path;  // normalised, without trailing slash
        Role role;
    };

    /// `systemRoot` "/" or a normalised folder (nothing: no machine places);
    /// `home` the account's home ("" when it has none); `mountPoints` the machine's.
    KTHelperPlaces(const std::optional<std::string>& systemRoot, uid_t uid, const std::string& home,
                   const std::vector<std::string>& mountPoints);

    /// Why the system root the program asks for cannot be served, judged by
    /// name alone (the helper then checks the folders on disk).
    static std::optional<std::string> rootRefusal(const std::string& systemRoot);
    /// The mount points listed in a /proc/self/mountinfo text.
    static std::vector<std::string> mountPointsFrom(const std::string& mountinfo);

    /// The place holding `path` (itself or beneath), or null.
    const Place* placeOf(const std::string& path) const;
    /// Strictly beneath a place: what may be moved, copied onto, removed.
    bool isInside(const std::string& path) const;
    /// A place, beneath one, or a folder on the way to one: what mkdir -p may make.
    bool mayMakeFolder(const std::string& path) const;
    /// The permission repair's folder or beneath: what chown and chmod may touch.
    bool isProgramFolder(const std::string& path) const;
    /// Beneath the user's home or in the user's Trash: a folder the helper
    /// makes there is given to the user, as if the user had made it.
    bool belongsToUser(const std::string& path) const;

    const std::vector<Place>& places() const { return places_; }

  private:
    std::vector<Place> places_;
    std::string home_;
};
