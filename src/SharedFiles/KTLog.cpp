#include "SharedFiles/KTLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPlist.h"

namespace fs = std::filesystem;

#ifndef AMBREL_VERSION
#define AMBREL_VERSION "unknown"  // a build of a few files alone (the fuzzers)
#endif

namespace {

std::mutex gClassLock;   // creation of the singleton
std::mutex gFinishLock;  // finishWriting from outside the writer
KTLog* gShared = nullptr;
std::atomic<std::uint64_t> gRestartThreshold{5000000};
std::atomic<int> gSuperuserOverride{-1};  // -1: ask the system
/// How long the writer lets lines gather after the first, and how many it
/// takes before writing anyway: short enough that a line written now and read
/// by a person a moment later is there, long enough that a batch logging a
/// line every few tens of microseconds writes a few hundred at a time.
constexpr auto kGatherTime = std::chrono::milliseconds(4);
constexpr std::size_t kGatherLines = 2048;

void printOut(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

std::string trimmed(std::string_view s) {
    const char* ws = " \t\n\r\f\v";
    std::size_t b = s.find_first_not_of(ws);
    if (b == std::string_view::npos) return {};
    std::size_t e = s.find_last_not_of(ws);
    return std::string(s.substr(b, e - b + 1));
}

std::uint64_t characterCount(const std::string& s) {
    std::uint64_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

void replaceAll(std::string& s, std::string_view from, std::string_view to) {
    if (from.empty()) return;
    std::size_t pos = 0;
    while ((pos = s.find(from, pos)) != std::string::npos) {
        s.replace(pos, from.size(), to);
        pos += to.size();
    }
}

std::string executablePath() {
    std::error_code ec;
    auto p = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : p.string();
}

/// Standard error without the C library's buffers: usable when nothing else is.
void printError(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

void terminateHandler() {
    static std::atomic<bool> entered{false};
    if (entered.exchange(true)) std::abort();  // a second failure while reporting the first
    std::string reason = "unknown reason";
    if (auto e = std::current_exception()) {
        try {
            std::rethrow_exception(e);
        } catch (const std::exception& ex) {
            reason = ex.what();
        } catch (...) {
            reason = "a non-standard exception";
        }
    }
    // Standard error first: the log itself may be what failed (no thread
    // for its writer, no memory, no folder).
    printError("Terminating: " + reason + "\n");
    try {
        // The reason must be on disk before the process goes.
        KTLog::appendLogAndPrint("%@", reason);
        KTLog::finishWriting();
    } catch (...) {
    }
    std::abort();
}

}  // namespace

KTLog::KTLog() {
    writer_ = std::thread([this] { writerLoop(); });
    writerId_ = writer_.get_id();
}

KTLog::~KTLog() {
    willTerminate();
    {
        std::lock_guard<std::mutex> l(queueLock_);
        stopping_ = true;
    }
    queueChanged_.notify_all();
    if (writer_.joinable()) writer_.join();
}

KTLog* KTLog::sharedController() {
    std::lock_guard<std::mutex> l(gClassLock);
    if (!gShared) {
        // Kept for the life of the process: writers on other threads may
        // still log while static destructors run.
        gShared = new KTLog();
        installTerminateHandler();
        std::atexit([] { KTLog::willTerminate(); });
    }
    return gShared;
}

void KTLog::installTerminateHandler() {
    std::set_terminate(terminateHandler);
}

std::string KTLog::resolvedAppName() const {
    std::lock_guard<std::mutex> l(stateLock_);
    if (!appName_.empty()) return appName_;
    std::string exe = fs::path(executablePath()).stem().string();
    return exe;
}

std::string KTLog::appName() const {
    return resolvedAppName();
}

void KTLog::setAppName(const std::string& name) {
    std::lock_guard<std::mutex> l(stateLock_);
    appName_ = name;
}

std::string KTLog::logFolder() {
    return KTLocalPaths::libraryDirectory(true) + "/Logs/Quellbrook";
}

std::string KTLog::currentLogPath() {
    std::string name = sharedController()->resolvedAppName();
    // The superuser's current file lives in the machine's Library; the
    // rotation still happens in the user's folder.
    std::string folder =
        isSuperuser() ? KTLocalPaths::libraryDirectory(false) + "/Logs/Quellbrook" : logFolder();
    return folder + "/" + name + ".1.log";
}

void KTLog::closeFile() {
    std::lock_guard<std::mutex> l(stateLock_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

namespace {
std::atomic<bool> gAppendToCurrentLog{false};
}  // namespace

void KTLog::setAppendToCurrentLog(bool append) {
    gAppendToCurrentLog = append;
}

void KTLog::createNewLog(const std::optional<std::string>& name, bool noPrinting) {
    KTLog* log = sharedController();
    log->noPrinting_ = noPrinting;
    if (log->loggingDisabled_) return;
    log->closeFile();

    std::string globalPrefs = KTLocalPaths::prefsDirectory(true) + "/com.quellbrook.global.plist";
    // A refused file is logged once the new file has its header.
    std::string refused;
    if (KTPlistPtr prefs = KTPlist::readFile(globalPrefs, &refused)) {
        // The string "1" or a number equal to true; any other value keeps logging on.
        bool disable = false;
        plist_t v = plist_get_node_type(prefs.get()) == PLIST_DICT
                        ? plist_dict_get_item(prefs.get(), "disable-logging")
                        : nullptr;
        if (v) {
            switch (plist_get_node_type(v)) {
                case PLIST_STRING:
                    disable = KTPlist::stringForKey(prefs.get(), "disable-logging") == "1";
                    break;
                case PLIST_BOOLEAN:
                case PLIST_UINT:
                    disable = KTPlist::integerForKey(prefs.get(), "disable-logging") == 1;
                    break;
                case PLIST_REAL: {
                    double d = 0;
                    plist_get_real_val(v, &d);
                    disable = d == 1.0;
                    break;
                }
                default:
                    break;
            }
        }
        if (disable) {
            if (!noPrinting) printOut("Logging is disabled\n");
            log->loggingDisabled_ = true;
            return;
        }
    }

    {
        std::lock_guard<std::mutex> l(log->stateLock_);
        if (name && log->appName_.empty()) log->appName_ = *name;
        log->bytesWritten_ = 0;
    }
    if (log->resolvedAppName().empty()) log->setAppName("Unknown");
    const std::string app = log->resolvedAppName();
    const std::string current = currentLogPath();
    const std::string folder = logFolder();

    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        fs::create_directories(folder, ec);
        if (ec || !fs::is_directory(folder)) {
            if (!noPrinting) printOut("Unable to create folder " + folder + ".\n");
            return;
        }
    }
    // The superuser's current file sits in the machine's log folder, which a
    // fresh system may not have yet.
    if (isSuperuser()) fs::create_directories(fs::path(current).parent_path(), ec);

    const bool continueCurrent = gAppendToCurrentLog && fs::exists(current, ec);
    if (!continueCurrent && fs::exists(current, ec)) {
        auto numbered = [&](long n) {
            return folder + "/" + app + "." + std::to_string(n) + ".log";
        };
        fs::remove(numbered(5), ec);
        for (long n = 4; n >= 1; --n) {
            if (!fs::exists(numbered(n))) continue;
            if (::rename(numbered(n).c_str(), numbered(n + 1).c_str()) != 0) {
                if (!noPrinting)
                    printOut("Unable to move file " + numbered(n) + " to " + numbered(n + 1) +
                             ".\n");
                return;
            }
        }
    }

    std::string error;
    // An empty file: nothing for a sync to keep (the lines that follow are never synced).
    if (!continueCurrent && !KTPlist::writeFileAtomically(current, "", &error, false)) {
        if (!noPrinting) printOut("Unable to create log file " + current + " - " + error + "\n");
        return;
    }
    int fd = ::open(current.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return;
    {
        std::lock_guard<std::mutex> l(log->stateLock_);
        if (log->fd_ >= 0) ::close(log->fd_);
        log->fd_ = fd;
    }
    log->writeHeader();
    if (!refused.empty()) KTPlist::logRefusal(globalPrefs, refused);
}

void KTLog::writeHeader() {
    fastAppendLog("Log started: %@\n", dateDescription());
    fastAppendLog("Version: %@\n", std::string(AMBREL_VERSION));
    std::string exe = executablePath();
    if (!exe.empty()) fastAppendLog("Path: %@\n", exe);
    struct utsname u {};
    std::string release = ::uname(&u) == 0 ? u.release : "unknown";
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    double bytes = double(sysconf(_SC_PHYS_PAGES)) * double(sysconf(_SC_PAGESIZE));
    appendLog("System: Linux %@, %li CPU(s), %0.2f GB RAM\n", release, cpus,
              bytes / 1024.0 / 1024.0 / 1024.0);
    fastAppendLog("Running in 64-bit mode\n");
}

std::string KTLog::escapeTextForLogging(std::string_view text) {
    std::string s(text);
    if (s.find('%') == std::string::npos) return s;
    for (const char* c : {" ", ".", "!", ",", "-", ";", ":", "+"}) {
        replaceAll(s, std::string("%") + c, std::string("%%") + c);
    }
    replaceAll(s, "%%%", "%%");
    return s;
}

void KTLog::appendLogArgs(std::string_view format, std::vector<KTArg> args, bool mayWait) {
    KTLog* log = sharedController();
    if (log->loggingDisabled_) return;
    std::string text = KTFormat::format(escapeTextForLogging(format), args);
    // Counted before the text is handed over: only short lines make a
    // thread other than the main one wait for the writer.
    const std::uint64_t n = characterCount(text);
    log->appendTextToLog(std::move(text));
    // The writer has written its own entries in place already; waiting there
    // would also pull other threads' entries in between (the restart's header).
    if (mayWait && !log->onWriter() && !KTMainThread::shared().isMainThread()) {
        if (n >= 1 && n <= 99 && log->bytesInQueue_ <= 99) finishWriting();
    }
}

void KTLog::appendLogAndPrintArgs(std::string_view format, std::vector<KTArg> args, bool print) {
    KTLog* log = sharedController();
    std::string text = trimmed(KTFormat::format(escapeTextForLogging(format), args));
    appendLogArgs(text, {}, true);
    if (!print || log->noPrinting_) return;
    std::string printed = text;
    replaceAll(printed, "%@", "");
    replaceAll(printed, "%", "%%");
    printed.erase(std::remove(printed.begin(), printed.end(), '\0'), printed.end());
    printOut(printed + "\n");
}

void KTLog::systemConsoleArgs(std::string_view format, std::vector<KTArg> args) {
    std::string text;
    try {
        text = trimmed(KTFormat::format(escapeTextForLogging(format), args));
    } catch (...) {
        text = trimmed(format);
    }
    if (text.empty()) return;
    printError(text + "\n");
    try {
        appendLogArgs("%@", {KTArg(text)}, true);
    } catch (...) {
        // The message is on standard error; the log's own failure is not the caller's.
    }
}

void KTLog::appendTextToLog(std::string text) {
    // Trimmed in place: most lines have nothing to trim and are only moved.
    const char* ws = " \t\n\r\f\v";
    text.erase(0, std::min(text.size(), text.find_first_not_of(ws)));
    text.erase(text.find_last_not_of(ws) + 1);
    if (text.empty() || terminated_) return;
    bytesInQueue_ += characterCount(text);
    if (onWriter()) {
        // The writer never queues for itself: what it logs (the restart's
        // header and notice) is written now, in order, ahead of the queue.
        appendLogOnThread(text);
        return;
    }
    bool idle;
    {
        std::lock_guard<std::mutex> l(queueLock_);
        // A writer that is writing, or already woken for an earlier entry,
        // looks at the queue again before it sleeps: a wake-up per line cost
        // a system call per line for nothing.
        idle = queue_.empty() && !writing_;
        queue_.push_back(std::move(text));
    }
    if (idle) queueChanged_.notify_one();
}

void KTLog::writerLoop() {
    std::unique_lock<std::mutex> l(queueLock_);
    for (;;) {
        queueChanged_.wait(l, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty() && stopping_) return;
        // A batch of moves logs several lines per plug-in, one at a time: woken
        // for the first, the writer lets the next ones gather for a moment and
        // writes them all at once (a write and a wake-up per line cost more
        // than the move). Whoever waits for the log to be on disk ends the
        // gathering at once, so nobody waits for the moment itself.
        queueChanged_.wait_for(l, kGatherTime, [this] {
            return stopping_ || flushWaiters_ > 0 || queue_.size() >= kGatherLines;
        });
        std::vector<std::string> batch(std::make_move_iterator(queue_.begin()),
                                       std::make_move_iterator(queue_.end()));
        queue_.clear();
        writing_ = true;
        l.unlock();
        appendLinesOnThread(batch);
        l.lock();
        writing_ = false;
        if (queue_.empty()) queueDrained_.notify_all();
    }
}

void KTLog::drainQueued() {
    // Runs on the writer itself (the restart): write what is queued now,
    // without waiting for the entry being written at the moment.
    for (;;) {
        std::string text;
        {
            std::lock_guard<std::mutex> l(queueLock_);
            if (queue_.empty()) return;
            text = std::move(queue_.front());
            queue_.pop_front();
        }
        appendLogOnThread(text);
    }
}

void KTLog::appendLogOnThread(const std::string& text) {
    appendLinesOnThread({text});
}

void KTLog::appendLinesOnThread(const std::vector<std::string>& texts) {
    try {
        if (!loggingDisabled_) {
            bool needOpen;
            {
                std::lock_guard<std::mutex> l(stateLock_);
                needOpen = fd_ < 0;
            }
            // Writing before any createNewLog opens the current file itself.
            const std::string path = needOpen ? currentLogPath() : std::string();
            bool written = false;
            {
                // The descriptor is used under the lock so that a new log
                // started on another thread cannot close it mid-line.
                std::lock_guard<std::mutex> l(stateLock_);
                if (fd_ < 0 && !path.empty())
                    fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
                if (fd_ >= 0) {
                    const std::string stamp = dateDescription() + " - ";
                    std::string lines;
                    for (const auto& text : texts) lines += stamp + text + "\n";
                    std::size_t done = 0;
                    while (done < lines.size()) {
                        ssize_t n = ::write(fd_, lines.data() + done, lines.size() - done);
                        if (n < 0 && errno == EINTR) continue;
                        if (n <= 0) throw std::runtime_error(std::strerror(errno));
                        done += static_cast<std::size_t>(n);
                    }
                    bytesWritten_ += lines.size();
                    written = true;
                }
            }
            if (!written) {
                if (!noPrinting_) {
                    for (const auto& text : texts) {
                        printOut("Unable to log the following information: " + text + "\n");
                        printOut("Unable to open log for output\n");
                    }
                }
            } else if (!restarting_ && bytesWritten_ >= gRestartThreshold.load()) {
                // The entries queued so far still belong to the old file; the
                // drain runs here on the writer, so it never waits for itself.
                restarting_ = true;
                finishWriting();
                createNewLog(resolvedAppName());
                appendLog("Log truncated at 500KB");
                restarting_ = false;
            }
        }
    } catch (const std::exception& e) {
        restarting_ = false;
        if (!loggingDisabled_ && !noPrinting_)
            printOut(std::string("Exception writing to log: ") + e.what() + "\n");
    }
    std::uint64_t n = 0;
    for (const auto& text : texts) n += characterCount(text);
    std::uint64_t cur = bytesInQueue_.load();
    while (!bytesInQueue_.compare_exchange_weak(cur, cur >= n ? cur - n : 0)) {
    }
}

void KTLog::finishWriting() {
    KTLog* log = sharedController();
    if (log->onWriter()) {
        log->drainQueued();
        return;
    }
    std::lock_guard<std::mutex> finish(gFinishLock);
    std::unique_lock<std::mutex> l(log->queueLock_);
    ++log->flushWaiters_;
    log->queueChanged_.notify_one();  // a gathering writer writes now
    log->queueDrained_.wait(l, [log] { return log->queue_.empty() && !log->writing_; });
    --log->flushWaiters_;
}

std::vector<std::string> KTLog::availableLogs() {
    std::vector<std::string> out;
    std::string app = sharedController()->resolvedAppName();
    for (long n = 1; n <= 5; ++n) {
        std::string p = logFolder() + "/" + app + "." + std::to_string(n) + ".log";
        if (fs::exists(p)) out.push_back(p);
    }
    return out;
}

void KTLog::willTerminate() {
    KTLog* log = sharedController();
    std::size_t pending;
    {
        std::lock_guard<std::mutex> l(log->queueLock_);
        pending = log->queue_.size() + (log->writing_ ? 1 : 0);
        if (pending >= 11) {
            // Quitting is not held up by a long backlog: those entries are lost.
            log->queue_.clear();
            log->bytesInQueue_ = 0;
        }
    }
    if (pending < 11) finishWriting();
    // Like a queue that is gone: later entries go nowhere.
    log->terminated_ = true;
    finishWriting();
    log->setAppName("");
    log->closeFile();
}

void KTLog::resetForTesting() {
    KTLog* log = sharedController();
    finishWriting();
    log->closeFile();
    std::lock_guard<std::mutex> l(log->stateLock_);
    log->appName_.clear();
    log->loggingDisabled_ = false;
    log->noPrinting_ = false;
    log->terminated_ = false;
    log->bytesWritten_ = 0;
    log->bytesInQueue_ = 0;
}

void KTLog::setSuperuserForTesting(std::optional<bool> superuser) {
    gSuperuserOverride = superuser ? int(*superuser) : -1;
}

bool KTLog::isSuperuser() {
    int o = gSuperuserOverride.load();
    return o >= 0 ? o == 1 : getuid() == 0;
}

void KTLog::setRestartThresholdForTesting(std::uint64_t bytes) {
    gRestartThreshold = bytes;
}

std::string KTLog::dateDescription() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buf;
}

std::string KTException::logException(const std::exception& e, const char* method) {
    return logException("std::exception", e.what(), method);
}

std::string KTException::logException(const std::string& name, const std::string& reason,
                                      const char* method) {
    std::string text =
        KTFormat::str("Exception in %s. %@ - %@.", method ? method : "", name, reason);
    KTLog::appendLogAndPrint("%@", text);
    return text;
}
