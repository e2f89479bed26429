#pragma once

#include <string>
#include <vector>

class AppController;

/// The verb "-crashtest HOST [-halving]": the crash test without an
/// interface, its texts on standard output. HOST is a row of the host table,
/// by index (0 to 5) or by name. SIGINT and SIGTERM end the test through its
/// clean-up.
class KTCrashTestCommand {
  public:
    static constexpr int kCulpritFound = 0;
    static constexpr int kNotReproduced = 1;
    static constexpr int kNotCausedByPlugin = 2;
    static constexpr int kAborted = 3;

    static int run(AppController& app, const std::vector<std::string>& args);
    static std::string usage();
};
