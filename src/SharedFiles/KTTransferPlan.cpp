#include "SharedFiles/KTTransferPlan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "SharedFiles/KTFormat.h"

namespace {

std::atomic<KTTransferPlan*> gActive{nullptr};

std::string parentOf(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string normal(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool onDisk(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::lstat(path.c_str(), &st) == 0;
}

bool isFolder(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

KTTransferPlan::KTTransferPlan() {
    gActive = this;
}

KTTransferPlan::~KTTransferPlan() {
    KTTransferPlan* self = this;
    gActive.compare_exchange_strong(self, nullptr);
}

KTTransferPlan* KTTransferPlan::active() {
    return gActive.load();
}

int KTTransferPlan::plannedState(const std::string& path) const {
    // The nearest planned change on the way up decides: a folder moved away
    // takes its contents with it.
    for (std::string p = normal(path);; p = parentOf(p)) {
        if (absent_.count(p)) return 0;
        if (present_.count(p)) return p == normal(path) ? 1 : -1;
        if (p == "/" || p == ".") return -1;
    }
}

bool KTTransferPlan::exists(const std::string& path) const {
    if (path.empty()) return false;
    std::lock_guard<std::mutex> l(lock_);
    const int state = plannedState(path);
    return state < 0 ? onDisk(path) : state == 1;
}

bool KTTransferPlan::existsNow(const std::string& path) {
    if (KTTransferPlan* plan = active()) return plan->exists(path);
    return onDisk(path);
}

std::string KTTransferPlan::nearestExisting(const std::string& path) const {
    std::string p = normal(path);
    while (p != "/" && p != "." && !onDisk(p)) p = parentOf(p);
    return p;
}

bool KTTransferPlan::canWriteInto(const std::string& folder) const {
    std::string real;
    {
        std::lock_guard<std::mutex> l(lock_);
        // A folder the plan makes is the user's own once made.
        real = plannedState(folder) == 1 && !onDisk(folder) ? nearestExisting(folder) : folder;
    }
    return ::access(real.c_str(), W_OK | X_OK) == 0;
}

bool KTTransferPlan::move(const std::string& from, const std::string& to, bool withRights,
                          std::string* error) {
    auto fail = [&](const std::string& text) {
        if (error) *error = text;
        return false;
    };
    if (!exists(from)) return fail(KTFormat::str("%@ does not exist", from));
    if (exists(to)) return fail(KTFormat::str("%@ already exists", to));
    if (!withRights) {
        // What rename(2) asks of the user: both folders writable, and a
        // folder that changes parent writable itself (its ".." changes).
        const std::string source = parentOf(from), destination = parentOf(to);
        bool allowed = canWriteInto(source) && canWriteInto(destination);
        if (allowed && source != destination && isFolder(from))
            allowed = ::access(from.c_str(), W_OK) == 0;
        if (!allowed) return fail(KTFormat::str("Unable to move %@ - Permission denied", from));
    }
    std::lock_guard<std::mutex> l(lock_);
    entries_.push_back({Kind::Move, from, to, withRights});
    present_.erase(normal(from));
    absent_.insert(normal(from));
    absent_.erase(normal(to));
    present_.insert(normal(to));
    return true;
}

bool KTTransferPlan::copy(const std::string& source, const std::string& to, bool withRights,
                          std::string* error) {
    auto fail = [&](const std::string& text) {
        if (error) *error = text;
        return false;
    };
    if (!exists(source)) return fail(KTFormat::str("%@ does not exist", source));
    struct stat st {};
    if (onDisk(source) && ::stat(source.c_str(), &st) != 0)
        return fail(KTFormat::str("%@ is a link to nothing", source));
    if (exists(to)) return fail(KTFormat::str("%@ already exists", to));
    if (!withRights && !canWriteInto(parentOf(to)))
        return fail(KTFormat::str("Unable to copy %@ - Permission denied", source));
    std::lock_guard<std::mutex> l(lock_);
    entries_.push_back({Kind::Copy, source, to, withRights});
    absent_.erase(normal(to));
    present_.insert(normal(to));
    return true;
}

bool KTTransferPlan::makeFolder(const std::string& folder) {
    if (exists(folder)) return true;
    {
        std::lock_guard<std::mutex> l(lock_);
        if (::access(nearestExisting(folder).c_str(), W_OK | X_OK) != 0) return false;
    }
    // Every missing folder on the way is made too.
    std::lock_guard<std::mutex> l(lock_);
    for (std::string p = normal(folder); p != "/" && p != "." && !onDisk(p); p = parentOf(p)) {
        absent_.erase(p);
        present_.insert(p);
    }
    return true;
}

void KTTransferPlan::skip(const std::string& path, const std::string& reason) {
    std::lock_guard<std::mutex> l(lock_);
    entries_.push_back({Kind::Skip, path, reason, false});
}

void KTTransferPlan::noteSkip(const std::string& path, const std::string& reason) {
    if (KTTransferPlan* plan = active()) plan->skip(path, reason);
}

std::vector<KTTransferPlan::Entry> KTTransferPlan::entries() const {
    std::lock_guard<std::mutex> l(lock_);
    return entries_;
}

std::string KTTransferPlan::describe() const {
    std::string out;
    for (const Entry& e : entries()) {
        switch (e.kind) {
            case Kind::Move:
            case Kind::Copy:
                out += (e.kind == Kind::Move ? "would move: " : "would copy: ") + e.from + " -> " +
                       e.to + (e.withRights ? " (administrator rights)" : "") + "\n";
                break;
            case Kind::Skip:
                out += "would skip: " + e.from + " - " + e.to + "\n";
                break;
        }
    }
    return out;
}
