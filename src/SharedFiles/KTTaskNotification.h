#pragma once

#include <memory>
#include <string>
#include <vector>

/// The callback object of a companion program of the suite, reached over an
/// inter-process connection. Messages are named as the companion knows them
/// ("postErrorString:userInfo:"); arguments are texts, a dictionary given
/// as alternating keys and values.
class KTCompanionCallback {
  public:
    virtual ~KTCompanionCallback() = default;
    virtual bool respondsToMessage(const std::string& message) const = 0;
    virtual void sendMessage(const std::string& message,
                             const std::vector<std::string>& arguments) = 0;
};

/// Finds a companion's callback object registered under a name on this
/// machine; null when none runs.
class KTCompanionConnector {
  public:
    virtual ~KTCompanionConnector() = default;
    virtual std::shared_ptr<KTCompanionCallback> lookup(const std::string& name) = 0;
};

/// Reports progress and failures of long operations to a companion program
/// ("KTVessaClientCallback", else "KTOrrinClientCallback"), if one runs.
/// No transport is installed by default, so every call does nothing and
/// costs nothing; a D-Bus connector can be installed with `setConnector`.
class KTTaskNotification {
  public:
    static void postIncrementProgress();
    static void postTaskFinished();
    /// An error object, given by its description.
    static void postTaskError(const std::string& error);
    static void postTaskErrorString(const std::string& message);
    static void postDisconnect();

    /// Installs the way to reach companions; null removes it.
    static void setConnector(std::shared_ptr<KTCompanionConnector> connector);
};
