#include "SharedFiles/KTTransfer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMoveBatch.h"
#include "SharedFiles/KTTransferPlan.h"

namespace fs = std::filesystem;

namespace {

std::mutex gSharedLock;
std::shared_ptr<KTTransfer> gShared;
std::atomic<unsigned> gCounter{0};

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

bool exists(const std::string& path) {
    return KTFileTree::existsNoFollow(path);
}

std::string parentOf(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const auto slash = p.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : p.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const auto slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string join(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

std::string hex(const std::string& bytes) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::optional<std::string> unhex(const std::string& text) {
    if (text.size() % 2) return std::nullopt;
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        auto nibble = [](char c) -> int {
            if (c >= '0' && c <= '9') return c - '0';
            if (c >= 'a' && c <= 'f') return c - 'a' + 10;
            return -1;
        };
        const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out += char(hi * 16 + lo);
    }
    if (out.empty() || out.find('/') != std::string::npos || out == "." || out == "..")
        return std::nullopt;
    return out;
}

/// A work name taken apart: ".ambrel-work.<pid>.<n>[.<hex name>].<kind>".
struct WorkName {
    std::string token;  // ".ambrel-work.<pid>.<n>"
    pid_t pid = 0;
    std::string kind;    // "copy", "orig", "note"
    std::string middle;  // the original's name in hex, for "orig"
};

std::optional<WorkName> parseWorkName(const std::string& name) {
    const std::string prefix = KTTransfer::kWorkPrefix;
    if (name.rfind(prefix, 0) != 0) return std::nullopt;
    std::vector<std::string> parts;
    std::stringstream rest(name.substr(prefix.size()));
    for (std::string part; std::getline(rest, part, '.');) parts.push_back(part);
    if (parts.size() < 3) return std::nullopt;
    WorkName w;
    char* end = nullptr;
    const long pid = std::strtol(parts[0].c_str(), &end, 10);
    if (!end || *end || pid <= 0) return std::nullopt;
    w.pid = pid_t(pid);
    w.token = prefix + parts[0] + "." + parts[1];
    w.kind = parts.back();
    if (parts.size() == 4) w.middle = parts[2];
    return w;
}

/// A process that still runs may be in the middle of its transfer.
bool processRuns(pid_t pid) {
    if (pid == ::getpid()) return true;
    return ::kill(pid, 0) == 0 || errno == EPERM;
}

bool writeNote(const std::string& path, const std::string& from, const std::string& to,
               const std::string& reservation) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const std::string text = from + "\n" + to + "\n" + reservation + "\n";
    bool ok = ::write(fd, text.data(), text.size()) == ssize_t(text.size());
    ok = ::fsync(fd) == 0 && ok;
    ok = ::close(fd) == 0 && ok;
    if (!ok) ::unlink(path.c_str());
    return ok;
}

struct Note {
    std::string from, to, reservation;
};

std::optional<Note> readNote(const std::string& path) {
    std::ifstream in(path);
    Note n;
    if (!in || !std::getline(in, n.from) || !std::getline(in, n.to)) return std::nullopt;
    std::getline(in, n.reservation);
    if (n.from.empty() || n.to.empty() || n.from[0] != '/' || n.to[0] != '/') return std::nullopt;
    return n;
}

bool removeQuietly(const std::string& path) {
    std::string ignored;
    return !exists(path) || KTFileTree::removeTree(path, &ignored);
}

std::string reason(int err) {
    return std::strerror(err);
}

/// The device and mount of a path (of its target when it is a folder).
std::optional<std::pair<dev_t, std::uint64_t>> placeOf(const std::string& path, bool follow) {
    struct statx sx {};
    const int flags = AT_STATX_SYNC_AS_STAT | (follow ? 0 : AT_SYMLINK_NOFOLLOW);
    if (::statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_MNT_ID, &sx) != 0)
        return std::nullopt;
    const dev_t dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    const std::uint64_t mount = (sx.stx_mask & STATX_MNT_ID) ? sx.stx_mnt_id : 0;
    return std::make_pair(dev, mount);
}

/// The privileged tools, waited for; 0 when the tool ran.
std::int32_t privileged(const char* tool, const std::vector<std::string>& arguments) {
    return KTAuthorization::sharedController()->authExecTask(tool, arguments, false);
}

/// A first privileged step that did not run: no right (the user refused or
/// nobody could be asked), or a tool the helper would not run.
KTTransfer::Outcome notRun(std::int32_t status, const std::string& tool, std::string* error) {
    if (status == -1) {
        setError(error, "User cancelled authorization.");
        return KTTransfer::Outcome::Refused;
    }
    setError(error, KTFormat::str("The administrator tool %@ did not run (status %i)", tool,
                                  static_cast<int>(status)));
    return KTTransfer::Outcome::Failed;
}

}  // namespace

KTTransfer& KTTransfer::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTTransfer>();
    return *gShared;
}

void KTTransfer::setShared(std::shared_ptr<KTTransfer> transfer) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(transfer);
}

bool KTTransfer::isWorkName(const std::string& name) {
    return name.rfind(kWorkPrefix, 0) == 0;
}

bool KTTransfer::sameFileSystem(const std::string& from, const std::string& toFolder) {
    // A bind mount shares the device but still refuses a rename across it.
    auto a = placeOf(from, false), b = placeOf(toFolder, true);
    return a && b && *a == *b;
}

bool KTTransfer::copyTree(const std::string& from, const std::string& to, std::string* error) {
    return KTFileTree::copyTree(from, to, error);
}

KTTransfer::Names KTTransfer::workNames(const std::string& from, const std::string& to) {
    const std::string token =
        std::string(kWorkPrefix) + std::to_string(::getpid()) + "." + std::to_string(++gCounter);
    const std::string name = hex(nameOf(from));
    Names n;
    n.copy = join(parentOf(to), token + ".copy");
    // The original's name travels in its work name, so that it can be put
    // back even where no note could be written.
    n.aside =
        join(parentOf(from), name.size() <= 200 ? token + "." + name + ".orig" : token + ".orig");
    n.noteAtSource = join(parentOf(from), token + ".note");
    n.noteAtDestination = join(parentOf(to), token + ".note");
    return n;
}

bool KTTransfer::moveItem(const std::string& from, const std::string& to, std::string* error,
                          const std::string& reservation, const Seen* seen) {
    if (KTTransferPlan* plan = KTTransferPlan::active()) return plan->move(from, to, false, error);
    // A caller that has just looked is not asked again: the rename itself
    // refuses a missing source and never replaces a destination.
    if (!seen && !exists(from)) {
        setError(error, KTFormat::str("%@ does not exist", from));
        return false;
    }
    if (seen) {
        const std::pair<dev_t, ino_t> a{seen->fromDevice, seen->fromInode},
            b{seen->toDevice, seen->toInode};
        recoverFolderOnce(parentOf(from), &a);
        recoverFolderOnce(parentOf(to), &b);
    } else {
        recoverFolder(parentOf(from));
        recoverFolder(parentOf(to));
        if (exists(to)) {
            setError(error, KTFormat::str("%@ already exists", to));
            return false;
        }
    }
    const int err = KTFileTree::renameNoReplace(from, to);
    if (err == 0) return true;
    if ((err == ENOENT || err == EXDEV) && !exists(from)) {
        setError(error, KTFormat::str("%@ does not exist", from));
        return false;
    }
    if (err == EXDEV) return moveAcross(from, to, error, reservation);
    setError(error, err == EEXIST ? KTFormat::str("%@ already exists", to)
                                  : KTFormat::str("Unable to move %@ - %@", from, reason(err)));
    return false;
}

bool KTTransfer::moveAcross(const std::string& from, const std::string& to, std::string* error,
                            const std::string& reservation) {
    std::string why;
    // An original that could not be taken away afterwards must not be
    // copied at all: that would make two.
    if (!KTFileTree::canRemoveTree(from, &why)) {
        setError(error, KTFormat::str("Unable to move %@ - %@", from, why));
        return false;
    }
    if (::access(parentOf(from).c_str(), W_OK | X_OK) != 0) {
        setError(error, KTFormat::str("Unable to move %@ - %@", from, reason(errno)));
        return false;
    }
    const Names n = workNames(from, to);
    if (!writeNote(n.noteAtSource, from, to, reservation) ||
        !writeNote(n.noteAtDestination, from, to, reservation)) {
        const int e = errno;
        ::unlink(n.noteAtSource.c_str());
        setError(error, KTFormat::str("Unable to move %@ - %@", from, reason(e)));
        return false;
    }
    auto dropNotes = [&] {
        ::unlink(n.noteAtSource.c_str());
        ::unlink(n.noteAtDestination.c_str());
    };
    auto abandon = [&](const std::string& text) {
        removeQuietly(n.copy);
        dropNotes();
        setError(error, text);
        return false;
    };

    if (!copyTree(from, n.copy, &why))
        return abandon(KTFormat::str("Unable to copy %@ - %@", from, why));
    step("copied");
    if (!KTFileTree::sameTree(from, n.copy))
        return abandon(KTFormat::str("The copy of %@ differs from the original", from));
    if (const int err = KTFileTree::renameNoReplace(n.copy, to))
        return abandon(err == EEXIST ? KTFormat::str("%@ already exists", to)
                                     : KTFormat::str("Unable to move %@ - %@", from, reason(err)));
    step("placed");

    // The original leaves its real name in one step; if that is refused the
    // placed copy goes back under its work name and away.
    if (::rename(from.c_str(), n.aside.c_str()) != 0) {
        const int err = errno;
        if (const int back = KTFileTree::renameNoReplace(to, n.copy); back == 0) {
            removeQuietly(n.copy);
        } else {
            KTLog::appendLog("Unable to take back the copy %@ - %@", to, reason(back));
        }
        dropNotes();
        setError(error, KTFormat::str("Unable to remove %@ - %@", from, reason(err)));
        return false;
    }
    step("aside");
    if (!KTFileTree::removeTree(n.aside, &why)) {
        // The plug-in is whole at its new place; the notes stay so that a
        // later run finishes the removal.
        KTLog::appendLog("Unable to remove %@ - %@", n.aside, why);
        return true;
    }
    dropNotes();
    return true;
}

bool KTTransfer::copyItem(const std::string& sourcePath, const std::string& to,
                          std::string* error) {
    if (KTTransferPlan* plan = KTTransferPlan::active())
        return plan->copy(sourcePath, to, false, error);
    std::string source = sourcePath;
    struct stat st {};
    if (::lstat(source.c_str(), &st) != 0) {
        setError(error, KTFormat::str("%@ does not exist", source));
        return false;
    }
    if (S_ISLNK(st.st_mode)) {
        // A link would arrive dangling or pointing back out of the plug-in
        // folder; what it names is the plug-in.
        std::error_code ec;
        const fs::path target = fs::canonical(source, ec);
        if (ec) {
            setError(error, KTFormat::str("%@ is a link to nothing - %@", source, ec.message()));
            return false;
        }
        source = target.string();
    }
    recoverFolder(parentOf(to));
    if (exists(to)) {
        setError(error, KTFormat::str("%@ already exists", to));
        return false;
    }
    const Names n = workNames(source, to);
    auto abandon = [&](const std::string& text) {
        removeQuietly(n.copy);
        setError(error, text);
        return false;
    };
    std::string why;
    if (!copyTree(source, n.copy, &why)) return abandon(KTFormat::str("%@", why));
    step("copied");
    if (!KTFileTree::sameTree(source, n.copy))
        return abandon(KTFormat::str("The copy of %@ differs from the original", source));
    if (const int err = KTFileTree::renameNoReplace(n.copy, to))
        return abandon(err == EEXIST ? KTFormat::str("%@ already exists", to) : reason(err));
    return true;
}

KTTransfer::Outcome KTTransfer::authMoveItem(const std::string& from, const std::string& to,
                                             std::string* error) {
    if (KTTransferPlan* plan = KTTransferPlan::active())
        return plan->move(from, to, true, error) ? Outcome::Done : Outcome::Failed;
    if (!exists(from)) {
        setError(error, KTFormat::str("%@ does not exist", from));
        return Outcome::Failed;
    }
    if (exists(to)) {
        setError(error, KTFormat::str("%@ already exists", to));
        return Outcome::Failed;
    }
    if (!sameFileSystem(from, parentOf(to))) return authMoveAcross(from, to, error);

    // One rename through the tool; "-n" keeps it from replacing anything.
    if (const auto status = privileged("/bin/mv", {"-n", "-T", from, to}))
        return notRun(status, "/bin/mv", error);
    const bool sourceGone = !exists(from), arrived = exists(to);
    if (sourceGone && arrived) return Outcome::Done;
    if (!sourceGone && arrived && KTFileTree::sameTree(from, to)) {
        // The tool copied instead of renaming: its copy is the extra one.
        const Names n = workNames(from, to);
        if (privileged("/bin/mv", {"-n", "-T", to, n.copy}) == 0 && !exists(to))
            privileged("/bin/rm", {"-Rf", n.copy});
    }
    setError(error, sourceGone ? KTFormat::str("%@ went away during the move", from)
                               : KTFormat::str("%@ could not be moved to %@", from, to));
    return Outcome::Failed;
}

KTTransfer::Outcome KTTransfer::authMoveAcross(const std::string& from, const std::string& to,
                                               std::string* error) {
    const Names n = workNames(from, to);
    // Notes only where this user may write; without them a later run still
    // puts an original back, by the name its work name carries.
    const bool notes =
        writeNote(n.noteAtSource, from, to, {}) | writeNote(n.noteAtDestination, from, to, {});
    auto dropNotes = [&] {
        if (!notes) return;
        ::unlink(n.noteAtSource.c_str());
        ::unlink(n.noteAtDestination.c_str());
    };
    auto fail = [&](const std::string& text) {
        if (exists(n.copy)) privileged("/bin/rm", {"-Rf", n.copy});
        dropNotes();
        setError(error, text);
        return Outcome::Failed;
    };
    if (const auto status = privileged("/bin/cp", {"-a", "-T", from, n.copy})) {
        dropNotes();
        return notRun(status, "/bin/cp", error);
    }
    step("copied");
    if (!KTFileTree::sameTree(from, n.copy))
        return fail(KTFormat::str("The copy of %@ differs from the original", from));
    privileged("/bin/mv", {"-n", "-T", n.copy, to});
    if (exists(n.copy) || !exists(to))
        return fail(KTFormat::str("Unable to move the copy of %@ into place at %@", from, to));
    step("placed");
    privileged("/bin/mv", {"-n", "-T", from, n.aside});
    if (exists(from) || !exists(n.aside)) {
        // A read-only volume keeps its original: the copy is the extra one.
        privileged("/bin/mv", {"-n", "-T", to, n.copy});
        if (exists(to)) KTLog::appendLog("Unable to take back the copy %@", to);
        return fail(KTFormat::str("Unable to remove %@ from its place", from));
    }
    step("aside");
    privileged("/bin/rm", {"-Rf", n.aside});
    if (exists(n.aside)) {
        KTLog::appendLog("Unable to remove %@", n.aside);
        return Outcome::Done;
    }
    dropNotes();
    return Outcome::Done;
}

KTTransfer::Outcome KTTransfer::authCopyItem(const std::string& sourcePath, const std::string& to,
                                             std::string* error) {
    if (KTTransferPlan* plan = KTTransferPlan::active())
        return plan->copy(sourcePath, to, true, error) ? Outcome::Done : Outcome::Failed;
    std::string source = sourcePath;
    std::error_code ec;
    if (fs::is_symlink(fs::symlink_status(source, ec))) {
        const fs::path target = fs::canonical(source, ec);
        if (ec) {
            setError(error, KTFormat::str("%@ is a link to nothing - %@", source, ec.message()));
            return Outcome::Failed;
        }
        source = target.string();
    }
    if (!exists(source)) {
        setError(error, KTFormat::str("%@ does not exist", source));
        return Outcome::Failed;
    }
    if (exists(to)) {
        setError(error, KTFormat::str("%@ already exists", to));
        return Outcome::Failed;
    }
    const Names n = workNames(source, to);
    if (const auto status = privileged("/bin/cp", {"-a", "-T", source, n.copy}))
        return notRun(status, "/bin/cp", error);
    auto fail = [&](const std::string& text) {
        if (exists(n.copy)) privileged("/bin/rm", {"-Rf", n.copy});
        setError(error, text);
        return Outcome::Failed;
    };
    if (!KTFileTree::sameTree(source, n.copy))
        return fail(KTFormat::str("The copy of %@ differs from the original", source));
    privileged("/bin/mv", {"-n", "-T", n.copy, to});
    if (exists(n.copy) || !exists(to))
        return fail(KTFormat::str("Unable to move the copy of %@ into place at %@", source, to));
    return Outcome::Done;
}

void KTTransfer::recoverFolder(const std::string& folder, bool again) {
    if (again) {
        if (KTTransferPlan::active()) return;
        std::map<std::string, pid_t> tokens;
        for (const auto& name : KTFileTree::entriesStartingWith(folder, kWorkPrefix)) {
            if (auto w = parseWorkName(name)) tokens.emplace(w->token, w->pid);
        }
        for (const auto& [token, pid] : tokens) {
            if (!processRuns(pid)) recoverEntry(folder, token);
        }
        return;
    }
    recoverFolderOnce(folder, nullptr);
}

void KTTransfer::recoverFolderOnce(const std::string& folder,
                                   const std::pair<dev_t, ino_t>* known) {
    if (KTTransferPlan::active()) return;  // a dry run leaves even leftovers as they are
    // A batch settles each folder it touches once, before its first move
    // there, and again after a failed move (the batch then forgets); without
    // one, once per process. Listing a folder of thousands of plug-ins before
    // each of its moves would make a batch quadratic.
    KTMoveBatch* batch = KTMoveBatch::current();
    struct stat st {};
    if (batch && known) {
        if (!batch->noteSettled(known->first, known->second)) return;
    } else if (batch && ::stat(folder.c_str(), &st) == 0) {
        if (!batch->noteSettled(st.st_dev, st.st_ino)) return;
    } else {
        std::lock_guard<std::mutex> l(lock_);
        if (!recovered_.insert(folder).second) return;
    }
    recoverFolder(folder, true);
}

void KTTransfer::recoverEntry(const std::string& folder, const std::string& token) {
    std::string copy, aside, note, asideName;
    for (const auto& name : KTFileTree::entriesStartingWith(folder, kWorkPrefix)) {
        auto w = parseWorkName(name);
        if (!w || w->token != token) continue;
        const std::string path = join(folder, name);
        if (w->kind == "copy") copy = path;
        if (w->kind == "note") note = path;
        // An original the helper set aside after its copy was in place.
        if (w->kind == "gone") {
            std::string why;
            if (KTFileTree::removeTree(path, &why))
                KTLog::appendLog("Removed %@, the original of a move that had finished", path);
            else
                KTLog::appendLog("Unable to remove %@ - %@", path, why);
        }
        if (w->kind == "orig") {
            aside = path;
            if (auto n = unhex(w->middle)) asideName = *n;
        }
    }
    const std::optional<Note> plan = note.empty() ? std::nullopt : readNote(note);
    std::string why;

    if (!copy.empty()) {
        // Never placed: the original is still under its own name.
        if (KTFileTree::removeTree(copy, &why)) {
            KTLog::appendLog("Removed %@, the unfinished copy of an interrupted transfer", copy);
        } else {
            KTLog::appendLog("Unable to remove %@ - %@", copy, why);
            return;
        }
        if (plan && !plan->reservation.empty() && !exists(plan->to))
            ::unlink(plan->reservation.c_str());
    }
    if (!aside.empty()) {
        const std::string original =
            plan ? plan->from : (asideName.empty() ? std::string() : join(folder, asideName));
        if (plan && exists(plan->to)) {
            if (!KTFileTree::removeTree(aside, &why)) {
                KTLog::appendLog("Unable to remove %@ - %@", aside, why);
                return;
            }
            KTLog::appendLog("Removed %@, the original of %@ left by an interrupted transfer",
                             aside, plan->to);
        } else if (!original.empty() && KTFileTree::renameNoReplace(aside, original) == 0) {
            KTLog::appendLog("Put %@ back from an interrupted transfer", original);
        } else {
            KTLog::appendLog("Kept %@: its original place is taken or unknown", aside);
            return;
        }
    }
    if (copy.empty() && aside.empty() && plan) {
        if (exists(plan->from) && exists(plan->to) && KTFileTree::sameTree(plan->from, plan->to)) {
            // Placed but not yet taken from its old place: finish the move.
            const Names n = workNames(plan->from, plan->to);
            if (::rename(plan->from.c_str(), n.aside.c_str()) == 0 &&
                KTFileTree::removeTree(n.aside, &why)) {
                KTLog::appendLog("Finished the interrupted move of %@ to %@", plan->from, plan->to);
            } else {
                KTLog::appendLog("Unable to finish the interrupted move of %@ to %@", plan->from,
                                 plan->to);
                return;
            }
        } else if (exists(plan->from) && !exists(plan->to) && !plan->reservation.empty()) {
            ::unlink(plan->reservation.c_str());
        }
    }
    // Each folder drops only its own note: the other folder may still hold
    // an original that needs its note to be settled.
    if (!note.empty()) {
        ::unlink(note.c_str());
        if (copy.empty() && aside.empty())
            KTLog::appendLog("Removed %@, the note of an interrupted transfer", note);
    }
}
