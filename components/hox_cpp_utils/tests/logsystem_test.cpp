#include "hox/cpputil/log/logsystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/async.h>
#include <spdlog/spdlog.h>

#include <array>
#include <thread>

#include "hox/cpputil/log/source_location.h"

namespace Hox::Log {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

/// Counts the calls.
class CountingLogsystem : public ILogsystem {
public:
    explicit CountingLogsystem(bool* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~CountingLogsystem() override {
        if (m_destroyed != nullptr) {
            *m_destroyed = true;
        }
    }
    CountingLogsystem(const CountingLogsystem&) = delete;
    CountingLogsystem& operator=(const CountingLogsystem&) = delete;
    CountingLogsystem(CountingLogsystem&&) = delete;
    CountingLogsystem& operator=(CountingLogsystem&&) = delete;

    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override {
        return std::make_shared<spdlog::logger>(name);
    }
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum /*level*/) override {
        return getLogger(name);
    }
    void shutdown() override {}

private:
    bool* m_destroyed;
};

class LogsystemTest : public ::testing::Test {
protected:
    LogsystemTest() {
        spdlog::drop_all();
        setLogsystem(nullptr);
    }
    ~LogsystemTest() override {
        setLogsystem(nullptr);
        spdlog::shutdown();
    }
};

TEST_F(LogsystemTest, FallsBackToStandardOutputWithOneWarning) {
    CaptureStdout();
    const auto first = getLogsystem();
    const auto second = getLogsystem();
    const auto level = spdlog::get("Logsystem")->level();
    const auto other = first->getLogger("other")->level();
    const bool hasPool = spdlog::thread_pool() != nullptr;
    first->shutdown();
    const auto output = GetCapturedStdout();

    EXPECT_EQ(first, second);
    EXPECT_EQ(level, spdlog::level::info);
    EXPECT_EQ(other, spdlog::level::info);
    EXPECT_TRUE(hasPool);
    EXPECT_THAT(output,
                ::testing::MatchesRegex("\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\] \\[warning\\] "
                                        "No logsystem initialized\\. Falling back to stdout\\.\n"));
}

TEST_F(LogsystemTest, HandsOutWhatWasSet) {
    auto logsystem = std::make_unique<CountingLogsystem>();
    const auto* expected = logsystem.get();
    setLogsystem(std::move(logsystem));
    EXPECT_EQ(getLogsystem().get(), expected);
    EXPECT_EQ(spdlog::get("Logsystem"), nullptr);
}

TEST_F(LogsystemTest, KeepsAReplacedOneForThoseWhoHoldIt) {
    bool destroyed = false;
    setLogsystem(std::make_unique<CountingLogsystem>(&destroyed));
    auto held = getLogsystem();
    setLogsystem(std::make_unique<CountingLogsystem>());
    EXPECT_NE(getLogsystem(), held);
    EXPECT_FALSE(destroyed);
    held.reset();
    EXPECT_TRUE(destroyed);
}

TEST_F(LogsystemTest, MayBeReachedFromAllThreads) {
    setLogsystem(std::make_unique<CountingLogsystem>());
    constexpr int rounds = 200;
    std::array<std::thread, 4> threads;
    for (auto& thread : threads) {
        thread = std::thread([] {
            for (int i = 0; i < rounds; ++i) {
                EXPECT_NE(getLogsystem(), nullptr);
                setLogsystem(std::make_unique<CountingLogsystem>());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(SourceLocation, IsThePlaceOfTheCall) {
    const auto place = here();
    EXPECT_STREQ(place.filename, __FILE__);
    EXPECT_EQ(place.line, __LINE__ - 2);
    EXPECT_STREQ(place.funcname, "TestBody");
}

}  // namespace
}  // namespace Hox::Log
