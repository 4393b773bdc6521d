#include "systemd_watcher.h"

#include <gmock/gmock.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

#include "call_monitor.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/private_bus.h"
#include "hox/testing/wait_until.h"
#include "systemd_stand_in.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::CallMonitor;
using Fixture::SystemdStandIn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* managerName = "org.freedesktop.systemd1";

/// The subscription and the question for the state: after both the watcher waits.
constexpr int callsInVain = 2;

constexpr const char* lostText = "The system bus is lost, connecting to it again";

/// A watcher on a private bus, and everything that it has reported.
class SystemdWatcherTest : public ::testing::Test {
protected:
    void startWatcher() {
        m_watcher.emplace([this](const std::string& state) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_states.push_back(state);
        });
    }

    std::vector<std::string> states() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_states;
    }

    bool waitForState(const std::string& state) {
        return Testing::waitUntil([&] {
            const auto all = states();
            return !all.empty() && all.back() == state;
        });
    }

    /// The time that the end of the watcher takes.
    std::chrono::milliseconds end() {
        const auto begin = std::chrono::steady_clock::now();
        m_watcher.reset();
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begin);
    }

    const Testing::LogCapture m_log{"SystemdWatcher"};
    Testing::PrivateBus m_bus;
    std::mutex m_mutex;
    std::vector<std::string> m_states;  // GUARDED_BY(m_mutex)
    std::optional<SystemdWatcher> m_watcher;
};

TEST_F(SystemdWatcherTest, TellsTheStateAtOnceAndWhenItChanges) {
    SystemdStandIn systemd(m_bus, "starting");
    startWatcher();
    ASSERT_TRUE(waitForState("starting"));
    EXPECT_EQ(systemd.subscriptions(), 1);
    systemd.setState("running");
    ASSERT_TRUE(waitForState("running"));
    systemd.setState("degraded");
    ASSERT_TRUE(waitForState("degraded"));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(SystemdWatcherTest, LooksAtTheEndOfTheStart) {
    SystemdStandIn systemd(m_bus, "starting");
    startWatcher();
    ASSERT_TRUE(waitForState("starting"));
    const int before = systemd.questions();
    systemd.finishStartup();
    EXPECT_TRUE(Testing::waitUntil([&] { return systemd.questions() > before; }));
}

TEST_F(SystemdWatcherTest, MissesNoChange) {
    SystemdStandIn systemd(m_bus, "state");
    startWatcher();
    for (int number = 0; number < 1000; ++number) {
        systemd.setState("state " + std::to_string(number));
    }
    EXPECT_TRUE(waitForState("state 999"));
}

TEST_F(SystemdWatcherTest, WaitsForTheManagersSignalsOnly) {
    SystemdStandIn systemd(m_bus, "running");
    startWatcher();
    ASSERT_TRUE(waitForState("running"));
    ASSERT_TRUE(m_bus.hasName(managerName));
    // One at the start, one for what the bus itself has sent.
    EXPECT_LE(systemd.questions(), 2);
}

TEST_F(SystemdWatcherTest, TellsNothingOfAMachineWithoutTheManager) {
    CallMonitor monitor(m_bus, managerName);
    startWatcher();
    ASSERT_TRUE(Testing::waitUntil([&] { return monitor.calls() >= callsInVain; }));
    EXPECT_LT(end(), std::chrono::milliseconds(900)) << "does not wait for the next attempt";
    EXPECT_THAT(states(), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(SystemdWatcherTest, FindsAManagerThatComesLater) {
    CallMonitor monitor(m_bus, managerName);
    startWatcher();
    ASSERT_TRUE(Testing::waitUntil([&] { return monitor.calls() >= callsInVain; }));
    EXPECT_THAT(states(), IsEmpty());
    SystemdStandIn systemd(m_bus, "starting");
    ASSERT_TRUE(waitForState("starting"));
    // It may appear between a subscription in vain and the question; the next one comes soon.
    EXPECT_TRUE(Testing::waitUntil([&] { return systemd.subscriptions() == 1; }));
    systemd.setState("running");
    EXPECT_TRUE(waitForState("running"));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(SystemdWatcherTest, AsksAgainWhereThereIsNoAnswer) {
    SystemdStandIn systemd(m_bus, "running");
    systemd.setAnswers(false);
    startWatcher();
    ASSERT_TRUE(Testing::waitUntil([&] { return systemd.questions() >= 2; }));
    systemd.setAnswers(true);
    EXPECT_TRUE(waitForState("running"));
}

TEST_F(SystemdWatcherTest, FindsTheBusAgain) {
    std::optional<SystemdStandIn> systemd(std::in_place, m_bus, "running");
    startWatcher();
    ASSERT_TRUE(waitForState("running"));
    systemd.reset();
    m_bus.kill();
    ASSERT_TRUE(Testing::waitUntil([&] { return m_log.contains(lostText); }));
    m_bus.start();
    systemd.emplace(m_bus, "degraded");
    ASSERT_TRUE(Testing::waitUntil([&] { return m_log.contains("The system bus is back"); }));
    systemd->setState("degraded");
    ASSERT_TRUE(waitForState("degraded"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn), ElementsAre(lostText));
}

TEST_F(SystemdWatcherTest, EndsWhileThereIsNoBus) {
    std::optional<SystemdStandIn> systemd(std::in_place, m_bus, "running");
    startWatcher();
    ASSERT_TRUE(waitForState("running"));
    systemd.reset();
    m_bus.kill();
    ASSERT_TRUE(Testing::waitUntil([&] { return m_log.contains(lostText); }));
    EXPECT_LT(end(), std::chrono::seconds(1));
    m_bus.start();
}

TEST_F(SystemdWatcherTest, EndsWhileTheManagerDoesNotAnswer) {
    SystemdStandIn systemd(m_bus, "running");
    systemd.setAnswers(false);
    startWatcher();
    ASSERT_TRUE(Testing::waitUntil([&] { return systemd.questions() == 1; }));
    EXPECT_LT(end(), std::chrono::milliseconds(900)) << "does not wait for the answer";
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(SystemdWatcherTest, EndsAtAnyMoment) {
    SystemdStandIn systemd(m_bus, "running");
    for (int round = 0; round < 200; ++round) {
        startWatcher();
        if (round % 2 == 0) {
            systemd.setState("running");
        }
        EXPECT_LT(end(), std::chrono::seconds(3));
    }
}

TEST(SystemdWatcherDeathTest, NeedsABusAtTheStart) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/no/such/bus", 1);
            const SystemdWatcher watcher([](const std::string& /*state*/) {});
            Testing::waitUntil([] { return false; });
        },
        "Assertion failed: \\[rc >= 0\\]");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
