#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <gio/gio.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

#include "support/ScratchRoot.h"

namespace {

void writeApp(const std::string& bundle, const std::string& identifier) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               identifier + "</string></dict></plist>");
}

}  // namespace

TEST(KTLinuxWorkspaceTest, FindsBundlesInBothApplicationFoldersOneLevelDown) {
    ScratchRoot scratch;
    writeApp(scratch.rootPath("/Applications/Final Cut Express.app"), "com.apple.FinalCutExpress");
    writeApp(scratch.rootPath("/Applications/Avid/Symphony.app"), "com.avid.Symphony");
    writeApp(scratch.homePath("/Applications/Mine.app"), "org.example.mine");
    // Two folders down is out of reach, and a folder without ".app" is no application.
    writeApp(scratch.rootPath("/Applications/A/B/Deep.app"), "org.example.deep");
    writeApp(scratch.rootPath("/Applications/NotAnApp"), "org.example.plain");
    ScratchRoot::makeDirs(scratch.rootPath("/Applications/Empty.app"));

    KTLinuxWorkspace workspace;
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("com.apple.FinalCutExpress"),
              scratch.rootPath("/Applications/Final Cut Express.app"));
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("com.avid.Symphony"),
              scratch.rootPath("/Applications/Avid/Symphony.app"));
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("org.example.mine"),
              scratch.homePath("/Applications/Mine.app"));
    EXPECT_FALSE(workspace.knowsApplication("org.example.deep"));
    EXPECT_FALSE(workspace.knowsApplication("org.example.plain"));
    // Identifiers are matched exactly: the lower-case spelling is another application.
    EXPECT_FALSE(workspace.knowsApplication("com.avid.symphony"));
}

TEST(KTLinuxWorkspaceTest, KeepsItsListUntilRefreshed) {
    ScratchRoot scratch;
    KTLinuxWorkspace workspace;
    EXPECT_FALSE(workspace.knowsApplication("org.example.late"));
    writeApp(scratch.rootPath("/Applications/Late.app"), "org.example.late");
    EXPECT_FALSE(workspace.knowsApplication("org.example.late"));
    workspace.refreshApplications();
    EXPECT_TRUE(workspace.knowsApplication("org.example.late"));
}

namespace {

/// A launchable bundle whose executable (a script) runs until SIGTERM.
std::string writeLaunchableApp(const std::string& bundle, const std::string& identifier,
                               mode_t mode = 0755) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               identifier +
                               "</string><key>CFBundleExecutable</key><string>run</string>"
                               "</dict></plist>");
    const std::string executable = bundle + "/Contents/MacOS/run";
    ScratchRoot::writeFile(executable, "#!/bin/sh\nwhile :; do sleep 0.05; done\n");
    ::chmod(executable.c_str(), mode);
    return executable;
}

/// Polls `done` for up to 10 seconds.
bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

}  // namespace

TEST(KTLinuxWorkspaceTest, ProcessesThatEndWhileTheListIsReadAreLeftOut) {
    // Processes come and go while /proc is read: one that ends between the
    // open of its command line and the read makes the read fail (ESRCH),
    // which must cost that process its place in the answer, nothing more.
    ScratchRoot scratch;
    writeLaunchableApp(scratch.rootPath("/Applications/Host.app"), "org.example.Host");
    KTLinuxWorkspace workspace;
    std::atomic<bool> stop{false};
    // Many short lives, so that some end in the middle of a look.
    std::thread churn([&] {
        std::vector<pid_t> alive;
        char program[] = "/bin/sleep";
        char duration[] = "0.001";
        char* argv[] = {program, duration, nullptr};
        while (!stop) {
            pid_t pid = 0;
            if (::posix_spawn(&pid, program, nullptr, nullptr, argv, environ) == 0)
                alive.push_back(pid);
            if (alive.size() >= 16) {
                for (pid_t child : alive) ::waitpid(child, nullptr, 0);
                alive.clear();
            }
        }
        for (pid_t child : alive) ::waitpid(child, nullptr, 0);
    });
    int looks = 0;
    for (; looks < 80; ++looks) {
        try {
            EXPECT_TRUE(workspace.runningApplicationIdentifiers().empty());
        } catch (const std::exception& e) {
            ADD_FAILURE() << "look " << looks << " threw: " << e.what();
            break;
        }
    }
    stop = true;
    churn.join();
    EXPECT_EQ(looks, 80);
}

TEST(KTLinuxWorkspaceTest, LaunchesByIdentifierIgnoringCaseAndReportsLaunchAndEnd) {
    ScratchRoot scratch;
    const std::string executable =
        writeLaunchableApp(scratch.homePath("/Applications/Tools/Host.app"), "org.example.Host");
    KTLinuxWorkspace workspace;
    std::mutex lock;
    std::vector<KTWorkspaceNotice> notices;
    const int token = workspace.addNoticeObserver([&](const KTWorkspaceNotice& n) {
        std::lock_guard<std::mutex> l(lock);
        notices.push_back(n);
    });
    auto count = [&] {
        std::lock_guard<std::mutex> l(lock);
        return notices.size();
    };

    ASSERT_TRUE(workspace.launchApplication("ORG.EXAMPLE.HOST"));
    ASSERT_EQ(count(), 1u);
    EXPECT_EQ(notices[0].kind, KTWorkspaceNotice::Kind::didLaunch);
    EXPECT_EQ(notices[0].bundleIdentifier, "org.example.Host");  // as the bundle spells it
    const int pid = notices[0].processIdentifier;
    // Found in /proc by the script's path, the second word of "/bin/sh <script>".
    ASSERT_TRUE(eventually([&] {
        return workspace.runningApplicationIdentifiers() ==
               std::vector<std::string>{"org.example.Host"};
    }));
    // Its streams are not ours: a host left running holds no pipe of the caller.
    for (const char* fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd),
                  "/dev/null");
    }

    EXPECT_EQ(workspace.terminateApplication("org.example.host"), KTTerminateResult::requested);
    ASSERT_TRUE(eventually([&] { return count() == 2; }));
    EXPECT_EQ(notices[1].kind, KTWorkspaceNotice::Kind::didTerminate);
    EXPECT_EQ(notices[1].processIdentifier, pid);
    // Reaped by the watcher: no zombie is left to be found.
    EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
    EXPECT_TRUE(workspace.runningApplicationIdentifiers().empty());
    EXPECT_EQ(workspace.terminateApplication("org.example.Host"), KTTerminateResult::notRunning);

    workspace.removeNoticeObserver(token);
    EXPECT_FALSE(workspace.launchApplication("org.example.missing"));
    writeLaunchableApp(scratch.rootPath("/Applications/Broken.app"), "org.example.broken", 0644);
    EXPECT_FALSE(workspace.launchApplication("org.example.broken"));
    EXPECT_EQ(count(), 2u);
}

namespace {

/// A private message bus (dbus-daemon) for one test, and optionally a file
/// manager on it that records the URIs its ShowItems is asked for.
class PrivateBus {
  public:
    explicit PrivateBus(const std::string& folder) {
        address_ = "unix:path=" + folder + "/bus";
        // No service folders: nothing on the machine is started on demand.
        const std::string config = folder + "/bus.conf";
        ScratchRoot::writeFile(config,
                               "<busconfig><type>session</type><listen>" + address_ +
                                   "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                                   "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                   "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                                   "</busconfig>");
        const std::string configArgument = "--config-file=" + config;
        pid_ = fork();
        if (pid_ == 0) {
            execlp("dbus-daemon", "dbus-daemon", configArgument.c_str(), "--nofork", "--nopidfile",
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500 && !std::filesystem::exists(folder + "/bus"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~PrivateBus() {
        if (loop_) g_main_loop_quit(loop_);
        if (service_.joinable()) service_.join();
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    const std::string& address() const { return address_; }

    /// Serves org.freedesktop.FileManager1 on a thread of its own.
    void startFileManager() {
        std::promise<void> ready;
        service_ = std::thread([this, &ready] {
            GMainContext* context = g_main_context_new();
            g_main_context_push_thread_default(context);
            GDBusConnection* c = g_dbus_connection_new_for_address_sync(
                address_.c_str(),
                GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                     G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                nullptr, nullptr, nullptr);
            GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
                "<node><interface name='org.freedesktop.FileManager1'><method name='ShowItems'>"
                "<arg type='as' direction='in'/><arg type='s' direction='in'/></method>"
                "</interface></node>",
                nullptr);
            static const GDBusInterfaceVTable vtable = {
                [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                   GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self) {
                    GVariantIter* uris = nullptr;
                    const gchar* startup = nullptr;
                    g_variant_get(parameters, "(as&s)", &uris, &startup);
                    for (const gchar* uri = nullptr; g_variant_iter_loop(uris, "&s", &uri);)
                        static_cast<PrivateBus*>(self)->shown_.push_back(uri);
                    g_variant_iter_free(uris);
                    g_dbus_method_invocation_return_value(invocation, nullptr);
                },
                nullptr,
                nullptr,
                {}};
            g_dbus_connection_register_object(c, "/org/freedesktop/FileManager1",
                                              node->interfaces[0], &vtable, this, nullptr, nullptr);
            GVariant* owned = g_dbus_connection_call_sync(
                c, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "RequestName", g_variant_new("(su)", "org.freedesktop.FileManager1", 0u), nullptr,
                G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
            if (owned) g_variant_unref(owned);
            loop_ = g_main_loop_new(context, false);
            ready.set_value();
            g_main_loop_run(loop_);
            g_main_loop_unref(loop_);
            g_dbus_node_info_unref(node);
            g_dbus_connection_close_sync(c, nullptr, nullptr);
            g_object_unref(c);
            g_main_context_pop_thread_default(context);
            g_main_context_unref(context);
        });
        ready.get_future().wait();
    }
    std::vector<std::string> shown() {
        // Read on the service's own thread's terms: the call has returned by now.
        return shown_;
    }

  private:
    std::string address_;
    pid_t pid_ = -1;
    std::thread service_;
    GMainLoop* loop_ = nullptr;
    std::vector<std::string> shown_;
};

/// Sets an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

}  // namespace

TEST(KTLinuxWorkspaceTest, ShowsAFileThroughTheFileManagerElseOpensItsFolder) {
    ScratchRoot scratch;
    const std::string plugin = scratch.rootPath("/Library/Plug-Ins/FxPlug/A Glow.fxplug");
    ScratchRoot::makeDirs(plugin);
    // A stand-in xdg-open that notes the folder it was given.
    const std::string bin = scratch.base() + "/bin", opened = scratch.base() + "/opened";
    ScratchRoot::writeFile(bin + "/xdg-open",
                           "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + opened + "'\n");
    std::filesystem::permissions(bin + "/xdg-open", std::filesystem::perms::owner_all);
    ScopedEnv path("PATH", (bin + ":/usr/bin:/bin").c_str());
    auto openedFolders = [&] {
        // The stand-in runs on its own: wait for its whole line.
        std::string text;
        for (int i = 0; i < 500; ++i) {
            if (std::filesystem::exists(opened)) text = ScratchRoot::readFile(opened);
            if (!text.empty() && text.back() == '\n') break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return text;
    };
    KTLinuxWorkspace workspace;
    {
        PrivateBus bus(scratch.base());
        ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str());
        // A bus without a file manager: the folder goes to xdg-open.
        EXPECT_TRUE(workspace.selectFile(plugin));
        EXPECT_EQ(openedFolders(), scratch.rootPath("/Library/Plug-Ins/FxPlug") + "\n");

        // With one: the plug-in itself is shown, as a file URI.
        bus.startFileManager();
        EXPECT_TRUE(workspace.selectFile(plugin));
        EXPECT_EQ(bus.shown(),
                  std::vector<std::string>{
                      "file://" + scratch.rootPath("/Library/Plug-Ins/FxPlug/A%20Glow.fxplug")});
    }
    // No session at all: xdg-open again.
    std::filesystem::remove(opened);
    ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", nullptr);
    EXPECT_TRUE(workspace.selectFile(plugin));
    EXPECT_EQ(openedFolders(), scratch.rootPath("/Library/Plug-Ins/FxPlug") + "\n");
    // Without a bus and without xdg-open there is nothing to show it with.
    ScopedEnv bare("PATH", "/nonexistent");
    EXPECT_FALSE(workspace.selectFile(plugin));
}
