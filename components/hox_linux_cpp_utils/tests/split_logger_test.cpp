#include "hox/linutils/log/split_logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/log/systemd_sink.h"
#include "hox/testing/journal_receiver.h"
#include "private_log_fixture.h"

namespace Hox::Log {
namespace {

using spdlog::level::info;
using spdlog::level::trace;
using spdlog::level::warn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr spdlog::source_loc place{"/folder/file.cpp", 17, "theFunction"};
constexpr std::size_t maxFileSize = 2000000;

using SplitLoggerTest = Fixture::PrivateLogFixture;

TEST_F(SplitLoggerTest, SendsInfoToTheFileAlone) {
    Testing::JournalReceiver journal;
    SplitLogger logsystem("program.log", info);
    logsystem.getLogger("name")->log(place, info, "text {}", 1);
    EXPECT_THAT(linesOf("program.log"),
                ElementsAre(MatchesRegex("\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                                         "\\.[0-9]{3}\\]\\[info\\]\\[file\\.cpp:17\\] text 1")));
    EXPECT_THAT(journal.records(), IsEmpty());
}

TEST_F(SplitLoggerTest, SendsWarningsToFileAndJournal) {
    Testing::JournalReceiver journal;
    SplitLogger logsystem("program.log", info);
    const auto logger = logsystem.getLogger("name");
    logger->log(place, warn, "text");
    logger->log(place, spdlog::level::critical, "other");
    EXPECT_THAT(linesOf("program.log"),
                ElementsAre(MatchesRegex("\\[.*\\]\\[warning\\]\\[file\\.cpp:17\\] text"),
                            MatchesRegex("\\[.*\\]\\[critical\\]\\[file\\.cpp:17\\] other")));
    EXPECT_THAT(journal.messages(), ElementsAre("[file.cpp:17] text", "[file.cpp:17] other"));
    const auto records = journal.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_THAT(records[0],
                ::testing::Contains(::testing::Pair(std::string("PRIORITY"), std::string("4"))));
}

TEST_F(SplitLoggerTest, WritesTraceOnceTheLevelAllowsIt) {
    SplitLogger logsystem("program.log", info);
    const auto logger = logsystem.getLogger("name");
    logger->log(place, trace, "silent");
    logger->set_level(trace);
    logger->log(place, trace, "seen");
    EXPECT_THAT(linesOf("program.log"),
                ElementsAre(MatchesRegex("\\[.*\\]\\[trace\\]\\[file\\.cpp:17\\] seen")));
}

TEST_F(SplitLoggerTest, KeepsTheFirstLevelOfALogger) {
    SplitLogger logsystem("program.log", warn);
    const auto logger = logsystem.getLogger("name", spdlog::level::err);
    EXPECT_EQ(logsystem.getLogger("name", trace), logger);
    EXPECT_EQ(logsystem.getLogger("name"), logger);
    EXPECT_EQ(logger->level(), spdlog::level::err);
    EXPECT_EQ(logsystem.getLogger("other")->level(), warn);
}

TEST_F(SplitLoggerTest, MakesSynchronousLoggersThatFlushEverything) {
    SplitLogger logsystem("program.log", info);
    const auto logger = logsystem.getLogger("name");
    EXPECT_EQ(std::dynamic_pointer_cast<spdlog::async_logger>(logger), nullptr);
    EXPECT_EQ(logger->flush_level(), trace);
    EXPECT_EQ(spdlog::get("name"), logger);
    ASSERT_EQ(logger->sinks().size(), 2U);
    EXPECT_NE(std::dynamic_pointer_cast<systemd_sink<std::mutex>>(logger->sinks()[0]), nullptr);
    EXPECT_EQ(logger->sinks()[0]->level(), warn);
    EXPECT_NE(std::dynamic_pointer_cast<spdlog::sinks::rotating_file_sink_mt>(logger->sinks()[1]),
              nullptr);
    EXPECT_EQ(logger->sinks()[1]->level(), trace);
    EXPECT_EQ(logsystem.getLogger("other")->sinks(), logger->sinks());
}

TEST_F(SplitLoggerTest, ReturnsALoggerThatSomebodyElseRegistered) {
    const auto foreign = std::make_shared<spdlog::logger>("foreign");
    foreign->set_level(spdlog::level::err);
    spdlog::register_logger(foreign);
    SplitLogger logsystem("program.log", trace);
    EXPECT_EQ(logsystem.getLogger("foreign"), foreign);
    EXPECT_EQ(foreign->level(), spdlog::level::err);
    EXPECT_TRUE(foreign->sinks().empty());
}

TEST_F(SplitLoggerTest, GivesAllThreadsTheSameLogger) {
    SplitLogger logsystem("program.log", info);
    constexpr std::size_t rounds = 50;
    using Seen = std::array<std::shared_ptr<spdlog::logger>, rounds>;
    std::array<Seen, 4> seen;
    std::vector<std::thread> threads;
    for (auto& mine : seen) {
        threads.emplace_back([&logsystem, &mine] {
            for (std::size_t i = 0; i < rounds; ++i) {
                mine[i] = logsystem.getLogger(std::to_string(i));
                mine[i]->log(place, info, "text");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(seen, ::testing::Each(seen[0]));
    EXPECT_EQ(linesOf("program.log").size(), seen.size() * rounds);
}

// It takes a moment to find a logger missing, create it and register it; long names make this
// moment longer.
TEST_F(SplitLoggerTest, MakesOneLoggerForTwoThreadsThatAskAtOnce) {
    SplitLogger logsystem("program.log", info);
    for (int round = 0; round < 8; ++round) {
        const std::string name = std::to_string(round) + std::string(10'000'000, 'x');
        std::array<std::shared_ptr<spdlog::logger>, 2> loggers;
        std::atomic<std::size_t> ready{0};
        const auto ask = [&](std::shared_ptr<spdlog::logger>& logger) {
            ++ready;
            while (ready < loggers.size()) {
                std::this_thread::yield();
            }
            EXPECT_NO_THROW(logger = logsystem.getLogger(name));
        };
        std::thread other([&] { ask(loggers[1]); });
        ask(loggers[0]);
        other.join();
        ASSERT_NE(loggers[0], nullptr);
        ASSERT_EQ(loggers[0], loggers[1]);
        spdlog::drop(name);
    }
}

TEST_F(SplitLoggerTest, ShutdownDropsTheLoggers) {
    SplitLogger logsystem("program.log", info);
    logsystem.getLogger("name");
    logsystem.shutdown();
    EXPECT_EQ(spdlog::get("name"), nullptr);
}

TEST_F(SplitLoggerTest, KeepsOneOlderFile) {
    SplitLogger logsystem("program.log", info);
    const auto logger = logsystem.getLogger("name");
    ASSERT_EQ(logger->sinks().size(), 2U);
    logger->sinks()[1]->set_pattern("%v");
    constexpr std::size_t lineSize = 1000;
    constexpr std::size_t linesOfAFile = maxFileSize / lineSize;
    const auto fill = [&](char letter) {
        for (std::size_t i = 0; i < linesOfAFile; ++i) {
            logger->log(place, info, "{}", std::string(lineSize - 1, letter));
        }
    };
    const auto current = std::filesystem::path(folder) / "program.log";
    const auto older = std::filesystem::path(folder) / "program.1.log";

    fill('a');
    EXPECT_EQ(std::filesystem::file_size(current), maxFileSize);
    EXPECT_FALSE(std::filesystem::exists(older));

    logger->log(place, info, "b");
    EXPECT_EQ(std::filesystem::file_size(older), maxFileSize);
    EXPECT_THAT(linesOf("program.log"), ElementsAre("b"));

    fill('c');
    const auto olderLines = linesOf("program.1.log");
    ASSERT_FALSE(olderLines.empty());
    EXPECT_EQ(olderLines.front(), "b");
    EXPECT_EQ(std::filesystem::file_size(older), maxFileSize - lineSize + 2);
    EXPECT_THAT(linesOf("program.log"), ElementsAre(std::string(lineSize - 1, 'c')));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 2);
}

TEST_F(SplitLoggerTest, AppendsToWhatIsThere) {
    std::filesystem::create_directories(folder);
    std::ofstream(std::string(folder) + "program.log") << "from before\n";
    SplitLogger logsystem("program.log", info);
    logsystem.getLogger("name")->log(place, info, "new");
    EXPECT_THAT(linesOf("program.log"),
                ElementsAre("from before", ::testing::EndsWith("[info][file.cpp:17] new")));
    EXPECT_FALSE(std::filesystem::exists(std::string(folder) + "program.1.log"));
}

TEST_F(SplitLoggerTest, FailsWithItsReasonAfterSeveralAttempts) {
    std::ofstream("/var/log/halvo") << "in the folder's place";
    const auto start = std::chrono::steady_clock::now();
    try {
        const SplitLogger logsystem("program.log", info);
        FAIL() << "opened a file below a file";
    } catch (const spdlog::spdlog_ex& error) {
        EXPECT_STREQ(error.what(),
                     "Failed opening file /var/log/halvo/program.log for writing: Not a directory");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
    EXPECT_TRUE(std::filesystem::is_regular_file("/var/log/halvo"));
}

}  // namespace
}  // namespace Hox::Log
