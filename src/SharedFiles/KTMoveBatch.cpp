#include "SharedFiles/KTMoveBatch.h"

namespace {
thread_local KTMoveBatch* gCurrent = nullptr;
}  // namespace

KTMoveBatch::KTMoveBatch() {
    if (!gCurrent) {
        gCurrent = this;
        owner_ = true;
    }
}

KTMoveBatch::~KTMoveBatch() {
    if (owner_) gCurrent = nullptr;
}

KTMoveBatch* KTMoveBatch::current() {
    return gCurrent;
}

void KTMoveBatch::forgetCurrent() {
    if (!gCurrent) return;
    gCurrent->settled_.clear();
    gCurrent->into_.clear();
    gCurrent->from_.clear();
    gCurrent->ancestors_.clear();
    gCurrent->readOnly_.clear();
}

void KTMoveBatch::folderMadeInCurrent() {
    if (!gCurrent) return;
    gCurrent->into_.clear();
    gCurrent->from_.clear();
}

bool KTMoveBatch::noteSettled(dev_t device, ino_t inode) {
    return settled_.insert({device, inode}).second;
}

const KTFileLook* KTMoveBatch::unlockedAncestor(const std::string& path) const {
    auto it = ancestors_.find(path);
    return it == ancestors_.end() ? nullptr : &it->second;
}

void KTMoveBatch::noteUnlockedAncestor(const std::string& path, const KTFileLook& look) {
    ancestors_[path] = look;
}

void KTMoveBatch::forgetFolder(const std::string& path) {
    ancestors_.erase(path);
}

std::optional<bool> KTMoveBatch::readOnlyDevice(dev_t device) const {
    auto it = readOnly_.find(device);
    if (it == readOnly_.end()) return std::nullopt;
    return it->second;
}

void KTMoveBatch::noteReadOnlyDevice(dev_t device, bool readOnly) {
    readOnly_[device] = readOnly;
}

std::optional<bool> KTMoveBatch::movableInto(dev_t device, ino_t inode) const {
    auto it = into_.find({device, inode});
    if (it == into_.end()) return std::nullopt;
    return it->second;
}

void KTMoveBatch::noteMovableInto(dev_t device, ino_t inode, bool movable) {
    into_[{device, inode}] = movable;
}

std::optional<bool> KTMoveBatch::movableFrom(dev_t device, ino_t inode) const {
    auto it = from_.find({device, inode});
    if (it == from_.end()) return std::nullopt;
    return it->second;
}

void KTMoveBatch::noteMovableFrom(dev_t device, ino_t inode, bool movable) {
    from_[{device, inode}] = movable;
}
