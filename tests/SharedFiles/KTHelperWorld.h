#pragma once

// A scratch world in which the real privileged helper serves the
// unprivileged user "nobody", as it would serve a person at the desktop:
// a copy of the account database that gives nobody the scratch home, a
// sudoers rule for the helper alone, and a child process of this test
// program running as nobody, all inside a private mount namespace, so
// that nothing of the machine's own /etc changes.

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/linux/KTPrivilegedHelper.h"
#include "SharedFiles/linux/KTTaskProcess.h"
#include "support/ScratchRoot.h"

class KTHelperWorld {
  public:
    /// Why the world cannot be built here, or nothing.
    static std::optional<std::string> missing() {
        if (geteuid() != 0) return "needs root to act as another user and to mount";
        for (const char* tool : {"/usr/bin/setpriv", "/usr/bin/sudo", "/usr/bin/unshare"}) {
            if (access(tool, X_OK) != 0) return std::string("needs ") + tool;
        }
        if (!getpwnam("nobody")) return std::string("needs the user nobody");
        if (access(KTPrivilegedHelper::helperPath().c_str(), X_OK) != 0)
            return "no helper at " + KTPrivilegedHelper::helperPath();
        if (KTTaskEx::terminationCodeFromTask("/usr/bin/unshare", {"--mount", "/bin/true"}) != 0)
            return std::string("cannot make a mount namespace here");
        return std::nullopt;
    }

    KTHelperWorld() {
        const passwd* nobody = getpwnam("nobody");
        uid = nobody->pw_uid;
        gid = nobody->pw_gid;
        for (const auto& p : {scratch.base(), scratch.root(), scratch.home()})
            chmod(p.c_str(), 0755);
        lchown(scratch.home().c_str(), uid, gid);
        // The account database with nobody living in the scratch home.
        passwdCopy = scratch.base() + "/passwd";
        std::ifstream in("/etc/passwd");
        std::ofstream out(passwdCopy);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("nobody:", 0) == 0) {
                std::vector<std::string> f;
                std::stringstream s(line);
                for (std::string x; std::getline(s, x, ':');) f.push_back(x);
                f.resize(7);
                f[5] = scratch.home();
                line = f[0];
                for (size_t i = 1; i < f.size(); ++i) line += ":" + f[i];
            }
            out << line << "\n";
        }
        out.close();
        chmod(passwdCopy.c_str(), 0644);
        sudoers = scratch.base() + "/sudoers.d";
        ScratchRoot::makeDirs(sudoers);
        chmod(sudoers.c_str(), 0755);
        std::ofstream rule(sudoers + "/ambrel-helper");
        rule << "nobody ALL=(root) NOPASSWD: " << KTPrivilegedHelper::helperPath() << "\n";
        rule.close();
        chmod((sudoers + "/ambrel-helper").c_str(), 0440);
        environment = {{"HOME", scratch.home()},
                       {"AMBREL_ROOT", scratch.root()},
                       {"AMBREL_ELEVATE", "sudo -n"},
                       {"AMBREL_TEST_BASE", scratch.base()}};
    }

    /// Makes `path` (and its folders) belong to nobody.
    void giveToNobody(const std::string& path) const {
        namespace fs = std::filesystem;
        lchown(path.c_str(), uid, gid);
        std::error_code ec;
        if (!fs::is_directory(fs::symlink_status(path, ec))) return;
        for (auto it = fs::recursive_directory_iterator(path, ec); !ec && it != fs::end(it);
             it.increment(ec))
            lchown(it->path().c_str(), uid, gid);
    }

    /// Runs `<suite>.DISABLED_<scenario>` of this program as nobody with
    /// the world's environment plus `extra`; a tmpfs is mounted at
    /// `tmpfsAt` first when given. Answers the child's output.
    std::string run(const std::string& suite, const std::string& scenario, bool* passed,
                    const std::map<std::string, std::string>& extra = {},
                    const std::string& tmpfsAt = "-") const {
        std::string output =
            KTTaskEx::dataFromTask("/usr/bin/unshare", arguments(suite, scenario, tmpfsAt), nullptr,
                                   environmentWith(extra))
                .value_or("(no output)");
        *passed = output.find("[  PASSED  ] 1 test") != std::string::npos &&
                  output.find("FAILED") == std::string::npos;
        return output;
    }

    /// The same child, started and not waited for.
    KTTaskHandle start(const std::string& suite, const std::string& scenario,
                       const std::map<std::string, std::string>& extra = {}) const {
        auto task = std::make_shared<KTTaskProcess>("/usr/bin/unshare", "/usr/bin/unshare",
                                                    arguments(suite, scenario, "-"),
                                                    environmentWith(extra));
        task->launch(KTTaskProcess::kNullDevice, KTTaskProcess::kNullDevice,
                     KTTaskProcess::kNullDevice);
        return task;
    }

    std::map<std::string, std::string> environmentWith(
        const std::map<std::string, std::string>& extra) const {
        std::map<std::string, std::string> env = environment;
        for (const auto& [k, v] : extra) env[k] = v;
        env["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin";
        for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char* v = std::getenv(keep)) env[keep] = v;
        }
        return env;
    }

    std::vector<std::string> arguments(const std::string& suite, const std::string& scenario,
                                       const std::string& tmpfsAt) const {
        const std::string script =
            "mount --bind \"$1\" /etc/passwd && mount --bind \"$2\" /etc/sudoers.d && "
            "{ [ \"$3\" = - ] || mount -t tmpfs -o mode=0755 ambrel-test \"$3\"; } && "
            "shift 3 && exec \"$@\"";
        std::vector<std::string> args = {"--mount",
                                         "--propagation",
                                         "private",
                                         "/bin/sh",
                                         "-c",
                                         script,
                                         "sh",
                                         passwdCopy,
                                         sudoers,
                                         tmpfsAt,
                                         "/usr/bin/setpriv",
                                         "--reuid=nobody",
                                         "--regid=nogroup",
                                         "--clear-groups",
                                         selfPath(),
                                         "--gtest_also_run_disabled_tests",
                                         "--gtest_filter=" + suite + ".DISABLED_" + scenario};
        return args;
    }

    static std::string selfPath() {
        char buf[4096];
        ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }

    ScratchRoot scratch;
    uid_t uid;
    gid_t gid;
    std::string passwdCopy, sudoers;
    std::map<std::string, std::string> environment;
};
