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
    gCurrent->unlocked_.clear();
    gCurrent->settled_.clear();
    gCurrent->into_.clear();
    gCurrent->from_.clear();
}

bool KTMoveBatch::noteSettled(dev_t device, ino_t inode) {
    return settled_.insert({device, inode}).second;
}

bool KTMoveBatch::isKnownUnlocked(dev_t device, ino_t inode) const {
    return unlocked_.count({device, inode}) != 0;
}

void KTMoveBatch::noteUnlocked(dev_t device, ino_t inode) {
    unlocked_.insert({device, inode});
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
