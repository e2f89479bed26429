#include "SharedFiles/KTWorkspace.h"

#include <mutex>
#include <vector>

#include "SharedFiles/linux/KTLinuxWorkspace.h"

namespace {

std::mutex& sharedMutex() {
    static std::mutex m;
    return m;
}

std::shared_ptr<KTWorkspace>& sharedSlot() {
    static std::shared_ptr<KTWorkspace> slot;
    return slot;
}

}  // namespace

KTWorkspace& KTWorkspace::shared() {
    std::lock_guard<std::mutex> lock(sharedMutex());
    auto& slot = sharedSlot();
    if (!slot) slot = std::make_shared<KTLinuxWorkspace>();
    return *slot;
}

void KTWorkspace::setShared(std::shared_ptr<KTWorkspace> workspace) {
    std::lock_guard<std::mutex> lock(sharedMutex());
    // References handed out by shared() stay valid: a replaced workspace is
    // kept, not freed (only tests replace it, a handful of times).
    static std::vector<std::shared_ptr<KTWorkspace>> retired;
    if (sharedSlot()) retired.push_back(sharedSlot());
    sharedSlot() = std::move(workspace);
}
