#include "hox/testing/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/spdlog.h>

#include <sstream>
#include <thread>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::shared_ptr<spdlog::logger> logger(const std::string& name) {
    return Log::getLogsystem()->getLogger(name);
}

void say(spdlog::logger& logger, spdlog::level::level_enum level, const std::string& text) {
    logger.log(Log::here(), level, "{}", text);
}

class LogCaptureTest : public ::testing::Test {
protected:
    void TearDown() override { spdlog::drop_all(); }
};

TEST_F(LogCaptureTest, RecordsNameLevelAndTextInOrder) {
    const LogCapture capture;
    say(*logger("a"), spdlog::level::trace, "one");
    say(*logger("b"), spdlog::level::critical, "two");
    EXPECT_THAT(capture.records(), ElementsAre(LogRecord{"a", spdlog::level::trace, "one"},
                                               LogRecord{"b", spdlog::level::critical, "two"}));
}

TEST_F(LogCaptureTest, TakesLoggersThatExistAlready) {
    const auto early = std::make_shared<spdlog::logger>("early");
    spdlog::register_logger(early);
    const LogCapture capture;
    say(*early, spdlog::level::info, "seen");
    EXPECT_THAT(capture.texts(), ElementsAre("seen"));
}

TEST_F(LogCaptureTest, AttachesToALoggerOnce) {
    { const LogCapture first; }
    const auto kept = logger("kept");
    const LogCapture second;
    say(*kept, spdlog::level::info, "once");
    EXPECT_THAT(second.texts(), ElementsAre("once"));
}

TEST_F(LogCaptureTest, LeavesOutWhatIsBelowItsLevel) {
    const LogCapture capture(spdlog::level::warn);
    say(*logger("a"), spdlog::level::info, "low");
    say(*logger("a"), spdlog::level::warn, "high");
    EXPECT_THAT(capture.texts(), ElementsAre("high"));
}

TEST_F(LogCaptureTest, OfOneLoggerLeavesOthersAlone) {
    const LogCapture capture("mine");
    const auto other = logger("other");
    EXPECT_EQ(other->level(), spdlog::level::info);
    say(*other, spdlog::level::critical, "not for us");
    say(*logger("mine"), spdlog::level::trace, "for us");
    EXPECT_THAT(capture.texts(), ElementsAre("for us"));
}

TEST_F(LogCaptureTest, PutsLevelsBackAtTheEnd) {
    const auto early = std::make_shared<spdlog::logger>("early");
    early->set_level(spdlog::level::err);
    spdlog::register_logger(early);
    std::shared_ptr<spdlog::logger> late;
    {
        const LogCapture capture;
        late = Log::getLogsystem()->getLogger("late", spdlog::level::critical);
        EXPECT_EQ(early->level(), spdlog::level::trace);
        EXPECT_EQ(late->level(), spdlog::level::trace);
    }
    EXPECT_EQ(early->level(), spdlog::level::err);
    EXPECT_EQ(late->level(), spdlog::level::critical);
}

TEST_F(LogCaptureTest, NestedCapturesSeeTheSameRecord) {
    const LogCapture outer;
    {
        const LogCapture inner("a", spdlog::level::debug);
        say(*logger("a"), spdlog::level::debug, "both");
        EXPECT_THAT(inner.texts(), ElementsAre("both"));
    }
    EXPECT_THAT(outer.texts(), ElementsAre("both"));
    EXPECT_EQ(logger("a")->level(), spdlog::level::trace);
}

TEST_F(LogCaptureTest, AnswersQuestionsAboutTexts) {
    LogCapture capture;
    say(*logger("a"), spdlog::level::info, "one");
    say(*logger("b"), spdlog::level::warn, "two");
    say(*logger("a"), spdlog::level::info, "three");
    EXPECT_THAT(capture.textsAt(spdlog::level::info), ElementsAre("one", "three"));
    EXPECT_THAT(capture.textsOf("b"), ElementsAre("two"));
    EXPECT_TRUE(capture.contains("two"));
    EXPECT_FALSE(capture.contains("tw"));
    EXPECT_TRUE(capture.containsInOrder({"one", "three"}));
    EXPECT_FALSE(capture.containsInOrder({"three", "one"}));
    EXPECT_FALSE(capture.containsInOrder({"one", "one"}));
    capture.clear();
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(LogCaptureTest, ForgetsWhatWasLoggedBefore) {
    const auto early = [] {
        const LogCapture capture;
        return logger("early");
    }();
    say(*early, spdlog::level::critical, "before");
    const LogCapture capture;
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(LogCaptureTest, TakesRecordsFromSeveralThreads) {
    const LogCapture capture;
    constexpr int perThread = 100;
    const auto work = [] {
        for (int i = 0; i < perThread; ++i) {
            say(*logger("shared"), spdlog::level::info, "text");
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(capture.records().size(), 2U * perThread);
}

TEST(LogRecord, PrintsForTestMessages) {
    std::ostringstream out;
    out << LogRecord{"name", spdlog::level::warn, "text"};
    EXPECT_EQ(out.str(), "[warning][name] text");
}

}  // namespace
}  // namespace Hox::Testing
