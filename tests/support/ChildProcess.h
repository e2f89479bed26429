#pragma once

#include <string>
#include <vector>

/// Runs a program of ours as a child process and collects what it printed.
struct ChildProcess {
    int exitCode = -1;
    std::string out;
    std::string err;

    /// Runs `argv` (argv[0] a path) with the current environment and waits.
    static ChildProcess run(const std::vector<std::string>& argv);
    /// The path of a program built beside `ambrel` (AMBREL_BIN, set by ctest).
    static std::string builtProgram(const std::string& name);
};
