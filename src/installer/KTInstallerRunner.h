#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// The work of a built installer, run from inside its bundle: read
/// "Contents/Resources/InstallerSettings.plist", run "preinstall.EXT", put
/// every plug-in of "PluginStructure" in place on this machine, run
/// "postinstall.EXT". "/Users/user" becomes the installing user's home; any
/// other folder is taken under the system root. Each plug-in is copied
/// whole or not at all; an older copy goes to the Trash first; a copy the
/// user may not make is repeated with administrator rights.
class KTInstallerRunner {
  public:
    struct Settings {
        std::string name, version, author;
        std::optional<std::string> eulaPath;     ///< full path in the bundle, when present
        std::optional<std::string> bgImagePath;  ///< full path in the bundle, when present
        bool removeBranding = false;
    };
    /// One plug-in to install.
    struct Placement {
        std::string source;       ///< in "PluginStructure"
        std::string destination;  ///< on this machine
    };
    struct Report {
        std::vector<std::string> installed;  ///< destinations
        std::vector<std::string> failed;     ///< sources, each with its reason in `messages`
        std::vector<std::string> messages;
        bool succeeded() const { return failed.empty(); }
    };

    explicit KTInstallerRunner(std::string bundlePath);

    /// Reads the settings file; false with `error` naming the file.
    bool loadSettings(std::string* error);
    const Settings& settings() const { return settings_; }
    const std::string& bundlePath() const { return bundle_; }

    /// The plug-ins under "PluginStructure" and where each goes: a file, or a
    /// folder the install recognition takes as a plug-in (a bundle, a Motion
    /// template); plain folders are walked.
    std::vector<Placement> placements() const;

    /// "Contents/Resources/preinstall.*" (or postinstall), if any.
    std::optional<std::string> script(const std::string& stem) const;

    /// Scripts and copies; `progress` hears one line per step.
    Report install(const std::function<void(const std::string&)>& progress = {});

  private:
    bool runScript(const std::string& stem, Report& report,
                   const std::function<void(const std::string&)>& progress);
    bool place(const Placement& p, std::string* why);

    std::string bundle_;
    Settings settings_;
};
