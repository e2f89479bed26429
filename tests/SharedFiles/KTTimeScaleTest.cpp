#include "SharedFiles/KTTimeScale.h"

#include <gtest/gtest.h>
#include <stdlib.h>

using namespace std::chrono_literals;

TEST(KTTimeScaleTest, ScalesByThePositiveDecimalAndIgnoresAnythingElse) {
    struct Case {
        const char* value;
        std::chrono::nanoseconds expected;
    };
    const Case cases[] = {
        {nullptr, 30s}, {"", 30s},     {"0.01", 300ms}, {"2", 60s},    {"1e-3", 30ms},
        {"0", 30s},     {"-0.5", 30s}, {"abc", 30s},    {"0.5x", 30s}, {"inf", 30s},
    };
    for (const Case& c : cases) {
        if (c.value) {
            ::setenv("AMBREL_TIME_SCALE", c.value, 1);
        } else {
            ::unsetenv("AMBREL_TIME_SCALE");
        }
        EXPECT_EQ(KTTimeScale::scaled(30s), c.expected) << (c.value ? c.value : "(unset)");
    }
    ::setenv("AMBREL_TIME_SCALE", "0.5", 1);
    EXPECT_EQ(KTTimeScale::scaled(std::chrono::duration<double>(1.0)), 500ms);
    ::unsetenv("AMBREL_TIME_SCALE");
}
