#include "SharedFiles/linux/KTCrashReporter.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "SharedFiles/KTLocalPaths.h"

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP};
constexpr int kSignalCount = static_cast<int>(std::size(kSignals));

/// Everything the handler needs, formatted before any crash. Fixed arrays:
/// the handler must not allocate.
struct CrashState {
    char folder[PATH_MAX] = {};
    char appName[128] = {};
    char header[8192] = {};
    std::size_t headerLength = 0;
    bool giveToUser = false;  // root under sudo: the report goes to the person
    uid_t uid = 0;
    gid_t gid = 0;
    long gmtOffset = 0;  // local time, fixed at install (no time zone look-up in a handler)
    struct sigaction previous[kSignalCount] = {};
};

CrashState g_state;
std::atomic<bool> g_installed{false};
std::atomic<int> g_handling{0};
std::once_flag g_once;
std::string g_folder;

/// A tiny append-only buffer for the handler: no allocation, silent truncation.
struct Out {
    char* p;
    char* end;
    void text(const char* s) {
        while (*s && p < end) *p++ = *s++;
    }
    void number(unsigned long long v, int width = 0) {
        char digits[24];
        int n = 0;
        do {
            digits[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v && n < 24);
        while (n < width && n < 24) digits[n++] = '0';
        while (n > 0 && p < end) *p++ = digits[--n];
    }
    void hex(std::uintptr_t v) {
        text("0x");
        char digits[2 * sizeof v];
        int n = 0;
        do {
            digits[n++] = "0123456789abcdef"[v & 0xF];
            v >>= 4;
        } while (v && n < static_cast<int>(sizeof digits));
        while (n > 0 && p < end) *p++ = digits[--n];
    }
};

void writeAll(int fd, const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd, data, length);
        if (n <= 0) return;
        data += n;
        length -= static_cast<std::size_t>(n);
    }
}

/// Days since 1970-01-01 to a civil date (Howard Hinnant's algorithm), so
/// that no time function that may take a lock runs in the handler.
void civilFromDays(long long z, int& y, unsigned& m, unsigned& d) {
    z += 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long yy = static_cast<long long>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y = static_cast<int>(m <= 2 ? yy + 1 : yy);
}

const char* signalName(int sig) {
    switch (sig) {
        case SIGSEGV:
            return "SIGSEGV";
        case SIGBUS:
            return "SIGBUS";
        case SIGILL:
            return "SIGILL";
        case SIGFPE:
            return "SIGFPE";
        case SIGABRT:
            return "SIGABRT";
        case SIGTRAP:
            return "SIGTRAP";
    }
    return "signal";
}

void crashHandler(int sig, siginfo_t* info, void*) {
    int index = 0;
    while (index < kSignalCount && kSignals[index] != sig) ++index;
    if (g_handling.exchange(1) != 0) {
        // A second thread crashing while the first writes: let the first finish.
        for (;;) ::pause();
    }
    const int savedErrno = errno;

    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long long local = static_cast<long long>(now.tv_sec) + g_state.gmtOffset;
    long long days = local / 86400;
    long long secs = local % 86400;
    if (secs < 0) {
        secs += 86400;
        --days;
    }
    int year = 0;
    unsigned month = 0, day = 0;
    civilFromDays(days, year, month, day);

    char path[PATH_MAX + 256];
    Out name{path, path + sizeof path - 1};
    name.text(g_state.folder);
    name.text("/");
    name.text(g_state.appName);
    name.text("_");
    name.number(static_cast<unsigned long long>(year), 4);
    name.text("-");
    name.number(month, 2);
    name.text("-");
    name.number(day, 2);
    name.text("-");
    name.number(static_cast<unsigned long long>(secs / 3600), 2);
    name.number(static_cast<unsigned long long>(secs / 60 % 60), 2);
    name.number(static_cast<unsigned long long>(secs % 60), 2);
    name.text("_");
    name.number(static_cast<unsigned long long>(::getpid()));
    name.text(".crash");
    *name.p = '\0';

    ::mkdir(g_state.folder, 0755);  // removed since start-up: put it back
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        writeAll(fd, g_state.header, g_state.headerLength);
        char buffer[1024];
        Out out{buffer, buffer + sizeof buffer};
        out.text("Date/Time: ");
        out.number(static_cast<unsigned long long>(year), 4);
        out.text("-");
        out.number(month, 2);
        out.text("-");
        out.number(day, 2);
        out.text(" ");
        out.number(static_cast<unsigned long long>(secs / 3600), 2);
        out.text(":");
        out.number(static_cast<unsigned long long>(secs / 60 % 60), 2);
        out.text(":");
        out.number(static_cast<unsigned long long>(secs % 60), 2);
        out.text(g_state.gmtOffset < 0 ? " -" : " +");
        const long offset = g_state.gmtOffset < 0 ? -g_state.gmtOffset : g_state.gmtOffset;
        out.number(static_cast<unsigned long long>(offset / 3600), 2);
        out.number(static_cast<unsigned long long>(offset / 60 % 60), 2);
        out.text("\nPID: ");
        out.number(static_cast<unsigned long long>(::getpid()));
        out.text("\nSignal: ");
        out.number(static_cast<unsigned long long>(sig));
        out.text(" (");
        out.text(signalName(sig));
        out.text(")\nSignal code: ");
        out.number(static_cast<unsigned long long>(info ? info->si_code & 0xFFFF : 0));
        out.text("\nFault address: ");
        out.hex(reinterpret_cast<std::uintptr_t>(info ? info->si_addr : nullptr));
        out.text("\n\nBacktrace:\n");
        writeAll(fd, buffer, static_cast<std::size_t>(out.p - buffer));
        void* frames[128];
        const int count = ::backtrace(frames, 128);
        ::backtrace_symbols_fd(frames, count, fd);
        if (g_state.giveToUser) {
            if (::fchown(fd, g_state.uid, g_state.gid) != 0) {
            }
        }
        ::close(fd);

        char note[PATH_MAX + 512];
        Out line{note, note + sizeof note - 1};
        line.text(g_state.appName);
        line.text(" crashed (");
        line.text(signalName(sig));
        line.text("). Crash report: ");
        line.text(path);
        line.text("\n");
        writeAll(STDERR_FILENO, note, static_cast<std::size_t>(line.p - note));
    }

    // The handler that was there before (the default action, or a
    // sanitizer's, which prints its own report) ends the process.
    if (index < kSignalCount) ::sigaction(sig, &g_state.previous[index], nullptr);
    errno = savedErrno;
    ::raise(sig);
}

void copyInto(char* target, std::size_t size, const std::string& text) {
    const std::size_t n = std::min(size - 1, text.size());
    std::memcpy(target, text.data(), n);
    target[n] = '\0';
}

std::string commandLine() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    while (!raw.empty() && raw.back() == '\0') raw.pop_back();
    for (char& c : raw)
        if (c == '\0') c = ' ';
    return raw;
}

}  // namespace

void KTCrashReporter::install(const std::string& appName, const std::string& version) {
    std::call_once(g_once, [&] {
        namespace fs = std::filesystem;
        std::error_code ec;
        g_folder = KTLocalPaths::logDirectory(true) + "/DiagnosticReports";
        fs::create_directories(g_folder, ec);
        copyInto(g_state.folder, sizeof g_state.folder, g_folder);
        copyInto(g_state.appName, sizeof g_state.appName, appName);

        utsname un{};
        ::uname(&un);
        const std::string header =
            "Process: " + appName + "\nPath: " + fs::read_symlink("/proc/self/exe", ec).string() +
            "\nVersion: " + version + "\nCommand line: " + commandLine() + "\nOS: " + un.sysname +
            " " + un.release + " " + un.machine + "\n";
        copyInto(g_state.header, sizeof g_state.header, header);
        g_state.headerLength = std::strlen(g_state.header);

        // Run as root through sudo, the report belongs to the person whose
        // Logs folder it lands in.
        const char* sudoUid = std::getenv("SUDO_UID");
        const char* sudoGid = std::getenv("SUDO_GID");
        if (::geteuid() == 0 && sudoUid && sudoGid) {
            g_state.giveToUser = true;
            g_state.uid = static_cast<uid_t>(std::strtoul(sudoUid, nullptr, 10));
            g_state.gid = static_cast<gid_t>(std::strtoul(sudoGid, nullptr, 10));
        }

        const time_t now = ::time(nullptr);
        struct tm tm {};
        ::localtime_r(&now, &tm);
        g_state.gmtOffset = tm.tm_gmtoff;

        // backtrace loads its unwinder on first use; that must not happen in the handler.
        void* warm[2];
        ::backtrace(warm, 2);

        // Its own stack, so that a stack overflow can still be reported.
        static char alternateStack[256 * 1024];
        stack_t ss{};
        ss.ss_sp = alternateStack;
        ss.ss_size = sizeof alternateStack;
        ::sigaltstack(&ss, nullptr);

        struct sigaction action {};
        action.sa_sigaction = crashHandler;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        for (int i = 0; i < kSignalCount; ++i)
            ::sigaction(kSignals[i], &action, &g_state.previous[i]);
        g_installed = true;
    });
}

bool KTCrashReporter::installed() {
    return g_installed;
}

std::string KTCrashReporter::reportFolder() {
    return g_installed ? g_folder : std::string();
}
