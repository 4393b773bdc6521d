#include "trap_forwarder.h"

#include <gmock/gmock.h>

#include "hox/testing/log_capture.h"
#include "product_oid.h"
#include "state_mon_fixture.h"
#include "udp_receiver.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Fixture::UdpReceiver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* failure = "Failed to initialize SNMP Manager: Failed to open netsnmp session";

class TrapForwarderTest : public ::testing::Test {
protected:
    void configure(const std::string& host, const std::string& port,
                   const std::string& community = "public") {
        Api::SnmpConfiguration configuration;
        configuration.set_managerip(host);
        configuration.set_trapport(port);
        configuration.set_community(community);
        m_forwarder.configure(configuration);
    }

    void forward(const std::string& type, Api::StateSeverity severity) {
        auto report = notification("node", type, "tuner/1", severity);
        report.set_msg("text");
        m_forwarder.forward(report);
    }

    /// The last number of the trap that is received next, 0 if it is none of ours.
    int trapNumber() {
        const auto trap = m_receiver.receive();
        const auto notifications = Fixture::productOid() + '\0';
        const auto at = trap.find(notifications);
        return at == std::string::npos ? 0 : trap.at(at + notifications.size());
    }

    const Testing::LogCapture m_log{"StateMonObsHelper", spdlog::level::info};
    UdpReceiver m_receiver;
    TrapForwarder m_forwarder;
};

TEST_F(TrapForwarderTest, SendsTheTrapsOfTheTable) {
    configure("127.0.0.1", m_receiver.port());
    const std::vector<std::string> types = {"Cap_RFInput_TunerConfedNotLocked",
                                            "Cap_cam_CardNotDescrambling", "Cap_TSState_Overload"};
    int bad = 1;
    for (const auto& type : types) {
        for (const auto severity : {Api::WARN, Api::ERROR, Api::BOOTING, Api::StateSeverity(77)}) {
            forward(type, severity);
            EXPECT_EQ(trapNumber(), bad) << type;
        }
        forward(type, Api::OK);
        EXPECT_EQ(trapNumber(), bad + 1) << type;
        bad += 2;
    }
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(TrapForwarderTest, SendsNothingElse) {
    configure("127.0.0.1", m_receiver.port());
    forward("Cap_RFInput_TunerConfedNotLocked ", Api::ERROR);
    forward("cap_tsstate_overload", Api::ERROR);
    forward("", Api::ERROR);
    EXPECT_TRUE(m_receiver.isEmpty());
}

TEST_F(TrapForwarderTest, SendsNothingWithoutAConfiguration) {
    forward("Cap_TSState_Overload", Api::ERROR);
    configure("127.0.0.1", m_receiver.port());
    m_forwarder.disable();
    m_forwarder.disable();
    forward("Cap_TSState_Overload", Api::ERROR);
    EXPECT_TRUE(m_receiver.isEmpty());
}

TEST_F(TrapForwarderTest, KeepsTheFormerManagerIfTheNewOneCannotBeUsed) {
    configure("127.0.0.1", m_receiver.port());
    configure("127.0.0.1", "abc");
    configure("127.0.0.1", "162", "");
    configure("127.0.0.1", "162", std::string(1000, 'c'));
    configure("no such host", "162");
    configure("", "162");
    EXPECT_THAT(m_log.texts(), ElementsAre(failure, failure, failure, failure, failure));
    forward("Cap_TSState_Overload", Api::ERROR);
    EXPECT_EQ(trapNumber(), 5);
}

TEST_F(TrapForwarderTest, FindsAManagerByItsName) {
    configure("localhost", m_receiver.port());
    forward("Cap_TSState_Overload", Api::OK);
    EXPECT_EQ(trapNumber(), 6);
}

TEST_F(TrapForwarderTest, KeepsTheFormerManagerForANameThatNobodyKnows) {
    configure("127.0.0.1", m_receiver.port());
    configure("no-such-host.invalid", "162");
    forward("Cap_TSState_Overload", Api::ERROR);
    EXPECT_EQ(trapNumber(), 5);
}

TEST_F(TrapForwarderTest, TakesTheLastManager) {
    UdpReceiver other;
    configure("localhost", other.port());
    configure("127.0.0.1", m_receiver.port());
    forward("Cap_TSState_Overload", Api::ERROR);
    EXPECT_EQ(trapNumber(), 5);
    EXPECT_TRUE(other.isEmpty());
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
