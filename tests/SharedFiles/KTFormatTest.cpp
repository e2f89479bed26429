#include "SharedFiles/KTFormat.h"

#include <gtest/gtest.h>

TEST(KTFormatTest, PlatformConversionsTakeTypedArguments) {
    EXPECT_EQ(KTFormat::str("%@ moved to %@", "Glow.fxplug", std::string("/L")),
              "Glow.fxplug moved to /L");
    EXPECT_EQ(KTFormat::str("%i of %li, %d", 3, 10L, -2), "3 of 10, -2");
    EXPECT_EQ(KTFormat::str("%0.2f GB", 7.5), "7.50 GB");
    EXPECT_EQ(KTFormat::str("%s", "plain"), "plain");
    EXPECT_EQ(KTFormat::str("100%%"), "100%");
}

TEST(KTFormatTest, MismatchedOrMissingArgumentsNeverReadGarbage) {
    EXPECT_EQ(KTFormat::str("%i", "text"), "text");
    EXPECT_EQ(KTFormat::str("%@ and %@", "one"), "one and ");
    EXPECT_EQ(KTFormat::str("%@", nullptr), "(null)");
    EXPECT_EQ(KTFormat::str("trailing %"), "trailing ");
}

TEST(KTFormatTest, ArgumentsAreNeverReadAsFormats) {
    EXPECT_EQ(KTFormat::str("file %@", "50%@ %s.plugin"), "file 50%@ %s.plugin");
}
