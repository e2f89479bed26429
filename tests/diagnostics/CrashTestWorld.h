#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "SharedFiles/KTWorkspace.h"
#include "SharedFiles/linux/KTLinuxWorkspace.h"
#include "diagnostics/KTCrashTestHost.h"
#include "diagnostics/KTCrashTestJournal.h"
#include "diagnostics/KTCrashTester.h"
#include "operations/OperationsTestSupport.h"

/// A scratch tree for the crash tester, with fake hosts: ".app" bundles whose
/// executable is a shell script. The waits are shrunk (30 s to 0.9 s).
struct CrashTestWorld : OperationsWorld {
    CrashTestWorld() {
        ::setenv("AMBREL_TIME_SCALE", "0.03", 1);
        // A fresh launcher per test: no notices or watched children carry over.
        KTWorkspace::setShared(std::make_shared<KTLinuxWorkspace>());
    }
    ~CrashTestWorld() {
        killHosts();
        ::unsetenv("AMBREL_TIME_SCALE");
    }
    /// Hosts that survived are left running by the tester; not by the test.
    void killHosts() {
        for (int i = 0; i < 100; ++i) {
            const auto running = KTLinuxWorkspace::runningApplications();
            if (running.empty()) return;
            for (const auto& [pid, identifier] : running) ::kill(pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    /// A host that crashes (SIGSEGV) at start while any of `crashers` (real
    /// paths) exists, and otherwise runs until SIGTERM (or a minute).
    std::string host(const std::string& identifier, const std::vector<std::string>& crashers,
                     const std::string& bundle = "/Applications/Host.app") {
        std::string script = "#!/bin/sh\n";
        for (const std::string& path : crashers)
            script += "[ -e '" + path + "' ] && kill -SEGV $$\n";
        script += "i=0; while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n";
        return writeHost(identifier, script, bundle, 0755);
    }
    /// Crashes at once, or after `delay` (e.g. "0.05" seconds, so that a
    /// watcher has time to see each round).
    std::string alwaysCrashingHost(const std::string& identifier, const std::string& delay = "") {
        return writeHost(
            identifier,
            "#!/bin/sh\n" + (delay.empty() ? "" : "sleep " + delay + "\n") + "kill -SEGV $$\n",
            "/Applications/Host.app", 0755);
    }
    std::string notExecutableHost(const std::string& identifier) {
        return writeHost(identifier, "#!/bin/sh\nexit 0\n", "/Applications/Host.app", 0644);
    }

    std::string writeHost(const std::string& identifier, const std::string& script,
                          const std::string& bundle, mode_t mode) {
        const std::string app = scratch.rootPath(bundle);
        ScratchRoot::writeFile(app + "/Contents/Info.plist",
                               "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                               "<key>CFBundleIdentifier</key><string>" +
                                   identifier +
                                   "</string><key>CFBundleExecutable</key><string>host</string>"
                                   "</dict></plist>");
        const std::string executable = app + "/Contents/MacOS/host";
        ScratchRoot::writeFile(executable, script);
        ::chmod(executable.c_str(), mode);
        return executable;
    }

    /// FxPlug bundles P1 ... Pn in the machine's folder; answers their paths.
    std::vector<std::string> fxPlugs(int n) {
        std::vector<std::string> paths;
        for (int i = 1; i <= n; ++i) {
            paths.push_back(fx("/P" + std::to_string(i) + ".fxplug"));
            ScratchRoot::writeFile(paths.back() + "/Contents/Info.plist", "x");
        }
        return paths;
    }

    KTCrashTester& tester() { return app->crashTester(); }
    /// The candidates in the order the test takes them.
    std::vector<std::string> testList(int hostIndex = 0) {
        return tester().crashTestList(KTCrashTestHost::forIndex(hostIndex));
    }
    KTCrashTestOutcome run(int hostIndex, bool halving) {
        tester().setHostIndex(hostIndex);
        tester().setHalving(halving);
        KTCrashTestOutcome outcome = tester().runCrashTest();
        app->waitForReload();
        return outcome;
    }
    /// Which of `paths` are not at their enabled place.
    std::vector<std::string> missing(const std::vector<std::string>& paths) const {
        std::vector<std::string> out;
        for (const std::string& p : paths)
            if (!pathExists(p)) out.push_back(p);
        return out;
    }
};
