#include "hox/testing/assertion_reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(AssertionReports, KeepBothReportsOfEachFailure) {
    const AssertionReports reports;
    EXPECT_THAT(reports.all(), IsEmpty());
    CppUtil::getAssertion().assertTrue(false, "a[0] > 0", "why", "f", 1);
    CppUtil::getAssertion().assertTrue(true, "b", "f", 2);
    CppUtil::getAssertion().assertTrue(false, "c", "f", 3);
    EXPECT_THAT(
        reports.all(),
        ElementsAre("Assertion failed: [a[0] > 0] \nat:f:1\nwhy\n", "Stacktrace: Not available",
                    "Assertion failed: [c] \nat:f:3\n", "Stacktrace: Not available"));
    EXPECT_THAT(reports.conditions(), ElementsAre("a[0] > 0", "c"));
}

TEST(AssertionReports, ComeFromAnyThread) {
    const AssertionReports reports;
    const auto fail = [] { HOX_ASSERT(1 + 1 == 3); };
    std::thread one(fail);
    std::thread other(fail);
    EXPECT_LE(reports.conditions().size(), 2U);
    one.join();
    other.join();
    EXPECT_THAT(reports.conditions(), ElementsAre("1 + 1 == 3", "1 + 1 == 3"));
}

TEST(AssertionReportsDeathTest, LeaveTheDefaultsBehind) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            { const AssertionReports reports; }
            CppUtil::getAssertion().assertTrue(false, "x", "f", 1);
        },
        ::testing::KilledBySignal(SIGABRT), "^Assertion failed: \\[x\\]");
}

}  // namespace
}  // namespace Hox::Testing
