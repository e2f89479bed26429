#include "SharedFiles/KTTaskEx.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/linux/KTToolPaths.h"

namespace {

using HandOut = std::function<void(const KTTaskHandle&)>;

HandOut toOutParameter(KTTaskHandle* task) {
    if (!task) return {};
    return [task](const KTTaskHandle& h) { *task = h; };
}

/// A pipe whose ends are closed on every exec, so that one child never
/// holds another's pipe open; posix_spawn's dup2 clears the flag on the
/// child's own copy.
struct Pipe {
    int read = -1, write = -1;
    bool open() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return false;
        read = fds[0];
        write = fds[1];
        return true;
    }
    void closeRead() {
        if (read >= 0) close(read);
        read = -1;
    }
    void closeWrite() {
        if (write >= 0) close(write);
        write = -1;
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
};

/// What is available, blocking until something is; empty at end of data.
KTData readChunk(int fd) {
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) return KTData(buf, static_cast<size_t>(n));
        if (n < 0 && errno == EINTR) continue;
        return {};
    }
}

std::string execPathFor(const std::string& path) {
    return KTToolPaths::resolve(path).value_or(path);
}

KTTaskHandle makeProcess(const std::string& path, const KTTaskArguments& arguments,
                         const KTTaskEnvironment& environment = std::nullopt) {
    return std::make_shared<KTTaskProcess>(path, execPathFor(path), arguments.orEmpty(),
                                           environment);
}

bool runTaskImpl(const std::string& path, const KTTaskArguments& arguments,
                 const HandOut& handOut) {
    if (!path.empty() && path[0] == '/' && !KTTaskEx::isExecutable(path)) {
        KTLog::appendLogAndPrint("Error: %@ is not executable", path);
        return false;
    }
    KTTaskHandle task = makeProcess(path, arguments);
    if (handOut) handOut(task);
    if (int rc = task->launch(KTTaskProcess::kNullDevice, KTTaskProcess::kNullDevice,
                              KTTaskProcess::kNullDevice)) {
        KTLog::appendLog("Exception running task %@: %@", path, std::string(strerror(rc)));
        return false;
    }
    task->waitUntilExit();
    return true;
}

std::optional<KTData> dataImpl(const std::string& path, const KTTaskArguments& arguments,
                               const HandOut& handOut, const KTTaskEnvironment& environment,
                               bool logOutput, bool logError) {
    if (!KTTaskEx::isExecutable(path)) {
        KTLog::appendLogAndPrint("Error: %@ is not executable", path);
        return std::nullopt;
    }
    Pipe out, err, in;
    if (!out.open() || !err.open() || !in.open()) {
        KTLog::appendLogAndPrint("Exception running task %@: %@", path,
                                 std::string(strerror(errno)));
        return std::nullopt;
    }
    KTTaskHandle task = makeProcess(path, arguments, environment);
    if (handOut) handOut(task);
    // The child's standard input is a pipe nobody ever writes to.
    int rc = task->launch(in.read, logOutput ? out.write : KTTaskProcess::kInherit,
                          logError ? err.write : KTTaskProcess::kNullDevice);
    out.closeWrite();
    err.closeWrite();
    in.closeRead();
    if (rc != 0) {
        KTLog::appendLogAndPrint("Exception running task %@: %@", path, std::string(strerror(rc)));
        return std::nullopt;
    }

    KTData output, error, outChunk, errChunk;
    // The error chunk survives from round to round, so a round with output
    // appends an earlier error chunk again. That only ever grows the error
    // buffer when output exists, and then the output is what is returned.
    for (;;) {
        outChunk.clear();
        bool haveOutput = false;
        if (logOutput) {
            outChunk = readChunk(out.read);
            haveOutput = !outChunk.empty();
        }
        if (!haveOutput) {
            if (!logError) break;
            errChunk = readChunk(err.read);
            if (errChunk.empty()) break;
        }
        if (haveOutput || logOutput) {
            if (!outChunk.empty()) output += outChunk;
            if (!logError) continue;
        }
        if (!errChunk.empty()) error += errChunk;
    }
    err.closeRead();
    out.closeRead();
    if (!output.empty()) return output;
    if (!error.empty()) return error;
    return output;
}

std::int32_t codeImpl(const std::string& path, const KTTaskArguments& arguments,
                      const HandOut& handOut) {
    if (!KTTaskEx::isExecutable(path)) {
        KTLog::appendLogAndPrint("Error: %@ is not executable", path);
        return -1;
    }
    KTTaskHandle task = makeProcess(path, arguments);
    if (handOut) handOut(task);
    if (int rc = task->launch(KTTaskProcess::kNullDevice, KTTaskProcess::kNullDevice,
                              KTTaskProcess::kNullDevice)) {
        KTLog::appendLogAndPrint("Exception running task %@: %@", path, std::string(strerror(rc)));
        return -1;
    }
    return task->terminationStatus();
}

std::optional<std::string> decodeOrEmpty(const std::optional<KTData>& data,
                                         KTStringEncoding encoding) {
    if (!data || data->empty()) return std::string();
    return KTTaskEx::decode(*data, encoding);
}

}  // namespace

struct KTTaskEx::Watchdog {
    std::atomic<bool> cancelled{false};
};

std::shared_ptr<KTTaskEx> KTTaskEx::create() {
    return std::shared_ptr<KTTaskEx>(new KTTaskEx());
}

KTTaskEx::KTTaskEx() = default;

KTTaskEx::~KTTaskEx() {
    {
        std::lock_guard<std::recursive_mutex> guard(delegateLock_);
        delegate_ = nullptr;
        selector_ = nullptr;
        object_.reset();
    }
    if (theTask_ && theTask_->isRunning()) theTask_->terminate();
    if (asyncWakeFd_ >= 0) close(asyncWakeFd_);
}

bool KTTaskEx::isExecutable(const std::string& path) {
    std::optional<std::string> real = KTToolPaths::resolve(path);
    if (!real) return false;
    struct stat st;
    // A directory is never an executable file, which also keeps packages
    // (bundle folders) out.
    return stat(real->c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(real->c_str(), X_OK) == 0;
}

std::optional<std::string> KTTaskEx::decode(const KTData& data, KTStringEncoding encoding) {
    if (encoding == KTStringEncoding::ASCII) {
        for (unsigned char c : data) {
            if (c > 0x7F) return std::nullopt;
        }
        return data;
    }
    // UTF-8: well-formed sequences only (no overlongs, surrogates or values
    // past U+10FFFF).
    size_t i = 0, n = data.size();
    while (i < n) {
        unsigned char c = data[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        int len;
        unsigned lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else {
            return std::nullopt;
        }
        if (i + len > n) return std::nullopt;
        for (int k = 1; k < len; ++k) {
            unsigned char cc = data[i + k];
            unsigned l = k == 1 ? lo : 0x80, h = k == 1 ? hi : 0xBF;
            if (cc < l || cc > h) return std::nullopt;
        }
        i += len;
    }
    return data;
}

// --- Class-level runs.

bool KTTaskEx::runTask(const std::string& path, const KTTaskArguments& arguments,
                       KTTaskHandle* task) {
    return runTaskImpl(path, arguments, toOutParameter(task));
}

void KTTaskEx::runTaskAndReturn(const std::string& path, const KTTaskArguments& arguments) {
    if (path.empty() || !isExecutable(path)) {
        KTLog::appendLogAndPrint("%@", KTFormat::str("Error: %@ is not executable", path));
        return;
    }
    KTTaskHandle task = makeProcess(path, arguments);
    if (int rc = task->launch(KTTaskProcess::kNullDevice, KTTaskProcess::kNullDevice,
                              KTTaskProcess::kNullDevice))
        KTLog::appendLogAndPrint("Exception running task %@: %@", path, std::string(strerror(rc)));
    // The handle goes now; the child is reaped in the background.
}

void KTTaskEx::runTask(const std::string& path, const KTTaskArguments& arguments, double timeout) {
    create()->runTaskWithTimeout(path, arguments, timeout);
}

std::optional<std::string> KTTaskEx::stringFromTask(const std::string& path,
                                                    const KTTaskArguments& arguments,
                                                    KTTaskHandle* task) {
    return stringFromTask(path, arguments, KTStringEncoding::ASCII, task);
}

std::optional<std::string> KTTaskEx::stringFromTask(const std::string& path,
                                                    const KTTaskArguments& arguments,
                                                    KTStringEncoding encoding, KTTaskHandle* task) {
    return decodeOrEmpty(dataFromTask(path, arguments, task), encoding);
}

std::optional<std::string> KTTaskEx::stringFromTask(const std::string& path,
                                                    const KTTaskArguments& arguments,
                                                    double timeout) {
    return stringFromTask(path, arguments, KTStringEncoding::ASCII, timeout);
}

std::optional<std::string> KTTaskEx::stringFromTask(const std::string& path,
                                                    const KTTaskArguments& arguments,
                                                    KTStringEncoding encoding, double timeout,
                                                    bool logOutput, bool logError) {
    return decodeOrEmpty(dataFromTask(path, arguments, timeout, logOutput, logError), encoding);
}

std::optional<KTData> KTTaskEx::dataFromTask(const std::string& path,
                                             const KTTaskArguments& arguments, KTTaskHandle* task,
                                             const KTTaskEnvironment& environment, bool logOutput,
                                             bool logError) {
    return dataImpl(path, arguments, toOutParameter(task), environment, logOutput, logError);
}

std::optional<KTData> KTTaskEx::dataFromTask(const std::string& path,
                                             const KTTaskArguments& arguments, double timeout,
                                             bool logOutput, bool logError) {
    return create()->dataFromTaskWithTimeout(path, arguments, timeout, logOutput, logError);
}

std::int32_t KTTaskEx::terminationCodeFromTask(const std::string& path,
                                               const KTTaskArguments& arguments,
                                               KTTaskHandle* task) {
    return codeImpl(path, arguments, toOutParameter(task));
}

std::int32_t KTTaskEx::terminationCodeFromTask(const std::string& path,
                                               const KTTaskArguments& arguments, double timeout) {
    return create()->terminationCodeFromTaskWithTimeout(path, arguments, timeout);
}

// --- Timed runs.

std::shared_ptr<KTTaskEx::Watchdog> KTTaskEx::startWatchdog(double timeout) {
    // Whole seconds, truncated: 2.9 s waits 2 s, anything below 1 s not at all.
    int seconds = timeout > 0 ? static_cast<int>(timeout) : 0;
    auto watchdog = std::make_shared<Watchdog>();
    {
        std::lock_guard<std::mutex> guard(lock_);
        theTask_.reset();
        runEnded_ = false;
    }
    std::thread(&KTTaskEx::setupTimeout, shared_from_this(), seconds, watchdog).detach();
    return watchdog;
}

void KTTaskEx::handOut(const KTTaskHandle& task) {
    std::lock_guard<std::mutex> guard(lock_);
    theTask_ = task;
    taskChanged_.notify_all();
}

void KTTaskEx::finishWatchdog(const std::shared_ptr<Watchdog>& watchdog) {
    std::lock_guard<std::mutex> guard(lock_);
    theTask_.reset();
    runEnded_ = true;
    watchdog->cancelled = true;
    taskChanged_.notify_all();
}

void KTTaskEx::setupTimeout(int seconds, std::shared_ptr<Watchdog> watchdog) {
    if (seconds > 0) std::this_thread::sleep_for(std::chrono::seconds(seconds));
    {
        // A short time-out can end before the run has even started its
        // tool; it then fires as soon as the tool exists.
        std::unique_lock<std::mutex> guard(lock_);
        taskChanged_.wait(guard, [&] { return theTask_ || runEnded_ || watchdog->cancelled; });
        if (watchdog->cancelled) return;
    }
    auto self = shared_from_this();
    KTMainThread::shared().runAndWait([self] { self->timeout(); });
}

void KTTaskEx::timeout() {
    KTTaskHandle task = theTask();
    // A tool handed out but not yet started is stopped as soon as it starts.
    if (task && (task->isRunning() || !task->launched())) {
        KTLog::appendLogAndPrint("Task %@ timed out. Terminating...", task->launchPath());
        task->terminate();
    }
}

void KTTaskEx::runTaskWithTimeout(const std::string& path, const KTTaskArguments& arguments,
                                  double timeout) {
    auto watchdog = startWatchdog(timeout);
    runTaskImpl(path, arguments, [this](const KTTaskHandle& t) { handOut(t); });
    finishWatchdog(watchdog);
}

std::optional<KTData> KTTaskEx::dataFromTaskWithTimeout(const std::string& path,
                                                        const KTTaskArguments& arguments,
                                                        double timeout, bool logOutput,
                                                        bool logError) {
    auto watchdog = startWatchdog(timeout);
    auto result = dataImpl(
        path, arguments, [this](const KTTaskHandle& t) { handOut(t); }, std::nullopt, logOutput,
        logError);
    finishWatchdog(watchdog);
    return result;
}

std::int32_t KTTaskEx::terminationCodeFromTaskWithTimeout(const std::string& path,
                                                          const KTTaskArguments& arguments,
                                                          double timeout) {
    auto watchdog = startWatchdog(timeout);
    auto result = codeImpl(path, arguments, [this](const KTTaskHandle& t) { handOut(t); });
    finishWatchdog(watchdog);
    return result;
}

// --- Asynchronous run.

void KTTaskEx::asyncDataFromTask(const std::string& path, const KTTaskArguments& arguments,
                                 KTTaskExDelegate* delegate, KTTaskExSelector selector,
                                 std::any object, const KTTaskEnvironment& environment) {
    {
        std::lock_guard<std::recursive_mutex> guard(delegateLock_);
        delegate_ = delegate;
        selector_ = selector;
        object_ = std::move(object);
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        theTask_ = makeProcess(path, arguments, environment);
    }
    std::thread(&KTTaskEx::launchAsyncTask, shared_from_this()).detach();
}

void KTTaskEx::launchAsyncTask() {
    KTTaskHandle task = theTask();
    if (!task) {
        KTLog::appendLogAndPrint("Unable to launch async task - no task set");
        return;
    }
    if (!isExecutable(task->launchPath())) {
        KTLog::appendLog("Unable to launch async task - task does not exist or is not executable");
        return;
    }
    Pipe out;
    int wake = eventfd(0, EFD_CLOEXEC);
    if (!out.open() || wake < 0) {
        if (wake >= 0) close(wake);
        KTLog::appendLogAndPrint("Exception: %@", std::string(strerror(errno)));
        return;
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        asyncWakeFd_ = wake;
    }
    if (int rc = task->launch(KTTaskProcess::kInherit, out.write, KTTaskProcess::kNullDevice)) {
        KTLog::appendLogAndPrint("Exception: %@", std::string(strerror(rc)));
        return;
    }
    out.closeWrite();
    for (;;) {
        pollfd fds[2] = {{out.read, POLLIN, 0}, {wake, POLLIN, 0}};
        int r = poll(fds, 2, -1);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 || (fds[1].revents & POLLIN)) break;
        KTData chunk = readChunk(out.read);
        if (chunk.empty()) {
            asyncTaskReturnData(chunk);
            break;
        }
        asyncTaskReturnData(chunk);
    }
    // The reading end is closed here, on the thread that reads it.
}

void KTTaskEx::asyncTaskReturnData(const KTData& data) {
    if (!data.empty()) {
        std::lock_guard<std::recursive_mutex> guard(delegateLock_);
        if (delegate_ && selector_) {
            (delegate_->*selector_)(data, *this, object_.has_value() ? &object_ : nullptr);
        }
        return;
    }
    // The end: the runner is idle again before the delegate hears of it, so
    // the delegate may start the next run from its callback.
    KTTaskExDelegate* delegate;
    KTTaskExSelector selector;
    std::any object;
    {
        std::lock_guard<std::recursive_mutex> guard(delegateLock_);
        delegate = delegate_;
        selector = selector_;
        object = object_;
    }
    terminateAsyncTask();
    if (delegate && selector) (delegate->*selector)(data, *this, object.has_value() ? &object : nullptr);
}

void KTTaskEx::terminateAsyncTask() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (asyncWakeFd_ >= 0) {
            std::uint64_t one = 1;
            ssize_t ignored = write(asyncWakeFd_, &one, sizeof one);
            (void)ignored;
        }
    }
    {
        std::lock_guard<std::recursive_mutex> guard(delegateLock_);
        delegate_ = nullptr;
        selector_ = nullptr;
        object_.reset();
    }
    KTTaskHandle task;
    {
        std::lock_guard<std::mutex> guard(lock_);
        task = std::move(theTask_);
        theTask_.reset();
    }
    if (task && task->isRunning()) task->terminate();
}

// --- Accessors.

KTTaskHandle KTTaskEx::theTask() const {
    std::lock_guard<std::mutex> guard(lock_);
    return theTask_;
}
void KTTaskEx::setTheTask(KTTaskHandle task) {
    handOut(task);
}
KTTaskExDelegate* KTTaskEx::delegate() const {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    return delegate_;
}
void KTTaskEx::setDelegate(KTTaskExDelegate* delegate) {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    delegate_ = delegate;
}
KTTaskExSelector KTTaskEx::selector() const {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    return selector_;
}
void KTTaskEx::setSelector(KTTaskExSelector selector) {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    selector_ = selector;
}
std::any KTTaskEx::object() const {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    return object_;
}
void KTTaskEx::setObject(std::any object) {
    std::lock_guard<std::recursive_mutex> guard(delegateLock_);
    object_ = std::move(object);
}
