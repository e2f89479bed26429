#include "analytics/KTQC.h"

#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTOperationQueue.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTTimeScale.h"
#include "analytics/KTCurlTransport.h"
#include "analytics/KTOSVersion.h"

namespace fs = std::filesystem;

namespace {

KTPreferences& appPreferences() {
    return KTPreferences::standard();
}

std::string configured(const char* key) {
    return appPreferences().stringForKey(key).value_or("");
}

std::optional<KTQCEvent> eventFromPlist(plist_t dict) {
    auto name = KTPlist::stringForKey(dict, "event");
    auto date = KTPlist::integerForKey(dict, "date");
    if (!name || !date) return std::nullopt;
    return KTQCEvent{*name, *date, KTPlist::stringForKey(dict, "data")};
}

}  // namespace

KTQC& KTQC::sharedController() {
    // Never destroyed: the window ends it with willTerminate, and a static
    // destructor would run after the log it writes to is gone.
    static KTQC* shared =
        new KTQC(Services{std::make_shared<KTCurlTransport>(), KTQCClock::system()});
    return *shared;
}

KTPreferences& KTQC::qcPreferences() {
    static KTPreferences prefs("com.quellbrook.qc", true);
    return prefs;
}

std::string KTQC::cachePath(const std::string& bundleID) {
    return KTLocalPaths::cacheDirectory(true) + "/Quellbrook/QC/" + bundleID;
}

KTQC::KTQC(Services services, std::string bundleID, std::string version)
    : bundleID_(std::move(bundleID)), version_(std::move(version)), services_(std::move(services)) {
    submitURL_ = configured("qcSubmitURL");
    moreInfoURL_ = configured("qcMoreInfoURL");
    caFile_ = configured("qcCAFile");
    if (!isConfigured()) return;

    cache_ = loadCache();
    opQueue_ = std::make_unique<KTOperationQueue>(1);
    shouldLog_ = KTPlist::integerValue(qcPreferences().plistForKey("logQC").get()) == 1;
    launchCount_ = appPreferences().integerForKey("launchCount") + 1;
    std::string error;
    if (!appPreferences().setInteger("launchCount", launchCount_, &error))
        KTLog::appendLog("Unable to save the launch count. %@", error);
}

KTQC::~KTQC() {
    willTerminate();
}

long long KTQC::now() const {
    return static_cast<long long>(services_.clock->now());
}

std::vector<KTQCEvent> KTQC::loadCache() const {
    std::vector<KTQCEvent> events;
    KTPlistPtr list = KTPlist::readFile(cachePath(bundleID_));
    if (!list || plist_get_node_type(list.get()) != PLIST_ARRAY) return events;
    for (uint32_t i = 0; i < plist_array_get_size(list.get()); ++i)
        if (auto e = eventFromPlist(plist_array_get_item(list.get(), i))) events.push_back(*e);
    return events;
}

std::vector<KTQCEvent> KTQC::cache() const {
    std::lock_guard<std::mutex> l(cacheLock_);
    return cache_;
}

bool KTQC::enqueue(std::function<void()> work) {
    std::lock_guard<std::mutex> l(queueLock_);
    if (!opQueue_) return false;
    opQueue_->addOperation(std::move(work));
    return true;
}

void KTQC::waitUntilIdle() {
    std::lock_guard<std::mutex> l(queueLock_);
    if (opQueue_) opQueue_->waitUntilAllOperationsAreFinished();
}

KTAlert KTQC::question() {
    return {"Help improve Quellbrook software by submitting analytics and usage data",
            "This information helps us find problems and improve our software. It is anonymous "
            "and cannot be used to identify you.",
            {"Allow", "More Info", "Don't Allow"}};
}

void KTQC::loadQC(KTQCQuestion& window) {
    if (!isConfigured()) return;
    if (KTPlistPtr answer = qcPreferences().plistForKey("logQC")) {
        shouldLog_ = KTPlist::integerValue(answer.get()) == 1;
        if (shouldLog_) setupInitialLogging();
        return;
    }
    if (launchCount_ < 3) return;
    window.ask(std::chrono::duration_cast<std::chrono::milliseconds>(
                   KTTimeScale::scaled(std::chrono::seconds(5))),
               question(),
               [this, &window](int button) { questionAnswered(button, window); });
}

void KTQC::questionAnswered(int button, KTQCQuestion& window) {
    switch (button) {
        case 0:
            setQCLogging(true);
            setupInitialLogging();
            break;
        case 1:
            // Nothing stored: the question comes again at the next launch.
            if (moreInfoURL_.empty())
                KTLog::appendLog("No analytics information page is set (\"qcMoreInfoURL\").");
            else
                window.openURL(moreInfoURL_);
            break;
        default:
            setQCLogging(false);
            break;
    }
}

void KTQC::setupInitialLogging() {
    if (!shouldLog_) return;
    logLoadEvent();
    logSystemSpecsEvent();
    if (cache().empty()) return;
    const auto last = KTPlist::dateValue(appPreferences().plistForKey("lastSubmission").get());
    const bool due = last ? now() - *last > kSubmissionInterval : launchCount_ >= 4;
    if (due) enqueue([this] { uploadData(); });
}

void KTQC::logLoadEvent() {
    if (!shouldLog_) return;
    const long long date = now();
    {
        std::lock_guard<std::mutex> l(cacheLock_);
        for (const KTQCEvent& e : cache_)
            if (e.event == "launch" && date >= e.date && date - e.date < kLaunchWindow) return;
    }
    logQCEvent({"launch", date, std::nullopt});
}

void KTQC::logSystemSpecsEvent() {
    if (!shouldLog_) return;
    const std::optional<std::string> version = KTOSVersion::osxVersion();
    if (!version || appPreferences().stringForKey("lastOSVersion") == version) return;
    logQCEvent({"specs", now(), version});
    std::string error;
    if (!appPreferences().setString("lastOSVersion", *version, &error))
        KTLog::appendLog("Unable to save the system version. %@", error);
}

void KTQC::logQCEvent(const KTQCEvent& event) {
    if (!shouldLog_) return;
    bool write = false;
    {
        std::lock_guard<std::mutex> l(cacheLock_);
        cache_.push_back(event);
        // Events come in bursts at start; one write a second is enough, and
        // quitting writes whatever is left.
        write = !lastCacheWrite_ || services_.clock->now() - *lastCacheWrite_ >= 1;
    }
    if (write) writeCache();
}

void KTQC::writeCache() {
    if (shouldLog_) enqueue([this] { writeCacheOnThread(); });
}

void KTQC::writeCacheOnThread() {
    if (!shouldLog_) return;
    if (bundleID_.empty()) {
        KTLog::appendLog("Error: unable to save QC data. Bundle ID not found.");
        return;
    }
    const std::string path = cachePath(bundleID_);
    KTPlistPtr list(plist_new_array());
    {
        std::lock_guard<std::mutex> l(cacheLock_);
        if (cache_.empty()) {
            // Sent already: an empty file would only be read back as nothing.
            std::error_code ec;
            fs::remove(path, ec);
            return;
        }
        for (const KTQCEvent& e : cache_) {
            plist_t dict = plist_new_dict();
            plist_dict_set_item(dict, "event", plist_new_string(e.event.c_str()));
            plist_dict_set_item(dict, "date", plist_new_uint(static_cast<uint64_t>(e.date)));
            if (e.data) plist_dict_set_item(dict, "data", plist_new_string(e.data->c_str()));
            plist_array_append_item(list.get(), dict);
        }
        lastCacheWrite_ = services_.clock->now();
    }
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    std::string error;
    if (ec || !KTPlist::writeFileAtomically(path, KTPlist::toXML(list.get()), &error))
        KTLog::appendLog("Unable to save QC data to %@. %@", path, ec ? ec.message() : error);
}

std::string KTQC::generateRandomString(int length) {
    static thread_local std::mt19937 generator{std::random_device{}()};
    const std::size_t size = std::strlen(kIdentifierAlphabet);
    std::uniform_int_distribution<std::size_t> pick(0, size - 1);
    std::string s;
    for (int i = 0; i < length; ++i) s += kIdentifierAlphabet[pick(generator)];
    return s;
}

std::string KTQC::currentIdentifier() {
    KTPreferences& prefs = qcPreferences();
    const auto uid = prefs.stringForKey("uid");
    const auto assigned = KTPlist::dateValue(prefs.plistForKey("uidAssigned").get());
    const long long date = now();
    if (uid && !uid->empty() && assigned && date - *assigned <= kIdentifierLifetime) return *uid;
    const std::string fresh = generateRandomString(12);
    std::string error;
    KTPlistPtr when = KTPlist::newDate(date);
    if (!prefs.setString("uid", fresh, &error) ||
        !prefs.setPlist("uidAssigned", when.get(), &error))
        KTLog::appendLog("Unable to save the analytics identifier. %@", error);
    return fresh;
}

std::string KTQC::eventsJSON(const std::vector<KTQCEvent>& events) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const KTQCEvent& e : events) {
        nlohmann::ordered_json object = {{"event", e.event}, {"date", e.date}};
        if (e.data) object["data"] = *e.data;
        list.push_back(std::move(object));
    }
    // Replace bad UTF-8 rather than throw: a version text is not ours to trust.
    return list.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string KTQC::generateFormData(const Form& form, const std::string& boundary) {
    // Only separators: the form handler has always read the body without a closing line.
    std::string body;
    for (const auto& [name, value] : form) {
        body += "--" + boundary + "\r\n";
        body += "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n";
        body += value;
        body += "\r\n";
    }
    return body;
}

bool KTQC::postDictionary(const Form& form, const std::string& url) {
    const std::string boundary = KTLocalPaths::uuid();
    KTQCRequest request{url, "multipart/form-data; boundary=" + boundary,
                        generateFormData(form, boundary), caFile_};
    KTLog::appendLog("Sending QC log to Quellbrook...");
    const bool started =
        services_.transport->start(request, [](const std::optional<std::string>& error) {
            if (error) KTLog::appendLogAndPrint("Connection failed - %@", *error);
        });
    if (!started)
        KTLog::appendLogAndPrint("Failed to establish a connection. Please try again later.");
    return started;
}

void KTQC::uploadData() {
    std::lock_guard<std::mutex> instance(uploadLock_);
    if (!shouldLog_) return;
    const std::vector<KTQCEvent> events = cache();
    if (events.empty()) return;
    const Form form{{"uid", currentIdentifier()},
                    {"app", bundleID_.empty() ? "Unknown" : bundleID_},
                    {"version", version_.empty() ? "Unknown" : version_},
                    {"events", eventsJSON(events)}};
    postDictionary(form, submitURL_);

    // Whatever the post's outcome: events are never sent twice. Only those
    // sent go; any recorded meanwhile stay for the next upload.
    bool emptied = false;
    {
        std::lock_guard<std::mutex> l(cacheLock_);
        cache_.erase(cache_.begin(), cache_.begin() + static_cast<std::ptrdiff_t>(
                                                          std::min(events.size(), cache_.size())));
        emptied = cache_.empty();
    }
    if (emptied) {
        std::error_code ec;
        fs::remove(cachePath(bundleID_), ec);
    } else {
        writeCacheOnThread();
    }
    std::string error;
    KTPlistPtr when = KTPlist::newDate(now());
    if (!appPreferences().setPlist("lastSubmission", when.get(), &error))
        KTLog::appendLog("Unable to save the submission date. %@", error);
}

void KTQC::setQCLogging(bool on) {
    std::string error;
    if (!qcPreferences().setBool("logQC", on, &error))
        KTLog::appendLog("Unable to save the analytics setting. %@", error);
    shouldLog_ = on;
    if (on) return;
    // Off means nothing more leaves this machine, so what waits is dropped too.
    {
        std::lock_guard<std::mutex> l(cacheLock_);
        cache_.clear();
    }
    std::error_code ec;
    if (!bundleID_.empty()) fs::remove(cachePath(bundleID_), ec);
}

void KTQC::willTerminate() {
    std::unique_ptr<KTOperationQueue> queue;
    {
        std::lock_guard<std::mutex> l(queueLock_);
        queue = std::move(opQueue_);
    }
    if (!queue) return;
    queue->cancelAllOperations();
    queue.reset();  // waits for the operation running now
    if (services_.transport) services_.transport->cancelAll();
    writeCacheOnThread();
}
