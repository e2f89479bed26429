#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "app/core/AppController.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "support/ScratchRoot.h"
#include "support/ScriptedUserInterface.h"

/// A scratch tree with a window-less controller over it; `withInterface`
/// gives the controller a scripted interface, as the window would.
struct OperationsWorld {
    ScratchRoot scratch;
    std::unique_ptr<AppController> app;
    std::shared_ptr<ScriptedUserInterface> ui;

    OperationsWorld() {
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
        KTFileMover::setPrivilegedPauseSecondsForTesting(0);
        KTLog::resetForTesting();
        app = AppController::initWithoutGUI();
    }
    ~OperationsWorld() {
        if (app) app->waitForBatchOperations();
        if (app) app->waitForReload();
        app.reset();
        KTLog::finishWriting();
        KTLog::resetForTesting();
    }

    void withInterface() {
        ui = std::make_shared<ScriptedUserInterface>();
        app->setUserInterface(ui);
        app->setHasGUI(true);
    }
    void load() {
        app->loadPluginData();
        outline().waitForBundleInspection();
    }
    OutlineViewController& outline() { return app->outlineViewController(); }
    std::shared_ptr<KTPluginItem> plugin(const std::string& fileName) {
        for (auto& p : outline().allPlugins())
            if (p->fileName() == fileName) return p;
        return nullptr;
    }
    std::shared_ptr<KTGroupItem> group(const std::string& subdir) {
        return outline().groupMatchingSubdir(subdir);
    }
    std::string disabled() const { return KTPluginLocations::disabledPath(); }
    /// Where a real path is mirrored below the disabled folder.
    std::string mirror(const std::string& path) const {
        return KTPluginLocations::disabledPathForPath(path);
    }
    std::string fx(const std::string& rel = "") const {
        return scratch.rootPath("/Library/Plug-Ins/FxPlug") + rel;
    }
    std::string userFx(const std::string& rel = "") const {
        return scratch.homePath("/Library/Plug-Ins/FxPlug") + rel;
    }
    /// Everything logged so far.
    std::string log() const {
        KTLog::finishWriting();
        std::ifstream in(KTLog::currentLogPath());
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    /// The names in the Trash.
    std::string trash() const {
        std::string names;
        std::error_code ec;
        for (auto& e :
             std::filesystem::directory_iterator(scratch.homePath("/.local/share/Trash/files"), ec))
            names += e.path().filename().string() + "\n";
        return names;
    }
};

inline bool pathExists(const std::string& p) {
    std::error_code ec;
    return std::filesystem::symlink_status(p, ec).type() != std::filesystem::file_type::not_found;
}
