#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analytics/KTQCClock.h"
#include "analytics/KTQCQuestion.h"
#include "analytics/KTQCTransport.h"

class KTOperationQueue;
class KTPreferences;

/// One usage event: "launch", or "specs" with the system's version text.
struct KTQCEvent {
    std::string event;
    long long date = 0;  ///< whole seconds since 1 January 1970
    std::optional<std::string> data;
    bool operator==(const KTQCEvent&) const = default;
};

/// Usage analytics, with consent first: counts launches and system versions
/// once the person has agreed (asked from the third launch on), keeps them in
/// a cache file and posts them about once a day to the form handler named by
/// the "qcSubmitURL" preference. Without that address it stays inert: it asks
/// nothing, counts nothing and sends nothing, since consent to send data
/// nowhere would be a question without meaning. Only the window starts it;
/// the command line never does.
///
/// Events are appended on the caller's thread; cache writes and uploads run
/// one at a time on a serial queue of its own.
class KTQC {
  public:
    struct Services {
        std::shared_ptr<KTQCTransport> transport;
        std::shared_ptr<KTQCClock> clock;
    };
    /// An ordered form: the fields go out in this order.
    using Form = std::vector<std::pair<std::string, std::string>>;

    static constexpr const char* kDefaultBundleID = "com.quellbrook.Ambrel";
    /// The identifier's alphabet, "XZY" before the digits as the maker's
    /// servers have always seen it.
    static constexpr const char* kIdentifierAlphabet =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXZY0123456789";
    static constexpr long long kIdentifierLifetime = 7776000;  // 90 days
    static constexpr long long kSubmissionInterval = 86400;
    static constexpr long long kLaunchWindow = 60;

    /// The process's controller, made on first use with libcurl and the
    /// system clock (which counts one launch).
    static KTQC& sharedController();

    /// Reads the configuration and, when an address is set, loads the cache,
    /// starts the queue, reads "logQC" and counts the launch ("launchCount").
    explicit KTQC(Services services, std::string bundleID = kDefaultBundleID,
                  std::string version = AMBREL_VERSION);
    ~KTQC();  ///< `willTerminate` when it has not run
    KTQC(const KTQC&) = delete;
    KTQC& operator=(const KTQC&) = delete;

    /// True when "qcSubmitURL" names somewhere to send to.
    bool isConfigured() const { return !submitURL_.empty(); }
    bool shouldLog() const { return shouldLog_; }
    /// The count after this launch (0 when not configured).
    long long launchCount() const { return launchCount_; }

    /// After launch, for the main window: a stored answer stands (and starts
    /// logging when it was yes); without one, from the third launch on the
    /// question is put 5 seconds later.
    void loadQC(KTQCQuestion& window);
    /// The answer to the question: 0 "Allow", 1 "More Info", 2 "Don't Allow".
    void questionAnswered(int button, KTQCQuestion& window);
    /// The question as shown.
    static KTAlert question();

    /// When logging: the start events, then an upload when one is due.
    void setupInitialLogging();
    void logLoadEvent();
    void logSystemSpecsEvent();
    void logQCEvent(const KTQCEvent& event);

    void writeCache();
    void writeCacheOnThread();
    /// Posts the cached events and empties the cache, whatever the outcome.
    void uploadData();
    /// Starts the post; false when no connection could be made.
    bool postDictionary(const Form& form, const std::string& url);
    static std::string generateFormData(const Form& form, const std::string& boundary);
    static std::string generateRandomString(int length);
    /// The events as the form's JSON text.
    static std::string eventsJSON(const std::vector<KTQCEvent>& events);

    /// Stores the answer in "logQC" and follows it. Turning logging off also
    /// drops the events not yet sent.
    void setQCLogging(bool on);
    void enableQCLogging() { setQCLogging(true); }
    void disableQCLogging() { setQCLogging(false); }
    /// The preferences check box: ticked means on.
    void toggleQCLogging(bool checked) { setQCLogging(checked); }

    /// Quitting: drops queued work, ends a running post and writes the cache.
    void willTerminate();

    /// The cache file: the user's Caches folder, "Quellbrook/QC", the bundle identifier.
    static std::string cachePath(const std::string& bundleID);
    /// "com.quellbrook.qc" in the user's Preferences, shared with the maker's programs.
    static KTPreferences& qcPreferences();

    // For tests.
    std::vector<KTQCEvent> cache() const;
    /// Waits until the queue has run everything queued so far.
    void waitUntilIdle();

  private:
    bool enqueue(std::function<void()> work);
    std::vector<KTQCEvent> loadCache() const;
    /// The stored identifier while younger than 90 days, else a new one, stored.
    std::string currentIdentifier();
    long long now() const;

    // The events and the queue that writes and sends them.
    mutable std::mutex cacheLock_;  // cache_ and lastCacheWrite_
    std::vector<KTQCEvent> cache_;
    std::optional<double> lastCacheWrite_;
    std::mutex queueLock_;
    std::unique_ptr<KTOperationQueue> opQueue_;
    std::atomic<bool> shouldLog_{false};
    std::string bundleID_;
    std::string version_;

    Services services_;
    std::string submitURL_, moreInfoURL_, caFile_;
    long long launchCount_ = 0;
    /// The instance's lock: one upload at a time.
    std::mutex uploadLock_;
};
