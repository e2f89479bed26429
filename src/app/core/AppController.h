#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "catalogue/KTItem.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTBatchThreads.h"
#include "operations/KTOperationArgs.h"

class OutlineViewController;
class KTUserInterface;

/// The one application controller. The window builds it with a user
/// interface; the command line with `initWithoutGUI`, which shows nothing.
/// It drives catalogue loads, owns the progress sheet's operations and the
/// flags that steer batch work.
class AppController {
public:
    /// The windowed program's controller: a new log, the outline owner with
    /// an interface, the default preferences. The window hands its interface
    /// in through `setUserInterface`.
    AppController();
    /// The command line's controller: the log "Ambrel.task", the privileged
    /// controller without interface, the outline owner without interface.
    static std::unique_ptr<AppController> initWithoutGUI();
    ~AppController();
    AppController(const AppController&) = delete;
    AppController& operator=(const AppController&) = delete;

    /// Registers the defaults that answer for missing preferences.
    static void registerDefaultPreferences();

    bool hasGUI() const { return hasGUI_; }
    void setHasGUI(bool v);
    KTUserInterface* userInterface() const { return ui_.get(); }
    void setUserInterface(std::shared_ptr<KTUserInterface> ui);
    OutlineViewController& outlineViewController() { return *outline_; }

    bool processingCancelled() const;
    void setProcessingCancelled(bool v) { processingCancelled_ = v; }

    // The progress sheet and spinner; each does nothing without an interface.
    void startProgress();
    void endProgress();
    void showProgressWindow();
    void setIndeterminateProgress();
    void setDeterminateProgress(double maximum);
    void incrementProgress();
    void updateProgressText(const std::string& text);
    void cancelProgress();
    void endProgressWindow();

    // Catalogue loading.
    /// The whole reload, on the calling thread (a background thread in the
    /// window): clears the tree, lists, classifies and rebuilds it.
    void loadPluginData();
    /// Starts `loadPluginData` on a background thread.
    void reloadData();
    void startReloadOnMainThread() { reloadData(); }
    /// Waits until no reload runs.
    void waitForReload();
    bool isReloading() const { return reloading_; }

    std::vector<std::string> listPlugins(bool includeDisabled);
    std::vector<std::string> listPlugins(bool includeDisabled, bool includeFolders);
    std::vector<std::string> listFilteredPlugins(bool includeDisabled, bool includeFolders);
    std::vector<std::string> listPlugins(bool includeDisabled, bool includeFolders,
                                         const std::vector<std::string>& folders);
    /// The plug-ins and (with includeFolders) group folders below one folder;
    /// nothing when it cannot be listed.
    std::optional<std::vector<std::string>> scanPluginsInFolder(const std::string& folder,
                                                                bool includeFolders);
    /// Classifies one path and adds it to the tree.
    void processPluginAtPath(const std::string& path, int filter,
                             const KTPluginFolderDict& pluginFolderDict,
                             const std::string& disabledPath);
    void processPluginAtPath(const std::string& path);
    static std::set<std::string> fileExtensionsInFileArray(const std::vector<std::string>& names);

    /// The folders the "filter" preference chooses, in scanning order.
    static std::vector<std::string> foldersForFilter(int filter, const KTPluginFolderDict& dict);

    // Kept for counting background tasks.
    std::atomic<int> taskThreadCount{0};
    bool installForUser = false;
    std::vector<std::string> installList;

private:
    struct WithoutGUI {};
    explicit AppController(WithoutGUI);

    bool hasGUI_ = false;
    std::atomic<bool> processingCancelled_{false};
    std::shared_ptr<KTUserInterface> ui_;
    std::unique_ptr<OutlineViewController> outline_;

    std::mutex reloadLock_;
    std::atomic<bool> reloading_{false};
    std::mutex reloadThreadsLock_;
    std::condition_variable reloadsDone_;
    int reloadsRunning_ = 0;

    // ---- Plug-in operations: toolbar batches, removal, permission repair ----
    // (owned by the operations; bodies in src/operations/AppController*.cpp)
public:

    /// The toolbar's enable/disable action, main thread: disables the
    /// selected items when the button reads "Disable", else enables them, on
    /// a batch thread. `selection` holds the selected rows' items in row order.
    void enableDisable(const KTItemList& selection, const std::string& buttonLabel);
    void toggleEnableDisableOnThread(const KTToggleArgs& args);

    /// The toolbar's scope action, main thread: moves the selection to the
    /// current user's folders when the button reads "Current User", else to
    /// the machine-wide ones, on a batch thread.
    void toggleUserAccess(const KTItemList& selection, const std::string& buttonLabel);
    void toggleUserAccessOnThread(const KTToggleArgs& args);

    /// The remove action, main thread: asks "Remove"/"Cancel", then trashes
    /// the selection on a batch thread.
    void remove(const KTItemList& selection);
    void removePluginsOnThread(const KTItemList& items);
    /// "Delete All": moves everything in the disabled folder to the Trash
    /// after asking "Delete All"/"Cancel". Without an interface nobody can be
    /// asked: the caller's request stands, and the messages are printed.
    void deleteAllDisabled();

    /// At start-up: offers to repair the ownership and modes of the folder
    /// holding the disabled folder when the user cannot use it.
    void checkPermissions();
    /// A path of the old layout (a ".Disabled" folder inside the plug-in
    /// folder) moved into the disabled folder: the new path, the unchanged
    /// path, or nothing (see the body for the cases).
    std::optional<std::string> convertPluginStorageMode(const std::string& path);
    /// Removes `components` from `list` (one: every occurrence; several: the
    /// range from the first to the last); answers the list.
    static std::vector<std::string>& stripComponents(const std::vector<std::string>& components,
                                                     std::vector<std::string>& list);

    /// Waits for every batch thread started so far (before shutdown, in tests).
    void waitForBatchOperations() { batchThreads_.waitForAll(); }
    KTBatchThreads& batchThreads() { return batchThreads_; }

private:
    // Last member: destroyed first, so no batch outlives the tree it works on.
    KTBatchThreads batchThreads_;
    // ---- end of plug-in operations -------------------------------------------
};
