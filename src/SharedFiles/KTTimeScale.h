#pragma once

#include <chrono>

/// Every fixed wait and poll of the program (the pauses after privileged
/// steps, the crash tester's polls and limits, ...) goes through `scaled`, so
/// that AMBREL_TIME_SCALE, a positive decimal, can shrink them for tests
/// without changing what is waited for. Unset or not a positive number: 1.
class KTTimeScale {
  public:
    /// The factor AMBREL_TIME_SCALE asks for, read afresh on each call.
    static double factor();

    template <class Rep, class Period>
    static std::chrono::nanoseconds scaled(std::chrono::duration<Rep, Period> duration) {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double, std::nano>(duration) * factor());
    }
};
