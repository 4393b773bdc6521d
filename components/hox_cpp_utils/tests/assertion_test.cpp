#include "hox/cpputil/assertion/assertion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "hox/testing/assertion_reports.h"

namespace Hox::CppUtil {
namespace {

using ::testing::ElementsAre;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

/// A checker that continues after a failure and keeps its reports.
class AssertionTest : public ::testing::Test {
protected:
    AssertionTest() {
        m_assertion.setAbortOnFailure(false);
        m_assertion.setOutputHandler(
            [this](const std::string& report) { m_reports.push_back(report); });
    }

    Assertion m_assertion;
    std::vector<std::string> m_reports;
};

TEST_F(AssertionTest, DoesNothingForATrueCondition) {
    m_assertion.assertTrue(true, "fd >= 0", "a message", "file.cpp", 5);
    m_assertion.assertTrue(true, "fd >= 0", "file.cpp", 5);
    EXPECT_TRUE(m_reports.empty());
}

TEST_F(AssertionTest, ReportsTheMessageOnALineOfItsOwn) {
    m_assertion.assertTrue(false, "fd >= 0", "a message", "folder/file.cpp", 5);
    EXPECT_THAT(m_reports,
                ElementsAre("Assertion failed: [fd >= 0] \nat:folder/file.cpp:5\na message\n",
                            "Stacktrace: Not available"));
}

TEST_F(AssertionTest, ReportsNoExtraLineForAnEmptyMessage) {
    m_assertion.assertTrue(false, "!m_isInitialized", "", "f", 1);
    m_assertion.assertTrue(false, "!m_isInitialized", "f", 1);
    const auto* report = "Assertion failed: [!m_isInitialized] \nat:f:1\n";
    EXPECT_THAT(m_reports, ElementsAre(report, "Stacktrace: Not available", report,
                                       "Stacktrace: Not available"));
}

TEST_F(AssertionTest, AsksTheProviderForTheStacktrace) {
    int asked = 0;
    m_assertion.setStacktraceProvider([&asked] {
        ++asked;
        return std::string("frame 0\nframe 1");
    });
    m_assertion.assertTrue(true, "x", "f", 1);
    EXPECT_EQ(asked, 0);
    m_assertion.assertTrue(false, "x", "f", 1);
    EXPECT_THAT(m_reports,
                ElementsAre("Assertion failed: [x] \nat:f:1\n", "Stacktrace:\nframe 0\nframe 1"));
}

TEST_F(AssertionTest, WritesToStandardErrorWithoutAHandler) {
    m_assertion.setOutputHandler(nullptr);
    CaptureStderr();
    m_assertion.assertTrue(false, "x", "why", "f", 1);
    EXPECT_EQ(GetCapturedStderr(),
              "Assertion failed: [x] \nat:f:1\nwhy\n\nStacktrace: Not available\n");
}

using AssertionDeathTest = AssertionTest;

TEST_F(AssertionDeathTest, AbortsByDefaultAfterBothReports) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(Assertion().assertTrue(false, "x", "why", "f", 1),
                ::testing::KilledBySignal(SIGABRT),
                ::testing::Eq("Assertion failed: [x] \nat:f:1\nwhy\nAborting process!\n"
                              "Stacktrace: Not available\n"));
}

TEST_F(AssertionDeathTest, GivesTheHandlerBothReportsBeforeItAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    m_assertion.setAbortOnFailure(true);
    m_assertion.setOutputHandler(
        [](const std::string& report) { std::cerr << "{" << report << "}"; });
    EXPECT_EXIT(m_assertion.assertTrue(false, "x", "f", 1), ::testing::KilledBySignal(SIGABRT),
                ::testing::Eq("{Assertion failed: [x] \nat:f:1\nAborting process!}"
                              "{Stacktrace: Not available}"));
}

TEST_F(AssertionDeathTest, OfTheProcessAbortsUntilSaidOtherwise) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(getAssertion().assertTrue(false, "x", "f", 1), ::testing::KilledBySignal(SIGABRT),
                ::testing::Eq("Assertion failed: [x] \nat:f:1\nAborting process!\n"
                              "Stacktrace: Not available\n"));
}

TEST(AssertionMacros, PassSourceTextAndPlace) {
    const Testing::AssertionReports reports;
    const int fd = -1;
    HOX_ASSERT(fd >= 0);
    const int line = __LINE__ - 1;
    HOX_ASSERT_MSG(fd >= 0, "no descriptor");
    const auto report = [](int at) {
        return "Assertion failed: [fd >= 0] \nat:" + std::string(__FILE__) + ":" +
               std::to_string(at) + "\n";
    };
    EXPECT_THAT(reports.all(),
                ElementsAre(report(line), "Stacktrace: Not available",
                            report(line + 2) + "no descriptor\n", "Stacktrace: Not available"));
}

TEST(AssertionMacros, TakeAConditionWithCommas) {
    const Testing::AssertionReports reports;
    HOX_ASSERT(std::array<int, 2>{1, 2}[0] == 2);
    EXPECT_THAT(reports.conditions(), ElementsAre("std::array<int, 2>{1, 2}[0] == 2"));
}

TEST(AssertionMacros, EvaluateTheConditionOnceAndTheMessageOnlyForAFailure) {
    const Testing::AssertionReports reports;
    int evaluated = 0;
    int built = 0;
    const auto message = [&built] {
        ++built;
        return std::string("text");
    };
    HOX_ASSERT_MSG(++evaluated == 1, message());
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(built, 0);
    HOX_ASSERT_MSG(++evaluated == 1, message());
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(built, 1);
}

TEST(AssertionSingleton, IsTheSameForAllThreads) {
    constexpr std::size_t count = 8;
    std::array<Assertion*, count> seen{};
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = &getAssertion(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(seen, ::testing::Each(&getAssertion()));
}

}  // namespace
}  // namespace Hox::CppUtil
