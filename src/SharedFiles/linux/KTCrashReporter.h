#pragma once

#include <string>

/// Writes a crash report when the process dies of SIGSEGV, SIGBUS, SIGILL,
/// SIGFPE, SIGABRT or SIGTRAP: no system crash reporter can be relied on
/// here, so the program leaves its own in the user's Logs folder plus
/// "DiagnosticReports", where the next start looks for it.
///
/// The handler may run with the heap or the allocator's lock broken, so it
/// only makes async-signal-safe calls: everything that can be worked out
/// beforehand (the folder, the report's header, the signal names, the user
/// the file belongs to under sudo) is formatted at install time into fixed
/// buffers; the handler adds the time, the signal, the faulting address and
/// a backtrace through backtrace_symbols_fd, then puts back the handler
/// that was there before (the default, or a sanitizer's) and raises the
/// signal again, so the process still ends as it would have.
class KTCrashReporter {
  public:
    /// Installs the handler once per process; later calls do nothing.
    /// `appName` starts the report's file name ("Ambrel_<date-time>_<pid>.crash").
    /// The report names the program's path and command line as /proc shows them.
    static void install(const std::string& appName, const std::string& version);
    static bool installed();
    /// The folder reports are written to (fixed at install).
    static std::string reportFolder();
};
