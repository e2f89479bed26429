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

int KTWorkspace::addNoticeObserver(NoticeObserver observer) {
    std::lock_guard<std::recursive_mutex> lock(observersMutex_);
    const int token = nextObserverToken_++;
    observers_.emplace(token, std::move(observer));
    return token;
}

void KTWorkspace::removeNoticeObserver(int token) {
    std::lock_guard<std::recursive_mutex> lock(observersMutex_);
    observers_.erase(token);
}

void KTWorkspace::postNotice(const KTWorkspaceNotice& notice) {
    std::lock_guard<std::recursive_mutex> lock(observersMutex_);
    // A copy: an observer may remove itself (or another) while it runs.
    const auto observers = observers_;
    for (const auto& [token, observer] : observers) {
        if (observers_.count(token)) observer(notice);
    }
}
