#include "system_state_reports.h"

#include <gmock/gmock.h>
#include <google/protobuf/util/time_util.h>

#include <chrono>

namespace Hox::Capability::StateMonitoring {
namespace {

using ::testing::IsEmpty;

class SystemStateReportsTest : public ::testing::Test {
protected:
    /// Severity and text of the notification; empty for none.
    std::string told(const std::string& managerState) {
        const auto notification = m_reports.update(managerState);
        return notification
                   ? Api::StateSeverity_Name(notification->severity()) + " " + notification->msg()
                   : "";
    }

    SystemStateReports m_reports{"node-1"};
};

TEST_F(SystemStateReportsTest, TellARunningMachineOnce) {
    EXPECT_EQ(m_reports.state(), SystemState::Unknown);
    EXPECT_EQ(told("running"), "OK Internal system status OK.");
    EXPECT_EQ(m_reports.state(), SystemState::Running);
    EXPECT_THAT(told("running"), IsEmpty());
}

TEST_F(SystemStateReportsTest, TellTheEndOfABoot) {
    EXPECT_THAT(told("starting"), IsEmpty());
    EXPECT_EQ(m_reports.state(), SystemState::Starting);
    EXPECT_EQ(told("running"), "OK System booted.");
    EXPECT_EQ(m_reports.state(), SystemState::Running);
}

TEST_F(SystemStateReportsTest, TellAFailureOnceAndItsEnd) {
    EXPECT_EQ(told("degraded"), "ERROR Internal system failure.");
    EXPECT_EQ(m_reports.state(), SystemState::Degraded);
    EXPECT_THAT(told("degraded"), IsEmpty());
    EXPECT_EQ(told("running"), "OK Internal system status OK.");
    EXPECT_EQ(told("degraded"), "ERROR Internal system failure.");
}

TEST_F(SystemStateReportsTest, TellABootThatFails) {
    EXPECT_THAT(told("starting"), IsEmpty());
    EXPECT_EQ(told("degraded"), "ERROR Internal system failure.");
}

TEST_F(SystemStateReportsTest, DoNotKnowOtherStates) {
    EXPECT_EQ(told("running"), "OK Internal system status OK.");
    for (const std::string state : {"", "initializing", "maintenance", "stopping", "offline",
                                    "unknown", "Running", "running "}) {
        EXPECT_THAT(told(state), IsEmpty()) << state;
        EXPECT_EQ(m_reports.state(), SystemState::Running) << state;
    }
}

TEST_F(SystemStateReportsTest, NameThisServiceAndTheTime) {
    const auto before = std::chrono::system_clock::now();
    const auto notification = m_reports.update("degraded");
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->service_id(), "node-1");
    EXPECT_EQ(notification->type(), "system.systemd-degraded");
    EXPECT_EQ(notification->source(), "system/systemd");
    EXPECT_EQ(notification->extendedinfo(), "");
    using google::protobuf::util::TimeUtil;
    const auto time =
        std::chrono::nanoseconds(TimeUtil::TimestampToNanoseconds(notification->timestamp()));
    EXPECT_GE(time, before.time_since_epoch());
    EXPECT_LE(time, std::chrono::system_clock::now().time_since_epoch());
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
