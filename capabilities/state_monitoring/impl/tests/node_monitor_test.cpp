#include <gmock/gmock.h>

#include "hox/testing/private_bus.h"
#include "hox/testing/wait_until.h"
#include "state_monitor_service.h"
#include "systemd_stand_in.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Api::StateSeverity;
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
        m_service.reset();
    }
}

TEST_F(NodeMonitor, LeavesTheServicesOfASystemMonitorAlone) {
    m_service.emplace(
        std::vector<std::string>{"--node_mon", "--statemon_services", "10.0.0.1:5000,5001"});
    EXPECT_THAT(m_service->connectUrls(), IsEmpty());
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
