#include <gmock/gmock.h>

#include <chrono>

#include "hox/testing/private_bus.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"
#include "state_monitor_service.h"
#include "systemd_stand_in.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Api::StateSeverity;
using Fixture::StateMon;
using Fixture::StateMonitorService;
using Fixture::SystemdStandIn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A node monitor on a bus with a stand-in for the manager.
class NodeMonitor : public ::testing::Test {
protected:
    std::vector<std::string> reports() {
        Api::GetStateNotificationsResp list;
        m_service->call(&Api::StateMonitoringService::Stub::getStateNotifications,
                        Api::GetStateNotificationsReq(), list);
        std::vector<std::string> texts;
        for (const auto& stored : list.statelist()) {
            const auto& report = stored.statenotification();
            texts.push_back(Api::StateSeverity_Name(report.severity()) + " " + report.service_id() +
                            " " + report.type() + " " + report.source() + " " + report.msg());
        }
        return texts;
    }

    bool waitForState(StateSeverity severity) {
        return Testing::waitUntil([&] { return m_service->currentState() == severity; });
    }

    Testing::PrivateBus m_bus;
    SystemdStandIn m_systemd{m_bus, "starting"};
    std::optional<StateMonitorService> m_service{std::in_place,
                                                 std::vector<std::string>{"--node_mon"}};
};

TEST_F(NodeMonitor, IsBootingUntilTheMachineRuns) {
    ASSERT_TRUE(waitForState(StateSeverity::BOOTING));
    EXPECT_THAT(reports(), IsEmpty());
    m_systemd.setState("running");
    ASSERT_TRUE(waitForState(StateSeverity::OK));
    EXPECT_THAT(reports(),
                ElementsAre("OK head-1 system.systemd-degraded system/systemd System booted."));
    m_systemd.setState("degraded");
    ASSERT_TRUE(waitForState(StateSeverity::ERROR));
    m_systemd.setState("running");
    ASSERT_TRUE(waitForState(StateSeverity::OK));
    EXPECT_EQ(reports().front(),
              "OK head-1 system.systemd-degraded system/systemd Internal system status OK.");
}

TEST_F(NodeMonitor, EndsAtAnyMoment) {
    for (int round = 0; round < 30; ++round) {
        m_service.emplace(std::vector<std::string>{"--node_mon"});
        m_systemd.setState(round % 2 == 0 ? "degraded" : "running");
        const auto begin = std::chrono::steady_clock::now();
        m_service.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2))
            << "round " << round;
    }
}

TEST_F(NodeMonitor, LeavesTheServicesOfASystemMonitorAlone) {
    m_service.emplace(
        std::vector<std::string>{"--node_mon", "--statemon_services", "10.0.0.1:5000,5001"});
    EXPECT_THAT(m_service->connectUrls(), IsEmpty());
}

TEST_F(NodeMonitor, IsASystemMonitorAsWellIfItHasBothRoles) {
    const Testing::TempDir folder;
    const auto url = "unix:" + (folder.path() / "peer").string();
    StateMonitorService peer({}, url);
    m_service.emplace(
        std::vector<std::string>{"--sys_mon", "--node_mon", "--statemon_services", url});
    ASSERT_TRUE(waitForState(StateSeverity::BOOTING));
    m_systemd.setState("degraded");
    const std::string own =
        "ERROR head-1 system.systemd-degraded system/systemd Internal system failure.";
    ASSERT_TRUE(Testing::waitUntil([&] { return reports() == std::vector<std::string>{own}; }));
    EXPECT_TRUE(peer.create(Fixture::notification("node-2", "type", "source")).ok());
    EXPECT_TRUE(Testing::waitUntil([&] { return reports().size() == 2; }));
    EXPECT_THAT(reports(), ElementsAre("OK node-2 type source ", own));
}

TEST(NodeMonitorDeathTest, WatchesItsMachineOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const Testing::PrivateBus bus;
            StateMon monitor;
            monitor.helper().startNodeMonitoring(monitor.tree());
            monitor.helper().startNodeMonitoring(monitor.tree());
        },
        "Assertion failed: \\[!m_systemdWatcher\\]");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
