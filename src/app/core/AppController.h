#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
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
#include "operations/KTInstallArgs.h"
#include "operations/KTOperationArgs.h"

class KTCrashTester;
class KTAUValidator;
class KTGroupItem;
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
    /// Audio Unit validation (src/diagnostics); the menu item and "-auval" use it.
    KTAUValidator& auValidator() { return *auValidator_; }

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
    std::unique_ptr<KTAUValidator> auValidator_;

    std::mutex reloadLock_;
    std::atomic<bool> reloading_{false};
    std::mutex reloadThreadsLock_;
    std::condition_variable reloadsDone_;
    int reloadsRunning_ = 0;

    // ---- Plug-in operations: groups and installing -------------------------
    // (bodies in src/operations/AppControllerGroups.cpp, AppControllerInstall.cpp)
public:
    /// The add-group action, main thread: a new folder "Group" (or "Group 2",
    /// ...) in the group of `selected` (a plug-in's own group), or at the top
    /// level without a selection. Refused at outline level 10 and deeper.
    /// Answers the new group, already in the tree; the window then re-sorts,
    /// selects it and starts editing its name (the edit ends in `renameGroup`).
    std::shared_ptr<KTGroupItem> addGroup(const KTItemPtr& selected);

    /// Files opened with the application: the list to install. The contents
    /// of a built installer's "/PluginStructure" folder are reduced to the
    /// outermost plug-ins (the folder tree itself is left out).
    std::vector<std::string> installListForOpenedFiles(const std::vector<std::string>& files);
    /// `application:openFiles:`: the list above handed to `displayInstallPrompt`.
    void applicationOpenFiles(const std::vector<std::string>& files);

    /// Stores `fileList` as the pending install list and decides whether to
    /// ask for the scope. Answers true when the window must show its scope
    /// sheet (with `installPromptText()`; its end calls
    /// `installPromptSheetDidEnd`); false when the installation was started
    /// at once with the scope as it stands, or when there is no list.
    bool displayInstallPrompt(const std::optional<std::vector<std::string>>& fileList);
    /// "Would you like to make this plugin / these plugins available to all
    /// users or just the current user?" for the pending list.
    std::string installPromptText() const { return installPromptText_; }
    /// The scope sheet ended: `returnCode` 1 (Install) with a pending list
    /// starts the installation on a thread of its own; `radioTag` 0 means the
    /// current user, any other value all users, nothing keeps the scope.
    void installPromptSheetDidEnd(int returnCode, std::optional<int> radioTag = std::nullopt);
    /// How the installation learns the window's selected row (its group is
    /// the target); without one nothing is selected.
    void setSelectedItemProvider(std::function<KTItemPtr()> provider);
    /// Replaces the pending install list (main thread).
    void updateInstallList(const std::vector<std::string>& list);

    /// The install request's thread body: progress shown, the installation,
    /// the counts refreshed, progress hidden.
    void installPlugins(const KTInstallArgs& args);
    /// Installs each path into the folder its kind and the scope choose
    /// (`forUser`: the current user), inside the group of `item` when given.
    /// Asks before overwriting (the old copy goes to the Trash); falls back
    /// to administrator rights when a copy fails; sums up the failures at the
    /// end and reloads the catalogue, both only with `reload`. Answers the
    /// paths that were not installed.
    std::vector<std::string> installPlugins(const std::vector<std::string>& paths,
                                            const KTItemPtr& item, bool forUser,
                                            bool showProgress, bool reload = true);
    /// The number of progress steps an installation of `paths` takes: one per
    /// path, plus the entries of plain folders (which become groups).
    static long countTotalFilesInPathArray(const std::vector<std::string>& paths);

private:
    std::string installPromptText_;
    std::mutex selectionLock_;
    std::function<KTItemPtr()> selectedItemProvider_;
    // ---- end of groups and installing ----------------------------------------

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

    // ---- Diagnostics: the crash tester --------------------------------------
    // (src/diagnostics/KTCrashTester.*; entry points in AppControllerCrashTest.cpp)
public:
    KTCrashTester& crashTester() { return *crashTester_; }
    /// The Run/Cancel button: starts a test on its own thread, or cancels it.
    void runCrashTestClick();
    /// The test on the calling thread (the command line's way).
    void runCrashTest();
    bool quitAppWithBundleID(const std::string& bundleIdentifier);
    /// Enables the plug-ins of `list` the test disabled; reloads when asked.
    void cleanupCrashTest(const std::vector<std::string>& list, bool reloadData = true);
    void cleanupCrashTestNoReload(const std::vector<std::string>& list) {
        cleanupCrashTest(list, false);
    }

private:
    /// Made at start-up, which also undoes what an unfinished test left.
    void startCrashTester();
    std::unique_ptr<KTCrashTester> crashTester_;
};
