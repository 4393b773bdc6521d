#include "hox/service_common/service_initializer/lum_service_initializer.h"

#include <gmock/gmock.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cxxopts.hpp>
#include <stdexcept>

#include "event_log.h"
#include "fake_cap_mngr.h"
#include "frame_probes.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/stdout_logger.h"
#include "hox/testing/arguments.h"
#include "hox/testing/fake_discovery.h"
#include "hox/testing/notify_socket.h"

namespace Hox::Service {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

/// The result of initialize() of a frame with this command line.
struct Outcome {
    int result = -1;
    std::string standardOutput;
    std::vector<std::string> events;
};

/// The arguments follow "--logstdout", so that the frame does not open the log file.
std::vector<std::string> commandLine(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--logstdout");
    return arguments;
}

Outcome initialize(const std::vector<std::string>& arguments) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine(arguments));
    Outcome outcome;
    CaptureStdout();
    {
        LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
        service.addCapability(std::make_unique<Fixture::FakeCapMngr>("A", 18, events));
        outcome.result = service.initialize();
    }
    outcome.standardOutput = GetCapturedStdout();
    outcome.events = events.all();
    return outcome;
}

/// The help as the frame prints it, one blank for each run of white space.
std::string unfolded(const std::string& text) {
    std::string result;
    for (const char character : text) {
        const bool blank = character == ' ' || character == '\n';
        if (!blank || (!result.empty() && result.back() != ' ')) {
            result += blank ? ' ' : character;
        }
    }
    return result;
}

/// Checks that only the help was printed and no capability was called.
void expectHelpOnly(const Outcome& outcome) {
    EXPECT_EQ(outcome.result, 1);
    EXPECT_THAT(outcome.standardOutput, AllOf(HasSubstr("Usage:"), HasSubstr("service options:"),
                                              HasSubstr("--port"), EndsWith("\n\n")));
    EXPECT_THAT(outcome.events, ElementsAre("A.addOptions unlocked", "A gone"));
}

TEST(FrameOptions, StopWithHelpWithoutPort) {
    expectHelpOnly(initialize({}));
    expectHelpOnly(initialize({"--id", "head-1", "--extport", "5000"}));
    expectHelpOnly(initialize({"stray"}));
}

TEST(FrameOptions, StopWithHelpWhereBothPortsAreEqual) {
    expectHelpOnly(initialize({"--port", "5000", "--extport", "5000"}));
    expectHelpOnly(initialize({"--port", "5000", "--extport", "05000"}));
    expectHelpOnly(initialize({"--port", "5000", "--extport", "5000x"}));
}

TEST(FrameOptions, ReportWhatTheParserRefuses) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--help"}, {"--port", "5000", "--nobody"}, {"--port"}, {"-x"}, {"-p", "5000"}}) {
        const Outcome outcome = initialize(arguments);
        EXPECT_EQ(outcome.result, 1) << arguments.front();
        EXPECT_THAT(outcome.standardOutput, AllOf(HasSubstr("Usage:"), EndsWith("\n\n")));
        EXPECT_THAT(outcome.events,
                    ElementsAre("A.addOptions unlocked", StartsWith("[error] "), "A gone"));
    }
    EXPECT_THAT(initialize({"--help"}).events[1], HasSubstr("help"));
}

TEST(FrameOptions, AreDescribedInTheHelpInOrder) {
    const std::string help = unfolded(initialize({}).standardOutput);
    const std::vector<std::string> texts = {
        "service options:",
        " --port arg The service listener port. This is a Mandatory option. ",
        " --extport arg The secure external service listener port. Must differ from \"port\". This "
        "is not a Mandatory option. ",
        " -c, --configdir arg Use configuration files from directory. Defaults to /var/lib/halvo "
        "(default: /var/lib/halvo) ",
        " --id arg The unique service id. This is a Mandatory option. ",
        " --ccsaddr arg The address of the central conf store, if not set a central conf store is "
        "not used ",
        " --epgaddr arg The address of the epg server. Defaults to localhost:5004 (default: "
        "localhost:5004) ",
        " --dispatcheraddr arg The address of the dispatcher. Defaults to localhost:5000 (default: "
        "localhost:5000) ",
        " --hendaddr arg The address of the headend. Defaults to localhost:5001 (default: "
        "localhost:5001) ",
        " --logstdout Log to stdout ",
    };
    std::size_t position = 0;
    for (const auto& text : texts) {
        const std::size_t found = help.find(text, position);
        ASSERT_NE(found, std::string::npos) << text << "\nin " << help;
        position = found;
    }
    EXPECT_THAT(help, HasSubstr(" program [OPTION...] "));
}

TEST(FrameOptions, OfCapabilitiesFollowInTheHelp) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine({}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    Fixture::FakeCapMngr::Hooks hooks;
    hooks.addOptions = [](cxxopts::Options& options) {
        options.add_options("Mine", {{"mine", "An option of mine", cxxopts::value<bool>()}});
    };
    service.addCapability(std::make_unique<Fixture::FakeCapMngr>("A", 18, events, hooks));
    CaptureStdout();
    EXPECT_EQ(service.initialize(), 1);
    const std::string help = GetCapturedStdout();
    EXPECT_THAT(unfolded(help), HasSubstr("Mine options: --mine An option of mine "));
    EXPECT_LT(help.find("service options:"), help.find("Mine options:"));
}

TEST(FrameOptions, RefusePortsThatAreNoNumbersWhereBothAreGiven) {
    EXPECT_THROW(initialize({"--port", "abc", "--extport", "1"}), std::invalid_argument);
    GetCapturedStdout();
    EXPECT_THROW(initialize({"--port", "1", "--extport", "abc"}), std::invalid_argument);
    GetCapturedStdout();
    EXPECT_THROW(initialize({"--port", "1", "--extport", "99999999999"}), std::out_of_range);
    GetCapturedStdout();
}

TEST(Frame, RefusesItsContextBeforeInitialisation) {
    Testing::Arguments line(commandLine({}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    try {
        service.getServiceCtx();
        FAIL() << "no exception";
    } catch (const CppUtil::InitializationError& error) {
        EXPECT_THAT(error.what(),
                    MatchesRegex("Initialization Error: Service context not initialized!!\\(.*"
                                 "lum_service_initializer\\.cpp:[0-9]+\\)"));
    }
}

TEST(Frame, RefusesToServeBeforeInitialisation) {
    Testing::Arguments line(commandLine({"--port", "1"}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    try {
        service.serverStart();
        FAIL() << "no exception";
    } catch (const CppUtil::InitializationError& error) {
        EXPECT_THAT(error.what(), MatchesRegex("Initialization Error: Service is uninitialized\\(.*"
                                               "lum_service_initializer\\.cpp:[0-9]+\\)"));
    }
}

TEST(Frame, StaysRefusedAfterAFailedInitialisation) {
    Testing::Arguments line(commandLine({}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    CaptureStdout();
    EXPECT_EQ(service.initialize(), 1);
    GetCapturedStdout();
    EXPECT_THROW(service.getServiceCtx(), CppUtil::InitializationError);
    EXPECT_THROW(service.serverStart(), CppUtil::InitializationError);
}

TEST(Frame, WritesTheShutdownDescriptorWithoutAServer) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine({}));
    const auto before = Fixture::openEventDescriptors();
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    std::vector<int> made;
    for (const int descriptor : Fixture::openEventDescriptors()) {
        if (before.count(descriptor) == 0) {
            made.push_back(descriptor);
        }
    }
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(Fixture::eventCount(made.front()), 0U);
    service.serverShutdown();
    EXPECT_EQ(Fixture::eventCount(made.front()), 1U);
    service.serverShutdown();
    EXPECT_EQ(Fixture::eventCount(made.front()), 2U);
    EXPECT_THAT(events.all(), IsEmpty());
}

TEST(Frame, LeavesTheShutdownDescriptorAndTheLogSystemBehind) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine({}));
    const auto before = Fixture::openEventDescriptors();
    { LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient); }
    EXPECT_EQ(Fixture::openEventDescriptors().size(), before.size() + 1);
    EXPECT_NE(std::dynamic_pointer_cast<Log::StdoutLogger>(Log::getLogsystem()), nullptr);
    EXPECT_NE(spdlog::get("ServiceInitializer"), nullptr);
}

TEST(Frame, LetsExceptionsOfCapabilitiesPassAndFreesTheirMutex) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine({"--port", "1"}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    Fixture::FakeCapMngr::Hooks hooks;
    hooks.initCapability = [](LumServiceCtx&) { throw std::runtime_error("no such hardware"); };
    auto capability = std::make_unique<Fixture::FakeCapMngr>("A", 18, events, hooks);
    const auto mutex = capability->getMutex();
    service.addCapability(std::move(capability));
    EXPECT_THAT([&] { service.initialize(); },
                ::testing::ThrowsMessage<std::runtime_error>("no such hardware"));
    EXPECT_TRUE(Fixture::isFree(*mutex));
    EXPECT_THROW(service.getServiceCtx(), CppUtil::InitializationError);
}

TEST(Frame, RefusesACapabilityOutsideTheCatalogue) {
    Testing::NotifySocket notifySocket;
    Fixture::EventLog events(notifySocket);
    Testing::Arguments line(commandLine({"--port", "1"}));
    LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
    service.addCapability(std::make_unique<Fixture::FakeCapMngr>("A", 32, events));
    EXPECT_THROW(service.initialize(), CppUtil::InvalidArgumentError);
    EXPECT_THAT(events.all(), ElementsAre("A.addOptions unlocked"));
}

/// Makes each call fail that opens a descriptor.
[[maybe_unused]] void refuseFurtherDescriptors() {
    const int firstFree = dup(STDERR_FILENO);
    close(firstFree);
    const rlimit limit{static_cast<rlim_t>(firstFree), static_cast<rlim_t>(firstFree)};
    setrlimit(RLIMIT_NOFILE, &limit);
}

class FrameDeathTest : public ::testing::Test {
protected:
    FrameDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#if !defined(__SANITIZE_ADDRESS__)  // AddressSanitizer needs descriptors itself
TEST_F(FrameDeathTest, AssertsThatTheShutdownDescriptorCouldBeMade) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({}));
            refuseFurtherDescriptors();
            LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
        },
        "Assertion failed: \\[global_fd_shutdown > 0\\] \n"
        "at:.*lum_service_initializer\\.cpp:[0-9]+\nAborting process!\n"
        "Stacktrace: Not available\n");
}
#endif

TEST_F(FrameDeathTest, TakesDescriptorZeroForAFailure) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({}));
            close(STDIN_FILENO);
            LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
        },
        "Assertion failed: \\[global_fd_shutdown > 0\\] \n"
        "at:.*lum_service_initializer\\.cpp:[0-9]+\nAborting process!\n"
        "Stacktrace: Not available\n");
}

TEST_F(FrameDeathTest, AssertsThatTheShutdownDescriptorCouldBeWritten) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({}));
            const auto before = Fixture::openEventDescriptors();
            LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
            for (const int descriptor : Fixture::openEventDescriptors()) {
                if (before.count(descriptor) == 0) {
                    close(descriptor);
                }
            }
            service.serverShutdown();
        },
        "Assertion failed: \\[rc != -1\\] \nat:");
}

TEST_F(FrameDeathTest, AssertsThatItIsInitialisedOnce) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({"--port", "1"}));
            LumServiceInitializer service(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
            service.initialize();
            service.initialize();
        },
        "Assertion failed: \\[!m_isInitialized\\] \nat:");
}

TEST_F(FrameDeathTest, AssertsThatItIsTheOnlyOneOfItsProcess) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({"--port", "1"}));
            LumServiceInitializer first(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
            first.initialize();
            LumServiceInitializer second(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
            second.initialize();
        },
        "Assertion failed: \\[instance == NULL\\] \nat:.*:[0-9]+\n"
        "Cannot instantiate more than one service per binary\\.\nAborting process!\n");
}

TEST_F(FrameDeathTest, AssertsSoAlsoAfterTheFirstHasGone) {
    EXPECT_DEATH(
        {
            Testing::Arguments line(commandLine({"--port", "1"}));
            {
                LumServiceInitializer first(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
                first.initialize();
            }
            LumServiceInitializer second(line.argc(), line.argv(), Testing::fakeDiscoveryClient);
            second.initialize();
        },
        "Assertion failed: \\[instance == NULL\\] ");
}

TEST_F(FrameDeathTest, LeavesSignalsDuringInitialisationToTheSystem) {
    for (const int signalNumber : {SIGTERM, SIGINT}) {
        EXPECT_EXIT(
            {
                Testing::NotifySocket notifySocket;
                Fixture::EventLog events(notifySocket);
                Testing::Arguments line(commandLine({"--port", "1"}));
                LumServiceInitializer service(line.argc(), line.argv(),
                                              Testing::fakeDiscoveryClient);
                Fixture::FakeCapMngr::Hooks hooks;
                hooks.initCapability = [signalNumber](LumServiceCtx&) {
                    kill(getpid(), signalNumber);
                };
                service.addCapability(
                    std::make_unique<Fixture::FakeCapMngr>("A", 18, events, hooks));
                service.initialize();
            },
            ::testing::KilledBySignal(signalNumber), "");
    }
}

}  // namespace
}  // namespace Hox::Service
