#pragma once

#include <any>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/linux/KTTaskProcess.h"

/// Raw bytes of a tool's output.
using KTData = std::string;
/// A child's full environment (name to value); it replaces ours entirely.
using KTTaskEnvironment = std::optional<std::map<std::string, std::string>>;

/// Encodings for decoding a tool's output. The numbers are the platform's
/// string-encoding codes and are what callers store.
enum class KTStringEncoding : int {
    ASCII = 1,  ///< 7-bit: any byte above 0x7F makes the text undecodable
    UTF8 = 4,
};

/// An argument list that may be absent (the tool runs with no arguments).
/// Written as `{"-f", a, b}`, a vector, or `std::nullopt`/`{}`.
struct KTTaskArguments {
    std::optional<std::vector<std::string>> list;
    KTTaskArguments() = default;
    KTTaskArguments(std::nullopt_t) {}
    KTTaskArguments(std::initializer_list<std::string> l) : list(std::vector<std::string>(l)) {}
    KTTaskArguments(std::vector<std::string> v) : list(std::move(v)) {}
    std::vector<std::string> orEmpty() const { return list.value_or(std::vector<std::string>{}); }
};

class KTTaskEx;

/// Receives the output of an asynchronous run, on the runner's own thread.
class KTTaskExDelegate {
  public:
    virtual ~KTTaskExDelegate() = default;
    /// One chunk of output; an empty chunk marks the end. `object` is the
    /// caller's context, or null when none was given.
    virtual void taskDidReturnData(const KTData& data, KTTaskEx& runner, const std::any* object) {}
};
/// The delegate's operation that receives output; a member of a subclass is
/// passed with static_cast<KTTaskExSelector>(&Mine::gotOutput).
using KTTaskExSelector = void (KTTaskExDelegate::*)(const KTData&, KTTaskEx&, const std::any*);

/// Starts every command-line tool of the program. Launch paths are the
/// macOS tool paths callers know ("/bin/mv", "/usr/bin/auval"); they are
/// mapped to this machine by `KTToolPaths` just before the start, and a tool
/// this platform lacks fails the executable check. Children are started
/// with posix_spawn and an argument vector, never through a shell.
///
/// The untimed operations are class-level and block the calling thread.
/// Timed and asynchronous runs need a runner object made with `create()`:
/// the watchdog and the reading thread keep it alive while they work.
///
/// Results: false / nothing / -1 when the tool is not executable ("Error: %@
/// is not executable" in the log); the capturing run returns the output, or
/// the error text when there was no output; time-outs are truncated to whole
/// seconds and fire through the main-thread seam, so a timed run started on
/// the main thread of the window cannot be cut short.
class KTTaskEx : public std::enable_shared_from_this<KTTaskEx> {
  public:
    static std::shared_ptr<KTTaskEx> create();
    ~KTTaskEx();
    KTTaskEx(const KTTaskEx&) = delete;
    KTTaskEx& operator=(const KTTaskEx&) = delete;

    // --- Waiting runs with a success flag; output discarded.

    /// Runs and waits; true when it started (the exit status is ignored).
    /// A relative launch path is started without the executable check.
    /// `task` receives the process handle before the wait begins.
    static bool runTask(const std::string& path, const KTTaskArguments& arguments,
                        KTTaskHandle* task = nullptr);
    /// Starts the tool with all output discarded and returns at once.
    static void runTaskAndReturn(const std::string& path, const KTTaskArguments& arguments);
    /// Timed fire-and-wait on a fresh runner.
    static void runTask(const std::string& path, const KTTaskArguments& arguments, double timeout);

    // --- Captured output as text ("" when there was no data; nothing when
    // the bytes do not decode).

    static std::optional<std::string> stringFromTask(const std::string& path,
                                                     const KTTaskArguments& arguments,
                                                     KTTaskHandle* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path,
                                                     const KTTaskArguments& arguments,
                                                     KTStringEncoding encoding,
                                                     KTTaskHandle* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path,
                                                     const KTTaskArguments& arguments,
                                                     double timeout);
    static std::optional<std::string> stringFromTask(const std::string& path,
                                                     const KTTaskArguments& arguments,
                                                     KTStringEncoding encoding, double timeout,
                                                     bool logOutput = true, bool logError = true);

    // --- Captured output as bytes.

    /// The capturing run. With `logOutput` false the child's standard output
    /// is ours; with `logError` false its standard error goes to the null
    /// device. Answers the output if any, else the error text, else empty;
    /// nothing when the tool is not executable or could not start.
    static std::optional<KTData> dataFromTask(const std::string& path,
                                              const KTTaskArguments& arguments,
                                              KTTaskHandle* task = nullptr,
                                              const KTTaskEnvironment& environment = std::nullopt,
                                              bool logOutput = true, bool logError = true);
    static std::optional<KTData> dataFromTask(const std::string& path,
                                              const KTTaskArguments& arguments, double timeout,
                                              bool logOutput = true, bool logError = true);

    // --- Exit status.

    /// The exit status (the signal number for a killed tool); -1 when the
    /// tool is not executable or could not start.
    static std::int32_t terminationCodeFromTask(const std::string& path,
                                                const KTTaskArguments& arguments,
                                                KTTaskHandle* task = nullptr);
    static std::int32_t terminationCodeFromTask(const std::string& path,
                                                const KTTaskArguments& arguments, double timeout);

    // --- Timed runs on this runner: the process handle is held in `theTask`
    // while the tool runs, so that the watchdog can terminate it.

    void runTaskWithTimeout(const std::string& path, const KTTaskArguments& arguments,
                            double timeout);
    std::optional<KTData> dataFromTaskWithTimeout(const std::string& path,
                                                  const KTTaskArguments& arguments, double timeout,
                                                  bool logOutput = true, bool logError = true);
    std::int32_t terminationCodeFromTaskWithTimeout(const std::string& path,
                                                    const KTTaskArguments& arguments,
                                                    double timeout);

    /// Main-thread end of the watchdog: terminates `theTask` if it still runs.
    void timeout();

    // --- Asynchronous run: output is handed to the delegate chunk by chunk
    // on a background thread; the end of output (an empty chunk) ends the
    // run by itself.

    void asyncDataFromTask(const std::string& path, const KTTaskArguments& arguments,
                           KTTaskExDelegate* delegate, KTTaskExSelector selector, std::any object,
                           const KTTaskEnvironment& environment = std::nullopt);
    /// Stops delivery (no call reaches the delegate once this returns, unless
    /// made from within the delegate call itself) and terminates the tool.
    void terminateAsyncTask();
    void terminateTask() { terminateAsyncTask(); }

    KTTaskHandle theTask() const;
    void setTheTask(KTTaskHandle task);
    KTTaskExDelegate* delegate() const;
    void setDelegate(KTTaskExDelegate* delegate);
    KTTaskExSelector selector() const;
    void setSelector(KTTaskExSelector selector);
    std::any object() const;
    void setObject(std::any object);

    /// Decodes bytes with an encoding code; nothing when they do not decode.
    static std::optional<std::string> decode(const KTData& data, KTStringEncoding encoding);
    /// True for an existing, executable file (after mapping the tool path).
    static bool isExecutable(const std::string& path);

  private:
    struct Watchdog;
    KTTaskEx();
    std::shared_ptr<Watchdog> startWatchdog(double timeout);
    void finishWatchdog(const std::shared_ptr<Watchdog>& watchdog);
    void setupTimeout(int seconds, std::shared_ptr<Watchdog> watchdog);
    void handOut(const KTTaskHandle& task);
    void launchAsyncTask();
    void asyncTaskReturnData(const KTData& data);

    mutable std::mutex lock_;
    std::condition_variable taskChanged_;
    KTTaskHandle theTask_;
    bool runEnded_ = false;

    mutable std::recursive_mutex delegateLock_;
    KTTaskExDelegate* delegate_ = nullptr;
    KTTaskExSelector selector_ = nullptr;
    std::any object_;

    int asyncWakeFd_ = -1;
};
