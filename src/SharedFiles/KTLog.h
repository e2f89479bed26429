#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "SharedFiles/KTFormat.h"

/// The one log of the process: time-stamped lines appended to
/// ~/Library/Logs/Quellbrook/<appName>.1.log by one serial writer thread, so
/// that callers never wait for the disk (short entries from background
/// threads excepted). Five files are kept; a file that reaches 5,000,000
/// bytes starts afresh. Entries are formats of the KTFormat family.
class KTLog {
  public:
    static KTLog* sharedController();

    static void createNewLog() { createNewLog(std::nullopt, false); }
    static void createNewLog(const std::optional<std::string>& name) { createNewLog(name, false); }
    static void createNewLog(const std::optional<std::string>& name, bool noPrinting);

    template <class... A>
    static void appendLog(std::string_view format, const A&... args) {
        appendLogArgs(format, {KTArg(args)...}, true);
    }
    template <class... A>
    static void fastAppendLog(std::string_view format, const A&... args) {
        appendLogArgs(format, {KTArg(args)...}, false);
    }
    template <class... A>
    static void appendLogAndPrint(std::string_view format, const A&... args) {
        appendLogAndPrintArgs(format, {KTArg(args)...}, true);
    }
    template <class... A>
    static void appendLogAndDebugPrint(std::string_view format, const A&... args) {
        appendLogAndPrintArgs(format, {KTArg(args)...}, false);
    }
    template <class... A>
    static void debugPrint(std::string_view, const A&...) {}
    /// For messages meant for the system log or the system console: written
    /// to standard error at once (where a user of the command line sees
    /// them), then logged like `appendLog`. A log that cannot be written does
    /// not keep the message from standard error.
    template <class... A>
    static void systemConsole(std::string_view format, const A&... args) {
        systemConsoleArgs(format, {KTArg(args)...});
    }

    /// The handler that reports an uncaught exception on standard error and
    /// in the log; installed by the first use of the log, and by main before
    /// anything can fail.
    static void installTerminateHandler();

    static std::string escapeTextForLogging(std::string_view text);
    /// From now on `createNewLog` continues the current file, when there is
    /// one, instead of rotating the numbered files: a dry run changes nothing
    /// on disk but its own log lines.
    static void setAppendToCurrentLog(bool append);
    static void finishWriting();
    static std::vector<std::string> availableLogs();
    static void willTerminate();

    /// The current file's path: the user's log folder, or the machine's for the superuser.
    static std::string currentLogPath();
    /// The user-domain folder the files rotate in.
    static std::string logFolder();

    void appendTextToLog(std::string text);
    void appendLogOnThread(const std::string& text);

    std::string appName() const;
    void setAppName(const std::string& name);
    bool loggingDisabled() const { return loggingDisabled_; }
    void setLoggingDisabled(bool v) { loggingDisabled_ = v; }
    bool noPrinting() const { return noPrinting_; }
    void setNoPrinting(bool v) { noPrinting_ = v; }
    std::uint64_t bytesWritten() const { return bytesWritten_; }
    void setBytesWritten(std::uint64_t v) { bytesWritten_ = v; }
    std::uint64_t bytesInQueue() const { return bytesInQueue_; }
    void setBytesInQueue(std::uint64_t v) { bytesInQueue_ = v; }

    /// Closes the file and forgets the name, the disabled and the terminated
    /// state, so that a test can start a log afresh in another scratch home.
    static void resetForTesting();

    /// Makes the log act as if the process ran (true) or did not run (false)
    /// as the superuser; nothing restores the real user id.
    static void setSuperuserForTesting(std::optional<bool> superuser);

    /// The threshold at which a file starts afresh; tests lower it.
    static void setRestartThresholdForTesting(std::uint64_t bytes);

    /// The date as the log writes it: "2024-03-01 14:05:09 +0000".
    static std::string dateDescription();

    ~KTLog();

  private:
    KTLog();
    static void appendLogArgs(std::string_view format, std::vector<KTArg> args, bool mayWait);
    static void appendLogAndPrintArgs(std::string_view format, std::vector<KTArg> args, bool print);
    static void systemConsoleArgs(std::string_view format, std::vector<KTArg> args);
    void writerLoop();
    void drainQueued();
    /// Writes entries as consecutive lines in one write, then restarts the
    /// file when it has reached the threshold.
    void appendLinesOnThread(const std::vector<std::string>& texts);
    bool onWriter() const { return std::this_thread::get_id() == writerId_; }
    static bool isSuperuser();
    void writeHeader();
    std::string resolvedAppName() const;
    void closeFile();

    mutable std::mutex stateLock_;  // appName_ and fd_; held while a line is written
    std::string appName_;
    int fd_ = -1;
    std::atomic<std::uint64_t> bytesWritten_{0};
    std::atomic<std::uint64_t> bytesInQueue_{0};
    std::atomic<bool> loggingDisabled_{false};
    std::atomic<bool> noPrinting_{false};
    std::atomic<bool> terminated_{false};  // after willTerminate nothing is queued any more
    bool restarting_ = false;              // writer only

    std::mutex queueLock_;
    std::condition_variable queueChanged_;
    std::condition_variable queueDrained_;
    std::deque<std::string> queue_;
    bool writing_ = false;
    bool stopping_ = false;
    int flushWaiters_ = 0;  // threads in finishWriting: the writer stops gathering for them
    std::thread writer_;
    std::thread::id writerId_;
};

/// Turns a caught exception into a log entry, and carries on.
class KTException {
  public:
    /// Logs "Exception in %s. %@ - %@." and answers the text.
    static std::string logException(const std::exception& e, const char* method);
    static std::string logException(const std::string& name, const std::string& reason,
                                    const char* method);
    static bool didTimeout(const std::string& exceptionName) {
        return exceptionName == "NSPortTimeoutException";
    }
};
