#include "catalogue/OutlineViewController.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <thread>

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTOperationQueue.h"
#include "SharedFiles/linux/KTOpenFolder.h"
#include "catalogue/KTFilePackage.h"

namespace {

std::vector<std::string> components(const std::string& subdir) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= subdir.size()) {
        std::size_t end = subdir.find('/', start);
        if (end == std::string::npos) end = subdir.size();
        if (end > start) out.push_back(subdir.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

/// A folder's display name: its name less the extension, unless numeric.
std::string displayName(const std::string& folderName) {
    std::string ext = KTFilePackage::lowerExtension(folderName);
    if (ext.empty() || KTPluginLocations::isNumeric(ext)) return folderName;
    return folderName.substr(0, folderName.size() - ext.size() - 1);
}

void collectPlugins(const KTItemList& list, std::vector<std::shared_ptr<KTPluginItem>>& out) {
    for (const auto& item : list) {
        if (!item) continue;
        if (item->isGroup()) {
            collectPlugins(static_cast<const KTGroupItem&>(*item).children(), out);
        } else {
            out.push_back(std::static_pointer_cast<KTPluginItem>(item));
        }
    }
}

}  // namespace

OutlineViewController::OutlineViewController(AppController* appController)
    : app_(appController),
      disabledPath_(KTPluginLocations::disabledPath()),
      inspectionQueue_(std::make_unique<KTOperationQueue>(
          std::max(2u, std::min(8u, std::thread::hardware_concurrency())))) {}

OutlineViewController::~OutlineViewController() {
    inspectionQueue_.reset();  // drops pending inspections, waits for running ones
}

KTItemList OutlineViewController::dataArray() const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    return dataArray_;
}

void OutlineViewController::clearData() {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    dataArray_.clear();
    filteredArray_.clear();
    pendingTopGroups_.clear();
    invalidateIndexes();
}

void OutlineViewController::invalidateIndexes() {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    groupIndex_.clear();
    pathIndex_.clear();
    ++treeGeneration_;
}

void OutlineViewController::setLoading(bool loading) {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    loading_ = loading;
    groupIndex_.clear();
}

void OutlineViewController::addItemToDataArray(const KTItemPtr& item) {
    if (!item) return;
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    pendingTopGroups_.erase(std::remove(pendingTopGroups_.begin(), pendingTopGroups_.end(), item),
                            pendingTopGroups_.end());
    dataArray_.push_back(item);
    ++treeGeneration_;
}

void OutlineViewController::addChild(const KTItemPtr& item) {
    if (!item) return;
    addItemToDataArray(item);
}

std::shared_ptr<KTPluginItem> OutlineViewController::addPlugin(
    const std::string& fileName, const std::string& shortName,
    const std::optional<std::string>& subdir, const std::string& version, std::int64_t pluginType,
    std::int64_t pluginAccess, long long pluginEnabled) {
    auto item = std::make_shared<KTPluginItem>(fileName, pluginType, pluginAccess, pluginEnabled);
    {
        std::lock_guard<std::recursive_mutex> l(treeLock_);
        item->setSubdir(subdir);
    }
    hangNewPlugin(item, shortName, version, true);
    return item;
}

std::shared_ptr<KTPluginItem> OutlineViewController::addPlugin(
    const std::string& fileName, const std::string& shortName,
    const std::optional<std::string>& subdir, const std::string& version, std::int64_t pluginType,
    std::int64_t pluginAccess, long long pluginEnabled, const std::string& listedPath,
    const std::shared_ptr<const KTOpenFolder>& listedFolder) {
    const int folder = listedFolder ? listedFolder->fd() : -1;
    auto item = std::make_shared<KTPluginItem>(fileName, subdir, pluginType, pluginAccess,
                                               pluginEnabled, listedPath, folder);
    // The folder holds the item only where the item is what was listed.
    hangNewPlugin(item, shortName, version, false,
                  folder >= 0 && item->actualPath() == listedPath ? folder : -1);
    return item;
}

namespace {
thread_local OutlineViewController::DeferredAppends* tDeferredAppends = nullptr;
}  // namespace

OutlineViewController::DeferredAppends::DeferredAppends(OutlineViewController& outline)
    : outline_(outline), previous_(tDeferredAppends) {
    tDeferredAppends = this;
}

OutlineViewController::DeferredAppends::~DeferredAppends() {
    tDeferredAppends = previous_;
    try {
        flush();
    } catch (const std::exception& e) {
        KTException::logException(e, "-[OutlineViewController addItemToDataArray:]");
    }
}

void OutlineViewController::DeferredAppends::flush() {
    if (items_.empty()) return;
    KTItemList items;
    items.swap(items_);
    KTMainThread::shared().runAndWait([&] {
        for (const auto& item : items) outline_.addItemToDataArray(item);
    });
}

void OutlineViewController::handToMainThread(const KTItemPtr& item) {
    if (!item) return;
    if (tDeferredAppends && &tDeferredAppends->outline_ == this) {
        tDeferredAppends->items_.push_back(item);
        return;
    }
    KTMainThread::shared().runAndWait([&] { addItemToDataArray(item); });
}

void OutlineViewController::hangNewPlugin(const std::shared_ptr<KTPluginItem>& item,
                                          const std::string& shortName, const std::string& version,
                                          bool recheckLock, int folder) {
    // The constructor looked for the lock marker at this path already.
    const std::string checkedPath = recheckLock ? item->actualPath() : std::string();
    KTItemPtr toAppend;
    {
        std::lock_guard<std::recursive_mutex> l(treeLock_);
        item->setVersion(version);
        item->setShortName(shortName);
        if (!item->subdir() || item->subdir()->empty())
            toAppend = item;
        else
            toAppend = groupFromPlugin(item);
        if (recheckLock && item->actualPath() != checkedPath) item->setLockStatus();
        ++treeGeneration_;
    }
    // Not under the tree lock: the main thread takes it to append, and a
    // window's main thread is another thread than this one.
    handToMainThread(toAppend);

    const KTBundleInfo::Detail detail = bundleDetail_;
    if (!hasGUI_) {
        item->populateBundleInfo(detail, folder);
        return;
    }
    // Details fill in later; an item dropped meanwhile is simply skipped.
    std::weak_ptr<KTPluginItem> weak = item;
    inspectionQueue_->addOperation([weak, detail] {
        if (auto it = weak.lock()) it->populateBundleInfo(detail);
    });
}

void OutlineViewController::waitForBundleInspection() {
    inspectionQueue_->waitUntilAllOperationsAreFinished();
}

std::shared_ptr<KTGroupItem> OutlineViewController::addGroup(const std::string& subdir,
                                                             const std::string& basePath) {
    bool isUnique = false;
    std::shared_ptr<KTGroupItem> top;
    {
        std::lock_guard<std::recursive_mutex> l(treeLock_);
        top = createGroupPath(subdir, basePath, false, &isUnique);
    }
    if (top && isUnique) handToMainThread(top);
    return top;
}

std::shared_ptr<KTGroupItem> OutlineViewController::groupFromPlugin(
    const std::shared_ptr<KTPluginItem>& item) {
    if (!item || !item->subdir() || item->subdir()->empty()) return nullptr;
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    std::string base = item->pluginBasePath();
    if (item->pluginEnabled() == 0) base = KTPluginLocations::disabledPathForPath(base);
    bool isUnique = false;
    auto deepest = createGroupPath(*item->subdir(), base, true, &isUnique);
    if (!deepest) return nullptr;
    deepest->addChild(item);
    if (!isUnique) return nullptr;
    return item->absoluteParent();
}

std::shared_ptr<KTGroupItem> OutlineViewController::findChildGroup(
    const KTItemList& list, const std::string& subdir) const {
    for (const auto& it : list) {
        if (it && it->isGroup()) {
            auto g = std::static_pointer_cast<KTGroupItem>(it);
            if (g->subdir() && *g->subdir() == subdir) return g;
        }
    }
    return nullptr;
}

std::shared_ptr<KTGroupItem> OutlineViewController::createGroupPath(const std::string& subdir,
                                                                    const std::string& basePath,
                                                                    bool returnLastObject,
                                                                    bool* isUnique) {
    if (isUnique) *isUnique = false;
    const auto parts = components(subdir);
    if (parts.empty()) return nullptr;
    std::lock_guard<std::recursive_mutex> l(treeLock_);

    std::shared_ptr<KTGroupItem> top, current;
    std::string sofar;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        sofar = i == 0 ? parts[0] : sofar + "/" + parts[i];
        std::shared_ptr<KTGroupItem> found;
        if (loading_) {
            // During a load thousands of plug-ins look up the same chains.
            auto hit = groupIndex_.find(sofar);
            if (hit != groupIndex_.end() &&
                (i == 0 ? !hit->second->parent() : hit->second->parent() == current))
                found = hit->second;
        }
        if (!found) found = findChildGroup(i == 0 ? dataArray_ : current->children(), sofar);
        // A top group made by another thread may still be on its way to the
        // main thread's append; it must be found, not made twice.
        if (!found && i == 0) found = findChildGroup(pendingTopGroups_, sofar);
        if (!found) {
            found = std::make_shared<KTGroupItem>();
            found->setTitle(displayName(parts[i]));
            found->setGroupPath(KTPluginLocations::appendPathComponent(basePath, sofar));
            found->setSubdir(sofar);
            if (i == 0) {
                // Only a caller that asks whether the group is new appends it.
                if (isUnique) {
                    *isUnique = true;
                    pendingTopGroups_.push_back(found);
                }
            } else {
                current->addChild(found);
            }
        }
        if (loading_) groupIndex_[sofar] = found;
        if (i == 0) top = found;
        current = found;
    }
    return returnLastObject ? current : top;
}

std::shared_ptr<KTGroupItem> OutlineViewController::groupMatchingSubdir(
    const std::string& subdir) const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    std::function<std::shared_ptr<KTGroupItem>(const KTItemList&)> walk =
        [&](const KTItemList& list) -> std::shared_ptr<KTGroupItem> {
        for (const auto& it : list) {
            if (!it || !it->isGroup()) continue;
            auto g = std::static_pointer_cast<KTGroupItem>(it);
            if (g->subdir() && *g->subdir() == subdir) return g;
            if (auto inner = walk(g->children())) return inner;
        }
        return nullptr;
    };
    return walk(dataArray_);
}

void OutlineViewController::rebuildPathIndex() {
    // One look for the Adobe folder, not one per Adobe plug-in.
    KTPluginLocations::FolderCache folders;
    pathIndex_.clear();
    nameIndex_.clear();
    indexedRenames_ = KTPluginItem::renameCount();
    const auto plugins = allPlugins();
    // Sized once: a load of thousands of plug-ins otherwise rehashes both
    // tables a dozen times on the way.
    pathIndex_.reserve(2 * plugins.size());
    nameIndex_.reserve(plugins.size());
    for (const auto& p : plugins) {
        pathIndex_[p->actualPath()] = p;
        pathIndex_.emplace(p->pluginPath(), p);
        nameIndex_.emplace(p->fileName(), p);
    }
    indexedGeneration_ = treeGeneration_;
}

std::vector<std::string> OutlineViewController::loadedPaths() const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    return loadedPaths_;
}

void OutlineViewController::setLoadedPaths(std::vector<std::string> paths) {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    loadedPaths_ = std::move(paths);
}

std::shared_ptr<KTPluginItem> OutlineViewController::pluginFromPath(const std::string& path) {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    auto matches = [&](const std::shared_ptr<KTPluginItem>& item) {
        return item && (item->actualPath() == path || item->pluginPath() == path);
    };
    auto lookup = [&]() -> std::shared_ptr<KTPluginItem> {
        auto it = pathIndex_.find(path);
        if (it == pathIndex_.end()) return nullptr;
        auto item = it->second.lock();
        return matches(item) ? item : nullptr;
    };
    if (indexedGeneration_ == treeGeneration_ && indexedRenames_ == KTPluginItem::renameCount()) {
        if (auto hit = lookup()) return hit;
        // Same items, same names: a plug-in that moved since the index was
        // built is among those of its name. A batch that moves every plug-in
        // and asks for some the tree does not hold would otherwise rebuild
        // the whole index once per miss.
        const auto slash = path.rfind('/');
        const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        // A plug-in taken out of the tree keeps its name entry (removal drops
        // only its path entries), so a candidate must still hang from the tree.
        auto inTree = [&](const std::shared_ptr<KTPluginItem>& item) {
            KTItemPtr child = item;
            while (auto parent = child->parent()) {
                const KTItemList& siblings = parent->children();
                if (std::find(siblings.begin(), siblings.end(), child) == siblings.end())
                    return false;
                child = parent;
            }
            return std::find(dataArray_.begin(), dataArray_.end(), child) != dataArray_.end();
        };
        auto [first, last] = nameIndex_.equal_range(name);
        for (auto it = first; it != last; ++it) {
            auto item = it->second.lock();
            if (!matches(item) || !inTree(item)) continue;
            pathIndex_[path] = item;
            return item;
        }
        return nullptr;
    }
    rebuildPathIndex();
    return lookup();
}

std::vector<std::shared_ptr<KTPluginItem>> OutlineViewController::allPlugins() const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    std::vector<std::shared_ptr<KTPluginItem>> out;
    collectPlugins(dataArray_, out);
    return out;
}

std::vector<std::shared_ptr<KTPluginItem>> OutlineViewController::allPluginsForGroup(
    const KTGroupItem& group) const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    std::vector<std::shared_ptr<KTPluginItem>> out;
    collectPlugins(group.children(), out);
    return out;
}

void OutlineViewController::search(const std::string& text) {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    searchText_ = text;
    filteredArray_.clear();
    if (text.empty()) return;
    for (const auto& item : dataArray_) {
        if (!item) continue;
        if (item->isGroup()) {
            auto copy = static_cast<const KTGroupItem&>(*item).groupWithFilteredChildren(text);
            if (!copy->children().empty() || KTItem::containsIgnoringCase(copy->title(), text))
                filteredArray_.push_back(copy);
        } else if (KTItem::containsIgnoringCase(item->sortName(), text)) {
            filteredArray_.push_back(item);
        }
    }
}

KTItemList OutlineViewController::visibleArray() const {
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    return searchText_.empty() ? dataArray_ : filteredArray_;
}

long OutlineViewController::countTotalItemsInArray(const KTItemList& items, long stopAt) {
    long total = 0;
    for (const auto& item : items) {
        if (!item) continue;
        total +=
            item->isGroup() ? long(static_cast<const KTGroupItem&>(*item).totalChildCount()) : 1;
        if (stopAt > 0 && total >= stopAt) return total;
    }
    return total;
}

long OutlineViewController::countTotalEnabledItemsInArray(const KTItemList& items, long stopAt) {
    long total = 0;
    for (const auto& item : items) {
        if (!item) continue;
        if (item->isGroup())
            total += long(static_cast<const KTGroupItem&>(*item).totalEnabledChildCount());
        else if (static_cast<const KTPluginItem&>(*item).pluginEnabled() == 1)
            total += 1;
        if (stopAt > 0 && total >= stopAt) return total;
    }
    return total;
}

std::string OutlineViewController::pluginStatsText() const {
    KTItemList copy = dataArray();
    long total = countTotalItemsInArray(copy), enabled = countTotalEnabledItemsInArray(copy);
    return KTFormat::str("%i plugin%@, %i enabled", total, total == 1 ? "" : "s", enabled);
}
