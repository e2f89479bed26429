// The privileged helper: started as root through pkexec or sudo by the
// program's KTAuthorization, it runs the file tools of the privileged
// operations for its parent and nothing else. Requests arrive on standard
// input, answers leave on standard output (see KTHelperChannel); refusals
// go to standard error. It ends when its parent closes the connection.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/linux/KTHelperChannel.h"
#include "SharedFiles/linux/KTHelperPolicy.h"
#include "SharedFiles/linux/KTTaskProcess.h"
#include "SharedFiles/linux/KTToolPaths.h"

namespace {

constexpr int kMaxDroppedLines = 16;

void refuse(const std::string& why) {
    std::fprintf(stderr, "ambrel-helper: refused: %s\n", why.c_str());
}

}  // namespace

int main() {
    // Nothing of the caller's environment reaches a root process: no tool
    // stand-ins, no system root, no loader variables.
    clearenv();
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    umask(022);
    signal(SIGPIPE, SIG_IGN);

    if (geteuid() != 0) {
        std::fprintf(stderr, "ambrel-helper: must run as root\n");
        return 1;
    }

    KTHelperChannel channel(STDIN_FILENO, STDOUT_FILENO);
    if (!channel.writeAll("ready\n")) return 1;
    // Lines before the marker are what the elevation tool left unread
    // (password lines fed to "sudo -S"): dropped unseen.
    for (int dropped = 0;; ++dropped) {
        auto line = channel.readLine();
        if (!line || dropped > kMaxDroppedLines) return 1;
        if (*line == "begin") break;
    }

    std::list<std::shared_ptr<KTTaskProcess>> running;
    for (;;) {
        auto request = channel.readRequest();
        if (!request) break;
        running.remove_if([](const auto& p) { return !p->isRunning(); });

        if (auto why = KTHelperPolicy::refusal(request->fields)) {
            refuse(*why);
            if (!channel.sendStatus(KTAuthorization::kStatusRefused)) break;
            continue;
        }
        const std::string& tool = request->fields[0];
        auto real = KTToolPaths::resolveSystem(tool);
        if (!real || access(real->c_str(), X_OK) != 0) {
            if (!channel.sendStatus(-2)) break;
            continue;
        }
        std::vector<std::string> args(request->fields.begin() + 1, request->fields.end());
        auto process = std::make_shared<KTTaskProcess>(
            tool, *real, args,
            std::map<std::string, std::string>{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}});
        // The tool must never write into the answer stream.
        int rc = process->launch(KTTaskProcess::kNullDevice, KTTaskProcess::kNullDevice,
                                 KTTaskProcess::kInherit);
        if (rc != 0) {
            refuse("unable to start " + tool);
            if (!channel.sendStatus(KTAuthorization::kStatusRefused)) break;
            continue;
        }
        if (request->wait) {
            process->waitUntilExit();
        } else {
            running.push_back(process);
        }
        if (!channel.sendStatus(0)) break;
    }
    // The parent is gone; let the tools it started finish before leaving.
    for (auto& p : running) p->waitUntilExit();
    return 0;
}
