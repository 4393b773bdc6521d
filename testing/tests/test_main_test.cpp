#include <gtest/gtest.h>

#include <csignal>

namespace {

TEST(TestMainDeathTest, NamesTheTestThatRunsOutOfTime) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(static_cast<void>(std::raise(SIGALRM)),
                 "Out of time in TestMainDeathTest.NamesTheTestThatRunsOutOfTime\n");
}

}  // namespace
