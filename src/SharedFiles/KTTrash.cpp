#include "SharedFiles/KTTrash.h"

#include <mutex>

#include "SharedFiles/linux/KTFreedesktopTrash.h"

namespace {
std::mutex gTrashLock;
std::shared_ptr<KTTrash> gTrash;
}  // namespace

KTTrash& KTTrash::shared() {
    std::lock_guard<std::mutex> l(gTrashLock);
    if (!gTrash) gTrash = std::make_shared<KTFreedesktopTrash>();
    return *gTrash;
}

void KTTrash::setShared(std::shared_ptr<KTTrash> trash) {
    std::lock_guard<std::mutex> l(gTrashLock);
    gTrash = std::move(trash);
}
