#include "hox/service_common/service_initializer/service_initialize_assert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <csignal>
#include <memory>
#include <string>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/testing/log_capture.h"

namespace Hox::Service {
namespace {

using ::testing::ElementsAre;
using Testing::LogRecord;

constexpr auto loggerName = "assertion_handler";

class InitAssertion : public ::testing::Test {
protected:
    InitAssertion() { spdlog::drop_all(); }
    ~InitAssertion() override {
        CppUtil::getAssertion().setAbortOnFailure(true);
        CppUtil::getAssertion().setOutputHandler(nullptr);
        spdlog::drop_all();
        Log::setLogsystem(nullptr);
    }
};

TEST_F(InitAssertion, LogsBothReportsAndGoesOn) {
    const Testing::LogCapture capture;
    initAssertion(false);
    CppUtil::getAssertion().assertTrue(false, "fd >= 0", "{} and {0}", "file.cpp", 5);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(LogRecord{loggerName, spdlog::level::err,
                              "Assertion failed: [fd >= 0] \nat:file.cpp:5\n{} and {0}\n"},
                    LogRecord{loggerName, spdlog::level::err, "Stacktrace: Not available"}));
}

TEST_F(InitAssertion, MakesItsLoggerAtTheFirstReportAtLevelError) {
    { const Testing::LogCapture installsAQuietLogsystem("somebody else"); }
    initAssertion(false);
    EXPECT_EQ(spdlog::get(loggerName), nullptr);
    CppUtil::getAssertion().assertTrue(false, "x", "f", 1);
    ASSERT_NE(spdlog::get(loggerName), nullptr);
    EXPECT_EQ(spdlog::get(loggerName)->level(), spdlog::level::err);
}

using InitAssertionDeathTest = InitAssertion;

TEST_F(InitAssertionDeathTest, AbortsAfterBothReportsAreLogged) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const auto logger = std::make_shared<spdlog::logger>(
                loggerName, std::make_shared<spdlog::sinks::stderr_sink_st>());
            logger->set_pattern("%l|%v|");
            spdlog::register_logger(logger);
            initAssertion(true);
            CppUtil::getAssertion().assertTrue(false, "x", "f", 1);
        },
        ::testing::KilledBySignal(SIGABRT),
        ::testing::Eq("error|Assertion failed: [x] \nat:f:1\nAborting process!|\n"
                      "error|Stacktrace: Not available|\n"));
}

}  // namespace
}  // namespace Hox::Service
