#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SharedFiles/linux/KTTaskProcess.h"

/// The running privileged helper: the administrator right as this platform
/// keeps it. Started once through an elevation command; requests from any
/// thread are answered one at a time; destroying it closes the connection,
/// upon which the helper finishes its tools and exits.
class KTPrivilegedHelper {
  public:
    /// Starts `command` (elevation words followed by the helper's path) and
    /// waits for the helper to report in, which includes the time the person
    /// takes at polkit's prompt. A `password` is fed to the elevation tool
    /// first ("sudo -S"). The helper is told the system root this process
    /// runs with. From here until the helper is gone this process is not
    /// dumpable and no child it starts keeps the channel. Null when no helper
    /// came up (refused, cancelled, tool missing).
    static std::shared_ptr<KTPrivilegedHelper> start(const std::vector<std::string>& command,
                                                     const std::string* password = nullptr);

    /// The helper's path, never taken from the environment: beside the
    /// running executable when one is there (an installed program), else
    /// where the build put it (test programs).
    static std::string helperPath();
    /// The words of AMBREL_ELEVATE, or "pkexec".
    static std::vector<std::string> elevationCommand();

    ~KTPrivilegedHelper();
    KTPrivilegedHelper(const KTPrivilegedHelper&) = delete;
    KTPrivilegedHelper& operator=(const KTPrivilegedHelper&) = delete;

    /// Runs `tool` (as the program names it) with `arguments`; with `wait`
    /// the answer comes when the tool has ended. 0 launched, -2 no such
    /// tool, KTAuthorization::kStatusRefused refused or helper gone,
    /// KTAuthorization::kStatusFailed the step failed and was undone.
    std::int32_t run(const std::string& tool, const std::vector<std::string>& arguments, bool wait);
    /// False once the helper has gone away.
    bool isAlive() const;

  private:
    KTPrivilegedHelper(int fd, KTTaskHandle process) : fd_(fd), process_(std::move(process)) {}

    mutable std::mutex lock_;
    int fd_;
    KTTaskHandle process_;
    bool alive_ = true;
};
