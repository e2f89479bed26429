#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "catalogue/KTBundleInfo.h"
#include "catalogue/KTItem.h"

/// One plug-in file or bundle of the catalogue.
///
/// Its place is computed from kind, scope, enabled state, group sub-folder
/// and file name (see KTPluginLocations); `actualPath` remembers the last
/// computed place at which the file existed, so an item whose file someone
/// else moved away keeps pointing at where it was last seen.
///
/// The setters of the path-forming fields (and of `itemSelection` and the
/// parent) re-check `actualPath` before and after storing the new value.
/// `shortName`, `version` and `architectures` may be written by the item's
/// inspection thread while the tree's thread reads them, and the thread reads
/// `actualPath` while the tree's thread may change it; these are guarded.
class KTPluginItem : public KTItem {
  public:
    /// The plain initialiser: empty fields, nothing computed, no thread.
    KTPluginItem();
    /// `initWithFilename:pluginType:pluginAccess:pluginEnabled:`: sets the four
    /// fields, `itemSelection` 0, `actualPath` to `pluginPath`, the lock status,
    /// then starts the bundle inspection thread (when an inspector is installed).
    KTPluginItem(const std::string& fileName, std::int64_t pluginType, std::int64_t pluginAccess,
                 long long pluginEnabled);
    /// The catalogue's form of the same: the group sub-folder is given at once
    /// and `listedPath` is where the scan has just seen the plug-in, so neither
    /// the place nor the lock marker is looked for before the item's path is
    /// whole; the lock status is then read once, there.
    /// `listedFolder`, when not -1, is the listed folder open: the marker is
    /// then looked for from there.
    KTPluginItem(const std::string& fileName, const std::optional<std::string>& subdir,
                 std::int64_t pluginType, std::int64_t pluginAccess, long long pluginEnabled,
                 const std::string& listedPath, int listedFolder = -1);
    /// Asks a running inspection thread to stop and waits for it.
    ~KTPluginItem() override;

    bool isGroup() const override { return false; }

    std::string shortName() const;
    void setShortName(const std::string& v);
    const std::string& fileName() const { return fileName_; }
    void setFileName(const std::string& v);
    /// The group sub-folder relative to the kind folder; none at top level.
    const std::optional<std::string>& subdir() const { return subdir_; }
    void setSubdir(const std::optional<std::string>& v);
    std::string version() const;
    void setVersion(const std::string& v);
    long long pluginEnabled() const { return pluginEnabled_; }
    void setPluginEnabled(long long v);
    /// A copy: the inspection thread reads it while the tree's thread may move it.
    std::string actualPath() const;
    void setActualPath(const std::string& v);
    /// A move has just put the plug-in at `path` in the state `enabled`: both
    /// are stored without a look at the disk, which the move has just had.
    void movedTo(long long enabled, const std::string& path);
    std::int64_t pluginType() const { return pluginType_; }
    void setPluginType(std::int64_t v);
    std::int64_t pluginAccess() const { return pluginAccess_; }
    void setPluginAccess(std::int64_t v);
    long long itemSelection() const { return itemSelection_; }
    void setItemSelection(long long v);
    void setParent(const std::shared_ptr<KTGroupItem>& parent) override;
    std::vector<std::string> architectures() const;
    void setArchitectures(const std::vector<std::string>& v);
    bool isLocked() const { return isLocked_; }
    void setIsLocked(bool v) { isLocked_ = v; }
    bool isDeletable() const { return isDeletable_; }
    void setIsDeletable(bool v) { isDeletable_ = v; }

    std::string pluginTypeDir() const;
    std::string pluginBasePath() const;
    std::string pluginRelativePath() const;
    std::string pluginPath() const;
    std::string pluginTypeName() const;

    /// Moves `actualPath` to `pluginPath` unless it is set and nothing exists there.
    void updateActualPath();
    /// Locks the item when ".fxfactory.plist" lies inside `actualPath`
    /// (another installer manages it); never unlocks.
    void setLockStatus();

    std::string sortName() const override { return shortName(); }
    std::string sortTypeName() const override { return pluginTypeName(); }
    KTComparisonResult nameCompare(const KTItem& other) const override;
    KTComparisonResult versionCompare(const KTItem& other) const override;
    KTComparisonResult statusCompare(const KTItem& other) const override;
    KTComparisonResult typeCompare(const KTItem& other) const override;

    /// A new plain item with the same names, sub-folder, version, states,
    /// architectures, kind and scope; no `actualPath`, parent, lock or thread.
    std::shared_ptr<KTPluginItem> copy() const;
    KTItemPtr copyItem() const override { return copy(); }

    static bool isNumeric(const std::string& text);
    /// Counts, process-wide, the changes of an item's file name (and of an
    /// actual path whose last component is not the file name): path indexes
    /// keyed by name are stale when it moved.
    static std::uint64_t renameCount();

    /// Reads the bundle at `actualPath` into the item: display name, version
    /// and architecture labels. A plain file (a script, a template document)
    /// keeps what the scan gave it.
    /// `folder`, when not -1, is the folder holding `actualPath`, open.
    void populateBundleInfo(KTBundleInfo::Detail detail = KTBundleInfo::Detail::All,
                            int folder = -1);

    /// The work of the inspection thread (reads the bundle at `actualPath`
    /// and fills in name, version and architectures); it should return soon
    /// after the stop token is triggered.
    using BundleInspector = std::function<void(KTPluginItem&, std::stop_token)>;
    /// Installs the inspection run by every item made with the file-name
    /// initialiser from now on; an empty function turns the thread off.
    static void setBundleInspector(BundleInspector inspector);
    /// Waits until the item's inspection thread (if any) has finished.
    void waitForBundleInfo();

  private:
    void startInspectionThread();
    /// `setLockStatus` with the marker looked for from the open folder that
    /// holds `actualPath` (named `name` there).
    void setLockStatusAt(int folder, const std::string& name);
    /// What finding the lock marker, or not, means for the item.
    void setManaged(bool managed);
    /// The file whose presence inside a plug-in says another program manages it.
    static constexpr const char* kLockMarker = ".fxfactory.plist";

    mutable std::mutex detailsMutex_;  // shortName_, version_, architectures_, actualPath_
    std::string shortName_;
    std::string fileName_;
    std::optional<std::string> subdir_;
    std::string version_;
    long long pluginEnabled_ = 0;
    std::string actualPath_;
    std::int64_t pluginType_ = 0;
    std::int64_t pluginAccess_ = 0;
    long long itemSelection_ = 0;
    std::vector<std::string> architectures_;
    bool isLocked_ = false;
    bool isDeletable_ = true;
    std::jthread bundleProcessThread_;
};
