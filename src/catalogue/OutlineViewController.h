#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalogue/KTGroupItem.h"
#include "catalogue/KTItem.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTInstallArgs.h"
#include "operations/KTOperationArgs.h"

class AppController;
class KTOpenFolder;
class KTOperationQueue;
class KTOutlineView;

/// Owner of the catalogue tree: the top-level list `dataArray` of groups and
/// ungrouped plug-ins, the folder table and the disabled folder. Every change
/// of the tree takes the recursive tree lock; appends to `dataArray` happen
/// on the main thread (through KTMainThread), so a view only ever sees the
/// list change on its own thread. The operations on plug-ins (enable,
/// disable, scope, groups, removal) extend this class from operations/.
class OutlineViewController {
  public:
    explicit OutlineViewController(AppController* appController);
    ~OutlineViewController();
    OutlineViewController(const OutlineViewController&) = delete;
    OutlineViewController& operator=(const OutlineViewController&) = delete;

    AppController* appController() const { return app_; }
    bool hasGUI() const { return hasGUI_; }
    void setHasGUI(bool v) { hasGUI_ = v; }

    /// The window's outline, or null without a window.
    KTOutlineView* outlineView() const { return outlineView_; }
    void setOutlineView(KTOutlineView* view) { outlineView_ = view; }

    /// The tree lock: hold it while reading or changing the tree from a
    /// thread that is not the main thread.
    std::recursive_mutex& treeLock() { return treeLock_; }

    /// The top-level items (a copy of the list; the items are shared).
    KTItemList dataArray() const;
    void clearData();
    /// Appends to the top level; nothing-values are ignored. Main thread.
    void addItemToDataArray(const KTItemPtr& item);
    /// Appends a group or plug-in to the top level.
    void addChild(const KTItemPtr& item);

    /// The disabled folder, fixed when the controller is made.
    const std::string& disabledPath() const { return disabledPath_; }
    /// The folder table, built afresh.
    KTPluginFolderDict pluginFolderDict() const { return KTPluginLocations::pluginFolderDict(); }

    /// Makes a plug-in item and hangs it in the tree (in its group chain when
    /// it has a sub-folder); its bundle is read in the background.
    std::shared_ptr<KTPluginItem> addPlugin(const std::string& fileName,
                                            const std::string& shortName,
                                            const std::optional<std::string>& subdir,
                                            const std::string& version, std::int64_t pluginType,
                                            std::int64_t pluginAccess, long long pluginEnabled);
    /// The same for the scan, which has just seen the plug-in at `listedPath`:
    /// the item is made with its sub-folder, and its place and lock marker
    /// are looked for once, at its whole path, or from `listedFolder` (the
    /// folder it was listed in, kept open) when there is one.
    std::shared_ptr<KTPluginItem> addPlugin(
        const std::string& fileName, const std::string& shortName,
        const std::optional<std::string>& subdir, const std::string& version,
        std::int64_t pluginType, std::int64_t pluginAccess, long long pluginEnabled,
        const std::string& listedPath,
        const std::shared_ptr<const KTOpenFolder>& listedFolder = nullptr);
    /// The top group of a sub-folder's chain below a base folder, made if missing.
    std::shared_ptr<KTGroupItem> addGroup(const std::string& subdir, const std::string& basePath);
    /// Hangs a plug-in into the group chain of its sub-folder; answers the
    /// chain's top group when it was newly made (the caller appends it).
    std::shared_ptr<KTGroupItem> groupFromPlugin(const std::shared_ptr<KTPluginItem>& item);
    std::shared_ptr<KTGroupItem> createGroupPath(const std::string& subdir,
                                                 const std::string& basePath,
                                                 bool returnLastObject = false,
                                                 bool* isUnique = nullptr);
    /// The group whose `subdir` is `subdir`, anywhere in the tree.
    std::shared_ptr<KTGroupItem> groupMatchingSubdir(const std::string& subdir) const;

    /// The plug-in whose path is `path`, or null. Looked up through an index
    /// that is rebuilt when the tree changed or an item has moved.
    std::shared_ptr<KTPluginItem> pluginFromPath(const std::string& path);
    /// The paths the last load listed (plug-ins and group folders), in
    /// listing order: a verb over every plug-in walks these instead of
    /// listing the disk again.
    std::vector<std::string> loadedPaths() const;
    void setLoadedPaths(std::vector<std::string> paths);
    std::vector<std::shared_ptr<KTPluginItem>> allPlugins() const;
    std::vector<std::shared_ptr<KTPluginItem>> allPluginsForGroup(const KTGroupItem& group) const;

    /// Rebuilds the visible list from the items matching `text` (all when empty).
    void search(const std::string& text);
    /// What the outline shows: the search result, or the whole tree.
    KTItemList visibleArray() const;
    const std::string& searchText() const { return searchText_; }

    /// Sorts the top level by a column's comparator ("colName", "colVersion",
    /// "colStatus", any other by kind), reversed when descending, and every
    /// group's children the same way. Main thread.
    void sortColumnWithIdentifier(const std::string& identifier, bool descending);
    static KTSortKey sortKeyForColumn(const std::string& identifier);

    /// Plug-ins in a list (groups add their plug-ins); counting stops once
    /// it reaches a positive `stopAt`.
    static long countTotalItemsInArray(const KTItemList& items, long stopAt = -1);
    static long countTotalEnabledItemsInArray(const KTItemList& items, long stopAt = -1);
    /// "%i plugin%@, %i enabled".
    std::string pluginStatsText() const;

    /// Waits until every queued bundle inspection has run.
    void waitForBundleInspection();
    /// How much of each new plug-in's bundle is read: all (the window, the
    /// listings) or the name and version alone (the verbs that only move
    /// plug-ins and name them in the log). Without an interface the bundle
    /// is read at once on the thread that adds the item, since the caller
    /// waits for every inspection anyway; with one, in the background.
    void setBundleDetail(KTBundleInfo::Detail detail) { bundleDetail_ = detail; }

    /// While one is alive on a thread, the top-level items that thread's
    /// `addPlugin` and `addGroup` make are handed to the main thread together
    /// (at `flush` or at the end), in the order made, instead of in one
    /// hand-off each: a load adds thousands, and each hand-off waits for the
    /// main thread. Groups on their way stay findable meanwhile.
    class DeferredAppends {
      public:
        explicit DeferredAppends(OutlineViewController& outline);
        ~DeferredAppends();
        DeferredAppends(const DeferredAppends&) = delete;
        DeferredAppends& operator=(const DeferredAppends&) = delete;
        void flush();

      private:
        friend class OutlineViewController;
        OutlineViewController& outline_;
        KTItemList items_;
        DeferredAppends* previous_;
    };

    // ---- Plug-in operations: enabling and disabling, scope, removal --------
    // (owned by the operations; bodies in src/operations/OutlineViewController*.cpp)

    /// Moves one plug-in into the disabled folder (`newStatus` 0) or back out
    /// of it (any other value), on the calling thread. A locked plug-in is
    /// left where it is and answers true. Redraws the item's row afterwards.
    bool moveFilter(const std::shared_ptr<KTPluginItem>& item, long long newStatus);
    /// Moves one file or folder, creating the destination's folder, falling
    /// back to administrator rights. Never replaces what is at `newPath`;
    /// a missing source answers true (nothing to move).
    bool moveFileFrom(const std::string& oldPath, const std::string& newPath);
    /// After enabling: removes the folders emptied inside the disabled
    /// folder, from the plug-in's old folder up to the disabled folder itself.
    /// `oldFolderHoldsAFolder`: the move's own look at the old folder found
    /// another folder in it, so it is not empty and nothing above it is.
    void cleanupPluginPath(const std::string& oldDisabledPath, bool oldFolderHoldsAFolder = false);
    /// Removes a folder that holds nothing but ".DS_Store" files (and, with
    /// `includeEmptySubfolders`, such folders); never a kind folder or a
    /// system folder. True when nothing is left at the path. `holdsAFolder`
    /// says it is known not to be empty: it is logged and kept without a look.
    bool removeEmptyFolder(const std::string& folder, bool includeEmptySubfolders,
                           bool holdsAFolder = false);
    /// Clears the locked flag of the path and of each of its ancestors.
    static void unlockItemsInPath(const std::string& path);

    /// Enables (non-zero) or disables (0) every plug-in of a group and its
    /// sub-groups; -1 (mixed) does nothing. `threaded` runs the body on a
    /// batch thread of the application controller.
    void setEnabled(long long enabled, const std::shared_ptr<KTGroupItem>& group, bool showProgress,
                    bool threaded = true);
    void setEnabledForGroupOnThread(const KTGroupEnabledArgs& args);

    /// Moves a plug-in, or a group's plug-ins, to the folders of a scope
    /// (0 all users, 1 current user). Avid, Adobe and locked plug-ins are
    /// never moved. `threaded` runs the body on a batch thread.
    void setAccess(std::int64_t mode, const KTItemPtr& item, bool showProgress,
                   bool threaded = true);
    void setAccessOnThread(const KTSetAccessArgs& args);

    /// The row check boxes ("colStatus", "colUser"), main thread: the core of
    /// their handlers. The window re-configures its buttons afterwards.
    void statusCheckBoxChanged(const KTItemPtr& item, long long newValue);
    void userCheckBoxChanged(const KTItemPtr& item, std::int64_t newValue);

    /// Moves a plug-in to the Trash and takes it out of the tree.
    bool removePlugin(const std::shared_ptr<KTPluginItem>& item);
    /// Removes a group's folders from every kind folder and its disabled
    /// mirror (to the Trash with `removeChildren`, else only where empty),
    /// then takes the group out of the tree. A group without `subdir` is
    /// never removed from disk. Always answers false.
    bool removeGroup(const std::shared_ptr<KTGroupItem>& group, bool removeChildren);
    /// Trashes every plug-in of a group and its sub-groups; stops at the first failure.
    bool trashChildPluginsForGroup(const std::shared_ptr<KTGroupItem>& group);
    /// Takes an item out of the tree (the top level or its group), on the
    /// main thread; the outline reloads when it was at the top level.
    void removeItemFromTree(const KTItemPtr& item);

    /// The environment variable named "$USER" (the dollar sign included), or nothing.
    static std::optional<std::string> currentUser();
    // ---- end of plug-in operations -------------------------------------------

    // ---- Plug-in operations: groups ----------------------------------------
    // (bodies in src/operations/OutlineViewControllerGroups.cpp)

    /// The first of "Group", "Group 2", "Group 3", ... that does not exist in
    /// `folder`.
    static std::string proposeGroupFilename(const std::string& folder);
    /// A group name as typed in the outline, made safe for a folder name:
    /// one leading dot dropped ("..x" -> ".x"), every "/", "\\" and "~"
    /// removed. Nothing for an empty name or a lone ".".
    static std::optional<std::string> validateFilename(const std::optional<std::string>& name);
    /// The outline level of an item: 0 at the top level, one more per group above it.
    static int outlineLevel(const KTItemPtr& item);
    /// The places a group's folder can exist, in visiting order: the twelve
    /// kind folders (Quartz Composer is not among them) under the machine-wide
    /// and the user's domain, first as they are, then mirrored below the
    /// disabled folder, each joined with `subdir`.
    static std::vector<std::string> groupFolderCandidates(const std::string& subdir);
    /// Renames the group's folder wherever it exists, then the group and the
    /// `subdir` of its members. False when the name is unchanged (nothing to
    /// do) or a folder could not be moved (those moved before keep the new name).
    bool renameGroup(const std::shared_ptr<KTGroupItem>& group, const std::string& newName);
    /// Moves a plug-in, or a group's folder, into the target group's folder
    /// (`target` null: the top level of its kind folder). Asks before an item
    /// of the same name is replaced (it goes to the Trash); without an
    /// interface nobody can say "Overwrite" and the move is refused. A locked
    /// plug-in stays and answers true. Sets the item's `subdir` and parent link;
    /// the caller reloads the catalogue for the rest of the tree.
    bool moveItem(const KTItemPtr& item, const std::shared_ptr<KTGroupItem>& target);
    /// Moves everything inside `group` into a same-named group below `target`,
    /// sub-groups recursively; stops at the first failure.
    bool moveChildrenOfItem(const std::shared_ptr<KTGroupItem>& group,
                            const std::shared_ptr<KTGroupItem>& target);
    /// The body of a drop of rows on a group or the top level (run on its own
    /// thread by the window): moves each dragged item once (items inside a
    /// dragged group go with it), then reloads the catalogue.
    void reorderPluginsOnThread(const KTReorderArgs& args);
    // ---- end of groups --------------------------------------------------------

    /// Forgets the lookup indexes (after an operation restructured the tree).
    void invalidateIndexes();
    /// Marks a load in progress: group chains are then found through an index.
    void setLoading(bool loading);

  private:
    /// Sets the names, hangs a new item into the tree, appends what must go
    /// to the top level and starts the inspection of its bundle.
    /// `folder`: the open folder holding the item's actual path, or -1.
    void hangNewPlugin(const std::shared_ptr<KTPluginItem>& item, const std::string& shortName,
                       const std::string& version, bool recheckLock, int folder = -1);
    /// Appends to the top level from a background thread: through the
    /// thread's DeferredAppends when it has one, else on the main thread.
    void handToMainThread(const KTItemPtr& item);
    std::shared_ptr<KTGroupItem> findChildGroup(const KTItemList& list,
                                                const std::string& subdir) const;
    void rebuildPathIndex();

    AppController* app_;
    KTOutlineView* outlineView_ = nullptr;
    bool hasGUI_ = false;
    std::string disabledPath_;
    mutable std::recursive_mutex treeLock_;
    std::vector<std::string> loadedPaths_;  // under treeLock_
    KTItemList dataArray_;
    KTItemList filteredArray_;
    /// Top groups made under the tree lock and not yet appended by the main thread.
    KTItemList pendingTopGroups_;
    std::string searchText_;

    bool loading_ = false;
    std::unordered_map<std::string, std::shared_ptr<KTGroupItem>> groupIndex_;
    std::unordered_map<std::string, std::weak_ptr<KTPluginItem>> pathIndex_;
    /// The same items by file name, which a move keeps.
    std::unordered_multimap<std::string, std::weak_ptr<KTPluginItem>> nameIndex_;
    std::uint64_t indexedRenames_ = 0;
    std::atomic<std::uint64_t> treeGeneration_{0};
    std::uint64_t indexedGeneration_ = ~0ull;

    std::unique_ptr<KTOperationQueue> inspectionQueue_;
    std::atomic<KTBundleInfo::Detail> bundleDetail_{KTBundleInfo::Detail::All};
};
