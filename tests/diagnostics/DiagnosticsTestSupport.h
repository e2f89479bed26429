#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "app/core/AppController.h"
#include "support/ScratchRoot.h"
#include "support/ScriptedUserInterface.h"

/// Sets an environment variable for one test and puts the old value back.
class EnvGuard {
  public:
    EnvGuard(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~EnvGuard() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

/// A scratch root and home, a temporary-files folder inside them, and a
/// window-less controller that shows its alerts on a scripted interface.
struct DiagnosticsWorld {
    ScratchRoot scratch;
    EnvGuard tmp{"TMPDIR", scratch.base() + "/tmp"};
    std::unique_ptr<AppController> app;
    std::shared_ptr<ScriptedUserInterface> ui = std::make_shared<ScriptedUserInterface>();

    DiagnosticsWorld() {
        ScratchRoot::makeDirs(scratch.base() + "/tmp");
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
        KTLog::resetForTesting();
        app = AppController::initWithoutGUI();
        app->setUserInterface(ui);
        app->setHasGUI(true);
    }
    ~DiagnosticsWorld() {
        app.reset();
        KTLog::finishWriting();
        KTLog::resetForTesting();
    }

    /// The log file the program writes (the machine's for the superuser).
    static std::string logFile(const ScratchRoot& s, const std::string& name) {
        const std::string rel = "/Library/Logs/Quellbrook/" + name + ".1.log";
        return ::geteuid() == 0 ? s.rootPath(rel) : s.homePath(rel);
    }
    std::string log() const {
        KTLog::finishWriting();
        return read(KTLog::currentLogPath());
    }
    static std::string read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    /// Writes an executable script.
    static void writeScript(const std::string& path, const std::string& body) {
        ScratchRoot::writeFile(path, "#!/bin/sh\n" + body);
        ::chmod(path.c_str(), 0755);
    }
};

inline int countOf(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}
