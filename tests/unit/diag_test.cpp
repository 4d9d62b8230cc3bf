#include <gtest/gtest.h>

#include "diag.h"

TEST(StrSprintf, FormatsLongTextsWithoutLimit) {
    std::string big(100000, 'x');
    EXPECT_EQ(hvlib::str_sprintf("<%s>", big.c_str()).size(), big.size() + 2);
    EXPECT_EQ(hvlib::str_sprintf("%d %s", -7, "x"), "-7 x");
}

TEST(DiagDeathTest, ReportsCarryTheirExactWords) {
    EXPECT_EXIT(hvlib::fatal_error("No HVN credentials found"), testing::ExitedWithCode(1),
                "^Fatal Error: No HVN credentials found\n$");
    EXPECT_EXIT(hvlib::fatal_error("Couldn't write '%s': %s\n", "f", "e"),
                testing::ExitedWithCode(1), "^Fatal Error: Couldn't write 'f': e\n\n$");
    EXPECT_EXIT(hvlib::precondition_failed("port >= -1", "src/relaytool", 69),
                testing::KilledBySignal(SIGABRT),
                "^src/relaytool:69: failed precondition 'port >= -1'\n$");
}
