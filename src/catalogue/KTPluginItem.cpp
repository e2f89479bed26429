#include "catalogue/KTPluginItem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>

#include "catalogue/KTBundleInfo.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginLocations.h"

namespace {

std::mutex& inspectorMutex() {
    static std::mutex m;
    return m;
}

KTPluginItem::BundleInspector& inspectorSlot() {
    static KTPluginItem::BundleInspector inspector;
    return inspector;
}

std::atomic<std::uint64_t> gRenames{0};

bool endsWithComponent(const std::string& path, const std::string& name) {
    return path.size() > name.size() &&
           path.compare(path.size() - name.size(), name.size(), name) == 0 &&
           path[path.size() - name.size() - 1] == '/';
}

KTComparisonResult compareNumbers(long long a, long long b) {
    if (a == b) return KTComparisonResult::Same;
    return a < b ? KTComparisonResult::Ascending : KTComparisonResult::Descending;
}

}  // namespace

KTPluginItem::KTPluginItem() = default;

KTPluginItem::KTPluginItem(const std::string& fileName, std::int64_t pluginType,
                           std::int64_t pluginAccess, long long pluginEnabled) {
    // The setters' path checks would all be overwritten by the assignment
    // below, so the fields are stored directly.
    fileName_ = fileName;
    pluginType_ = pluginType;
    pluginAccess_ = pluginAccess;
    pluginEnabled_ = pluginEnabled;
    itemSelection_ = 0;
    actualPath_ = pluginPath();
    setLockStatus();
    startInspectionThread();
}

KTPluginItem::KTPluginItem(const std::string& fileName, const std::optional<std::string>& subdir,
                           std::int64_t pluginType, std::int64_t pluginAccess,
                           long long pluginEnabled, const std::string& listedPath,
                           int listedFolder) {
    fileName_ = fileName;
    pluginType_ = pluginType;
    pluginAccess_ = pluginAccess;
    pluginEnabled_ = pluginEnabled;
    itemSelection_ = 0;
    // As the plain initialiser followed by setting the sub-folder: the whole
    // place where something exists there (where the scan has just seen the
    // plug-in, it does), else the place without the sub-folder.
    subdir_ = subdir;
    actualPath_ = pluginPath();
    if (subdir && !subdir->empty() && actualPath_ != listedPath &&
        !KTPluginLocations::fileExists(actualPath_)) {
        subdir_.reset();
        actualPath_ = pluginPath();
        subdir_ = subdir;
    }
    if (listedFolder >= 0 && actualPath_ == listedPath)
        setLockStatusAt(listedFolder, fileName_);
    else
        setLockStatus();
    startInspectionThread();
}

void KTPluginItem::startInspectionThread() {
    BundleInspector inspector;
    {
        std::lock_guard<std::mutex> lock(inspectorMutex());
        inspector = inspectorSlot();
    }
    if (inspector) {
        bundleProcessThread_ =
            std::jthread([this, inspector](std::stop_token stop) { inspector(*this, stop); });
    }
}

KTPluginItem::~KTPluginItem() {
    if (bundleProcessThread_.joinable()) {
        bundleProcessThread_.request_stop();
        bundleProcessThread_.join();
    }
}

void KTPluginItem::setBundleInspector(BundleInspector inspector) {
    std::lock_guard<std::mutex> lock(inspectorMutex());
    inspectorSlot() = std::move(inspector);
}

void KTPluginItem::waitForBundleInfo() {
    if (bundleProcessThread_.joinable() &&
        bundleProcessThread_.get_id() != std::this_thread::get_id())
        bundleProcessThread_.join();
}

std::string KTPluginItem::shortName() const {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    return shortName_;
}

void KTPluginItem::setShortName(const std::string& v) {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    shortName_ = v;
}

std::string KTPluginItem::version() const {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    return version_;
}

void KTPluginItem::setVersion(const std::string& v) {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    version_ = v;
}

std::vector<std::string> KTPluginItem::architectures() const {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    return architectures_;
}

void KTPluginItem::setArchitectures(const std::vector<std::string>& v) {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    architectures_ = v;
}

std::uint64_t KTPluginItem::renameCount() {
    return gRenames.load();
}

void KTPluginItem::setFileName(const std::string& v) {
    if (v != fileName_) ++gRenames;
    updateActualPath();
    fileName_ = v;
    updateActualPath();
}

void KTPluginItem::setSubdir(const std::optional<std::string>& v) {
    updateActualPath();
    subdir_ = v;
    updateActualPath();
}

void KTPluginItem::setPluginEnabled(long long v) {
    updateActualPath();
    pluginEnabled_ = v;
    updateActualPath();
}

void KTPluginItem::setPluginType(std::int64_t v) {
    updateActualPath();
    pluginType_ = v;
    updateActualPath();
}

void KTPluginItem::setPluginAccess(std::int64_t v) {
    updateActualPath();
    pluginAccess_ = v;
    updateActualPath();
}

void KTPluginItem::setItemSelection(long long v) {
    updateActualPath();
    itemSelection_ = v;
    updateActualPath();
}

void KTPluginItem::setParent(const std::shared_ptr<KTGroupItem>& parent) {
    updateActualPath();
    KTItem::setParent(parent);
    updateActualPath();
}

std::string KTPluginItem::pluginTypeDir() const {
    return KTPluginLocations::pluginTypeDir(pluginEnabled_);
}

std::string KTPluginItem::pluginBasePath() const {
    return KTPluginLocations::pluginBasePath(pluginType_, pluginAccess_);
}

std::string KTPluginItem::pluginRelativePath() const {
    return KTPluginLocations::pluginRelativePath(pluginType_, pluginAccess_, subdir_, fileName_);
}

std::string KTPluginItem::pluginPath() const {
    return KTPluginLocations::pluginPath(pluginType_, pluginAccess_, pluginEnabled_, subdir_,
                                         fileName_);
}

std::string KTPluginItem::pluginTypeName() const {
    return KTPluginLocations::pluginTypeName(pluginType_);
}

std::string KTPluginItem::actualPath() const {
    std::lock_guard<std::mutex> lock(detailsMutex_);
    return actualPath_;
}

void KTPluginItem::setActualPath(const std::string& v) {
    if (!endsWithComponent(v, fileName_)) ++gRenames;
    std::lock_guard<std::mutex> lock(detailsMutex_);
    actualPath_ = v;
}

void KTPluginItem::movedTo(long long enabled, const std::string& path) {
    pluginEnabled_ = enabled;
    setActualPath(path);
}

void KTPluginItem::updateActualPath() {
    std::string path = pluginPath();
    std::lock_guard<std::mutex> lock(detailsMutex_);
    // Equal paths need no look at the disk: either way the result is the same.
    if (path == actualPath_) return;
    if (!actualPath_.empty() && !KTPluginLocations::fileExists(path)) return;
    actualPath_ = std::move(path);
}

void KTPluginItem::setLockStatus() {
    setManaged(KTPluginLocations::fileExists(
        KTPluginLocations::appendPathComponent(actualPath(), kLockMarker)));
}

void KTPluginItem::setLockStatusAt(int folder, const std::string& name) {
    struct stat st {};
    setManaged(::fstatat(folder, (name + "/" + kLockMarker).c_str(), &st, 0) == 0);
}

void KTPluginItem::setManaged(bool managed) {
    if (managed) isLocked_ = true;
    isDeletable_ = !managed;
}

KTComparisonResult KTPluginItem::nameCompare(const KTItem& other) const {
    return caseInsensitiveCompare(shortName(), other.sortName());
}

KTComparisonResult KTPluginItem::versionCompare(const KTItem& other) const {
    if (other.isGroup()) return KTComparisonResult::Ascending;
    return caseInsensitiveCompare(version(), static_cast<const KTPluginItem&>(other).version());
}

KTComparisonResult KTPluginItem::statusCompare(const KTItem& other) const {
    if (other.isGroup()) return KTComparisonResult::Ascending;
    return compareNumbers(pluginEnabled_, static_cast<const KTPluginItem&>(other).pluginEnabled_);
}

KTComparisonResult KTPluginItem::typeCompare(const KTItem& other) const {
    return caseInsensitiveCompare(pluginTypeName(), other.sortTypeName());
}

std::shared_ptr<KTPluginItem> KTPluginItem::copy() const {
    auto item = std::make_shared<KTPluginItem>();
    {
        std::lock_guard<std::mutex> lock(detailsMutex_);
        item->shortName_ = shortName_;
        item->version_ = version_;
        item->architectures_ = architectures_;
    }
    item->fileName_ = fileName_;
    item->subdir_ = subdir_;
    item->pluginEnabled_ = pluginEnabled_;
    item->itemSelection_ = itemSelection_;
    item->pluginType_ = pluginType_;
    item->pluginAccess_ = pluginAccess_;
    return item;
}

bool KTPluginItem::isNumeric(const std::string& text) {
    return KTPluginLocations::isNumeric(text);
}

void KTPluginItem::populateBundleInfo(KTBundleInfo::Detail detail, int folder) {
    KTBundleInfo info = KTBundleInfo::read(actualPath(), detail, folder);
    if (!info.isBundle) return;
    if (info.name) setShortName(*info.name);
    if (info.version) setVersion(*info.version);
    if (!info.architectures.empty()) setArchitectures(info.architectures);
}
