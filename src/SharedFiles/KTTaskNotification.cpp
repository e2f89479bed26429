#include "SharedFiles/KTTaskNotification.h"

#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

#include "SharedFiles/KTLog.h"

namespace {

std::mutex gConnectorLock;
std::shared_ptr<KTCompanionConnector> gConnector;

std::string processName() {
    return program_invocation_short_name;
}

void withCompanion(const char* method, const std::function<void(KTCompanionCallback&)>& send) {
    std::shared_ptr<KTCompanionConnector> connector;
    {
        std::lock_guard<std::mutex> guard(gConnectorLock);
        connector = gConnector;
    }
    if (!connector) return;
    try {
        auto proxy = connector->lookup("KTVessaClientCallback");
        if (!proxy) proxy = connector->lookup("KTOrrinClientCallback");
        if (!proxy) return;
        send(*proxy);
        // Gives the companion a moment to take the message before the
        // connection goes.
        std::this_thread::sleep_for(std::chrono::microseconds(15000));
    } catch (const std::exception& e) {
        KTException::logException(e, method);
    }
}

void sendIfAnswered(KTCompanionCallback& proxy, const std::string& message,
                    const std::vector<std::string>& arguments = {}) {
    if (proxy.respondsToMessage(message)) proxy.sendMessage(message, arguments);
}

}  // namespace

void KTTaskNotification::setConnector(std::shared_ptr<KTCompanionConnector> connector) {
    std::lock_guard<std::mutex> guard(gConnectorLock);
    gConnector = std::move(connector);
}

void KTTaskNotification::postIncrementProgress() {
    withCompanion("+[KTTaskNotification postIncrementProgress]",
                  [](KTCompanionCallback& p) { sendIfAnswered(p, "incrementRemoteProgress"); });
}

void KTTaskNotification::postTaskFinished() {
    withCompanion("+[KTTaskNotification postTaskFinished]",
                  [](KTCompanionCallback& p) { sendIfAnswered(p, "postFinishedTask"); });
}

void KTTaskNotification::postDisconnect() {
    withCompanion("+[KTTaskNotification postDisconnect]",
                  [](KTCompanionCallback& p) { sendIfAnswered(p, "postDisconnect", {""}); });
}

void KTTaskNotification::postTaskError(const std::string& error) {
    withCompanion("+[KTTaskNotification postTaskError:]", [&](KTCompanionCallback& p) {
        if (p.respondsToMessage("postError:forApp:")) {
            p.sendMessage("postError:forApp:", {error, processName()});
        } else {
            sendIfAnswered(p, "postError:", {error});
        }
    });
}

void KTTaskNotification::postTaskErrorString(const std::string& message) {
    withCompanion("+[KTTaskNotification postTaskErrorString:]", [&](KTCompanionCallback& p) {
        if (p.respondsToMessage("postErrorString:userInfo:")) {
            p.sendMessage("postErrorString:userInfo:", {message, "appName", processName()});
        } else {
            sendIfAnswered(p, "postErrorString:", {message});
        }
    });
}
