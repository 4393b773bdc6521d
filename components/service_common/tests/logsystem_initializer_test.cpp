#include "hox/service_common/service_initializer/logsystem_initializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/stdout_logger.h"
#include "hox/linutils/log/split_logger.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/private_mounts.h"
#include "hox/testing/skip_outside_ci.h"

namespace Hox::Service {
namespace {

constexpr auto ownLoggerName =
    "logsystem_initializer.cpp::Hox::Service::LogsystemInitializer::LogsystemInitializer(int, "
    "char**)";

template <typename Variant>
bool isInstalled() {
    return std::dynamic_pointer_cast<Variant>(Log::getLogsystem()) != nullptr;
}

/// Runs below a private /var/log, with nothing installed before and after.
class LogsystemInitializerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { isPrivate = Testing::mountPrivateFolders({"/run", "/var/log"}); }

    void SetUp() override {
        if (!isPrivate) {
            Testing::skipOutsideCi("this machine allows no private mounts");
            return;
        }
        std::filesystem::remove_all("/var/log/halvo");
        spdlog::drop_all();
    }

    void TearDown() override {
        spdlog::shutdown();
        Log::setLogsystem(nullptr);
    }

    static void initialize(std::vector<std::string> arguments) {
        std::vector<char*> pointers;
        for (auto& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        LogsystemInitializer(static_cast<int>(arguments.size()), pointers.data());
    }

    static std::filesystem::path logFile() {
        return std::string("/var/log/halvo/") + program_invocation_short_name + ".log";
    }

private:
    inline static bool isPrivate = false;
};

TEST_F(LogsystemInitializerTest, FindsTheFlagWhereverItStands) {
    const std::vector<std::vector<std::string>> cases{
        {"program", "--logstdout"},
        {"program", "--logstdout", "--port", "5005"},
        {"program", "--port", "5005", "--logstdout"},
        {"program", "--", "--logstdout"},
        {"program", "--id", "--logstdout"},
        {"program", "--logstdout", "x", "--logstdout"},
        {"--logstdout"},
    };
    for (const auto& arguments : cases) {
        Log::setLogsystem(nullptr);
        initialize(arguments);
        EXPECT_TRUE(isInstalled<Log::StdoutLogger>()) << ::testing::PrintToString(arguments);
        EXPECT_FALSE(std::filesystem::exists(logFile())) << ::testing::PrintToString(arguments);
        spdlog::shutdown();
    }
}

TEST_F(LogsystemInitializerTest, WritesToFileAndJournalWithoutTheFlag) {
    const std::vector<std::vector<std::string>> cases{
        {},
        {"program"},
        {"program", "--port", "5005"},
        {"program", "--logstdout=true"},
        {"program", "-logstdout", "logstdout", "--logstdou", "--LOGSTDOUT", ""},
    };
    for (const auto& arguments : cases) {
        std::filesystem::remove_all("/var/log/halvo");
        Log::setLogsystem(nullptr);
        initialize(arguments);
        EXPECT_TRUE(isInstalled<Log::SplitLogger>()) << ::testing::PrintToString(arguments);
        EXPECT_TRUE(std::filesystem::exists(logFile())) << ::testing::PrintToString(arguments);
        spdlog::shutdown();
    }
}

TEST_F(LogsystemInitializerTest, StartsAtLevelInfo) {
    initialize({"program"});
    EXPECT_EQ(Log::getLogsystem()->getLogger("name")->level(), spdlog::level::info);
    EXPECT_EQ(std::filesystem::file_size(logFile()), 0U);
    initialize({"program", "--logstdout"});
    EXPECT_EQ(Log::getLogsystem()->getLogger("other")->level(), spdlog::level::info);
}

TEST_F(LogsystemInitializerTest, SaysSoAtLevelDebug) {
    const Testing::LogCapture capture(ownLoggerName);
    Log::getLogsystem()->getLogger(ownLoggerName);
    initialize({"program"});
    EXPECT_THAT(capture.records(),
                ::testing::ElementsAre(Testing::LogRecord{ownLoggerName, spdlog::level::debug,
                                                          "Logsystem initialized."}));
}

TEST_F(LogsystemInitializerTest, ReplacesTheFormerLogsystem) {
    initialize({"program", "--logstdout"});
    initialize({"program"});
    EXPECT_TRUE(isInstalled<Log::SplitLogger>());
}

TEST_F(LogsystemInitializerTest, DoesNotFallBackWhenTheFileCannotBeOpened) {
    initialize({"program", "--logstdout"});
    const auto before = Log::getLogsystem();
    std::ofstream("/var/log/halvo") << "in the folder's place";
    EXPECT_THROW(initialize({"program"}), spdlog::spdlog_ex);
    EXPECT_EQ(Log::getLogsystem(), before);
}

TEST_F(LogsystemInitializerTest, TakesACommandLineThatIsNotThere) {
    LumServiceInitializer service(0, nullptr);
    EXPECT_TRUE(isInstalled<Log::SplitLogger>());
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(service.initialize(), 1);
    EXPECT_THAT(::testing::internal::GetCapturedStdout(), ::testing::HasSubstr("service options:"));
}

}  // namespace
}  // namespace Hox::Service
