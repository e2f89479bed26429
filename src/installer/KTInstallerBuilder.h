#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "installer/KTInstallerSettings.h"

/// Builds a stand-alone installer from plug-ins: a copy of the template
/// installer with the plug-ins laid out under "PluginStructure" as they lie
/// on this machine, the licence, picture, icon and scripts, and the settings
/// file the template reads; then signing and notarisation through
/// `KTInstallerSigning`. Every copy goes through the install copier, so a
/// plug-in is either whole in the bundle or not there at all.
///
/// The build runs on the calling thread (the window starts a thread for
/// it); what it shows goes through the delegate.
class KTInstallerBuilder {
  public:
    /// What a build shows. The window hands each call to its main thread
    /// and waits; the command line prints.
    class Delegate {
      public:
        virtual ~Delegate() = default;
        virtual void setSpinning(bool spinning) {}
        /// A sheet on the installer window: a short message and its informative text.
        virtual void showSheet(const std::string& message, const std::string& informative) = 0;
        /// The status sheet's line while notarising.
        virtual void setStatusText(const std::string& text) {}
        /// The notarisation status sheet: progress bar, text line and Cancel.
        virtual void showStatusSheet() {}
        virtual void hideStatusSheet() {}
        virtual void setCancelEnabled(bool enabled) {}
        /// A sheet with buttons after OK; answers the index of the one pressed.
        virtual int showSheetWithButtons(const std::string& message, const std::string& informative,
                                         const std::vector<std::string>& buttons) {
            showSheet(message, informative);
            return 0;
        }
        /// Opens an address in the browser ("View Error Log").
        virtual void openURL(const std::string& url) {}
    };

    enum class Outcome { Created, Failed, Cancelled };

    explicit KTInstallerBuilder(Delegate& delegate) : delegate_(delegate) {}

    /// The whole build. The cancel flag is cleared first and looked at
    /// before each step; a cancelled build ends silently. Files already made
    /// stay where they are.
    Outcome createInstallerWithSettings(const KTInstallerRequest& request);

    /// The status sheet's Cancel (any thread).
    void cancel() { installerCancelled_ = true; }
    bool installerCancelled() const { return installerCancelled_; }

    Delegate& delegate() { return delegate_; }
    /// Logs and shows "Unable to create installer" with `text`.
    void fail(const std::string& text);

  private:
    Outcome build(const KTInstallerRequest& request);
    bool copyInto(const std::string& source, const std::string& destination,
                  const std::string& failure);
    bool layOutPlugins(const KTInstallerRequest& request, const std::string& bundle);
    bool writeSettings(const KTInstallerRequest& request, const std::string& resources,
                       bool haveEULA, bool haveBackground);
    bool addIcon(const std::string& icon, const std::string& bundle);
    bool addScript(const std::string& script, const std::string& stem, const std::string& resources,
                   const std::string& failure);

    Delegate& delegate_;
    std::atomic<bool> installerCancelled_{false};
};
