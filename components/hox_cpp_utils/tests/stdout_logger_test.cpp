#include "hox/cpputil/log/stdout_logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <thread>

#include "hox/cpputil/log/source_location.h"
#include "hox/testing/wait_until.h"

namespace Hox::Log {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

/// Replaces standard output by a pipe. Nobody reads it until drain() is called.
class StdoutPipe {
public:
    StdoutPipe() {
        EXPECT_EQ(pipe2(m_pipe.data(), O_CLOEXEC), 0);
        fflush(stdout);
        m_formerStdout = dup(STDOUT_FILENO);
        dup2(m_pipe[1], STDOUT_FILENO);
    }
    ~StdoutPipe() {
        close(m_formerStdout);
        close(m_pipe[0]);
    }
    StdoutPipe(const StdoutPipe&) = delete;
    StdoutPipe& operator=(const StdoutPipe&) = delete;
    StdoutPipe(StdoutPipe&&) = delete;
    StdoutPipe& operator=(StdoutPipe&&) = delete;

    /// Fills the pipe with line feeds, so that the next writer blocks.
    void fill() const {
        fcntl(m_pipe[1], F_SETFL, O_NONBLOCK);
        while (write(m_pipe[1], "\n", 1) == 1) {
        }
        fcntl(m_pipe[1], F_SETFL, 0);
    }

    /// Reads while `finish` runs, which must end all writers, and restores standard output.
    template <typename Finish>
    std::string drain(const Finish& finish) {
        std::string all;
        std::thread reader([this, &all] {
            std::array<char, 65536> buffer{};
            ssize_t size = 0;
            while ((size = read(m_pipe[0], buffer.data(), buffer.size())) > 0) {
                all.append(buffer.data(), static_cast<std::size_t>(size));
            }
        });
        finish();
        dup2(m_formerStdout, STDOUT_FILENO);
        close(m_pipe[1]);
        reader.join();
        return all;
    }

private:
    std::array<int, 2> m_pipe{};
    int m_formerStdout = -1;
};

/// The part of each line after the pattern's "[time] [level] ".
std::vector<std::string> textsOf(const std::string& output) {
    std::vector<std::string> texts;
    std::istringstream lines(output);
    const std::string mark = "[info] ";
    for (std::string line; std::getline(lines, line);) {
        if (const auto found = line.find(mark); found != std::string::npos) {
            texts.push_back(line.substr(found + mark.size()));
        }
    }
    return texts;
}

class StdoutLoggerTest : public ::testing::Test {
protected:
    StdoutLoggerTest() { spdlog::drop_all(); }
    ~StdoutLoggerTest() override { spdlog::shutdown(); }
};

TEST_F(StdoutLoggerTest, WritesTimeLevelAndText) {
    CaptureStdout();
    StdoutLogger logsystem(spdlog::level::trace);
    const auto logger = logsystem.getLogger("name");
    logger->log(here(), spdlog::level::warn, "text {}", 1);
    logger->log(here(), spdlog::level::err, "other");
    logsystem.shutdown();
    EXPECT_THAT(
        GetCapturedStdout(),
        ::testing::MatchesRegex("\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\] \\[warning\\] text 1\n"
                                "\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\] \\[error\\] other\n"));
}

TEST_F(StdoutLoggerTest, MakesAsynchronousLoggersThatDoNotFlush) {
    StdoutLogger logsystem(spdlog::level::warn);
    const auto logger = logsystem.getLogger("name");
    EXPECT_NE(std::dynamic_pointer_cast<spdlog::async_logger>(logger), nullptr);
    EXPECT_EQ(logger->name(), "name");
    EXPECT_EQ(logger->level(), spdlog::level::warn);
    EXPECT_EQ(logger->flush_level(), spdlog::level::off);
    ASSERT_EQ(logger->sinks().size(), 1U);
    EXPECT_NE(std::dynamic_pointer_cast<spdlog::sinks::stdout_sink_mt>(logger->sinks()[0]),
              nullptr);
    EXPECT_EQ(spdlog::get("name"), logger);
}

TEST_F(StdoutLoggerTest, KeepsTheFirstLevelOfALogger) {
    StdoutLogger logsystem(spdlog::level::info);
    const auto logger = logsystem.getLogger("name", spdlog::level::err);
    EXPECT_EQ(logsystem.getLogger("name", spdlog::level::trace), logger);
    EXPECT_EQ(logsystem.getLogger("name"), logger);
    EXPECT_EQ(logger->level(), spdlog::level::err);
}

TEST_F(StdoutLoggerTest, ReturnsALoggerThatSomebodyElseRegistered) {
    const auto foreign = std::make_shared<spdlog::logger>("foreign");
    spdlog::register_logger(foreign);
    StdoutLogger logsystem(spdlog::level::trace);
    EXPECT_EQ(logsystem.getLogger("foreign"), foreign);
    EXPECT_EQ(foreign->level(), spdlog::level::info);
    EXPECT_TRUE(foreign->sinks().empty());
}

TEST_F(StdoutLoggerTest, SharesItsSinkAmongItsLoggers) {
    StdoutLogger logsystem(spdlog::level::info);
    EXPECT_EQ(logsystem.getLogger("a")->sinks(), logsystem.getLogger("b")->sinks());
}

TEST_F(StdoutLoggerTest, ShutdownDropsLoggersAndThreads) {
    StdoutLogger logsystem(spdlog::level::info);
    logsystem.getLogger("name");
    EXPECT_NE(spdlog::thread_pool(), nullptr);
    logsystem.shutdown();
    EXPECT_EQ(spdlog::get("name"), nullptr);
    EXPECT_EQ(spdlog::thread_pool(), nullptr);
}

TEST_F(StdoutLoggerTest, DropsTheOldestRecordAndNeverBlocksWhenTheQueueIsFull) {
    constexpr std::size_t queueSize = 8192;
    constexpr std::size_t dropped = 3;
    StdoutLogger logsystem(spdlog::level::info);
    const auto logger = logsystem.getLogger("name");
    auto pool = spdlog::thread_pool();
    StdoutPipe pipe;
    pipe.fill();

    logger->log(here(), spdlog::level::info, "in the worker's hands");
    const bool taken = Testing::waitUntil([&] { return pool->queue_size() == 0; });
    for (std::size_t i = 0; i < queueSize; ++i) {
        logger->log(here(), spdlog::level::info, "{}", i);
    }
    const auto droppedBefore = pool->overrun_counter();
    for (std::size_t i = 0; i < dropped; ++i) {
        logger->log(here(), spdlog::level::info, "{}", queueSize + i);
    }
    const auto droppedAfter = pool->overrun_counter();
    const auto texts = textsOf(pipe.drain([&] {
        pool.reset();
        logsystem.shutdown();
    }));

    EXPECT_TRUE(taken);
    EXPECT_EQ(droppedBefore, 0U);
    EXPECT_EQ(droppedAfter, dropped);
    ASSERT_EQ(texts.size(), queueSize + 1);
    EXPECT_EQ(texts[0], "in the worker's hands");
    for (std::size_t i = 0; i < queueSize; ++i) {
        ASSERT_EQ(texts[i + 1], std::to_string(i + dropped));
    }
}

}  // namespace
}  // namespace Hox::Log
