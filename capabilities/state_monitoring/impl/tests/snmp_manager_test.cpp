#include "snmp_manager.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "hox/testing/log_capture.h"
#include "product_oid.h"
#include "udp_receiver.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::UdpReceiver;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;

constexpr const char* trapName = "HALVO-QHED-MIB::qhedTunerMissingSignalLock";

const std::string head = Fixture::productOid();

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class SnmpManagerTest : public ::testing::Test {
protected:
    SnmpManager manager() { return SnmpManager("127.0.0.1", m_receiver.port(), "secret"); }

    UdpReceiver m_receiver;
    const Testing::LogCapture m_log{"SnmpManager", spdlog::level::info};
};

TEST_F(SnmpManagerTest, SendsTheFiveVariables) {
    manager().sendTrap({trapName, 2, "tuner/1", "No lock"});
    const auto trap = m_receiver.receive();
    // Version 2c, community, then a PDU of the type "trap 2".
    EXPECT_THAT(trap, HasSubstr(std::string("\x02\x01\x01\x04\x06secret\xa7", 12)));
    // sysUpTime.0, then snmpTrapOID.0 with the number of the trap, then the three of the event.
    const auto at = [&](const std::string& part) { return trap.find(part); };
    const auto upTime = at(std::string("\x06\x08\x2b\x06\x01\x02\x01\x01\x03\x00\x43", 11));
    const auto trapOid =
        at(std::string("\x06\x0a\x2b\x06\x01\x06\x03\x01\x01\x04\x01\x00\x06", 13) +
           static_cast<char>(head.size() + 2) + head + std::string("\x00\x01", 2));
    const auto severity = at(head + "\x02\x01\x02\x01\x02");
    const auto source = at(head + "\x02\x02\x04\x07tuner/1");
    const auto msg = at(head + "\x02\x03\x04\x07No lock");
    EXPECT_LT(upTime, trapOid);
    EXPECT_LT(trapOid, severity);
    EXPECT_LT(severity, source);
    EXPECT_LT(source, msg);
    EXPECT_THAT(trap, EndsWith("No lock"));
    EXPECT_TRUE(m_receiver.isEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(SnmpManagerTest, SendsAnySeverityAndAnyText) {
    const std::string text = "K\xC3\xB6ln \x01";
    manager().sendTrap({trapName, 77, "", text});
    const auto trap = m_receiver.receive();
    EXPECT_THAT(trap, HasSubstr(head + "\x02\x01\x02\x01\x4d"));
    EXPECT_THAT(trap, HasSubstr(head + std::string("\x02\x02\x04\x00", 4)));
    EXPECT_THAT(trap, EndsWith(text));
    manager().sendTrap({trapName, -1, "", ""});
    EXPECT_THAT(m_receiver.receive(), HasSubstr(head + "\x02\x01\x02\x01\xff"));
}

TEST_F(SnmpManagerTest, RefusesWhatCannotBeAManager) {
    const auto open = [](const char* host, const std::string& port, const std::string& community) {
        return [=] { const SnmpManager manager(host, port, community); };
    };
    const auto refusal = ThrowsMessage<std::runtime_error>("Failed to open netsnmp session");
    for (const std::string port : {"", "abc", "0", "65536", "-1", "1x", " 1", "99999999999"}) {
        EXPECT_THAT(open("127.0.0.1", port, "c"), refusal) << port;
    }
    EXPECT_THAT(open("", "162", "c"), refusal);
    EXPECT_THAT(open("no such host", "162", "c"), refusal);
    EXPECT_THAT(open("127.0.0.1", "162", ""), refusal);
    EXPECT_THAT(open("127.0.0.1", "162", std::string(257, 'c')), refusal);
    EXPECT_NO_THROW(open("127.0.0.1", "162", std::string(256, 'c'))());
    EXPECT_NO_THROW(open("udp6:[::1]", "65535", "c")());
}

TEST_F(SnmpManagerTest, LeavesOutWhatDoesNotFitIntoADatagram) {
    auto sender = manager();
    sender.sendTrap({trapName, 2, "tuner/1", std::string(100'000, 'x')});
    EXPECT_THAT(m_log.texts(),
                ElementsAre(HasSubstr("Failed to send the trap " + std::string(trapName) +
                                      " to 127.0.0.1:" + m_receiver.port() + ": Too long")));
    sender.sendTrap({trapName, 2, "tuner/1", "after it"});
    EXPECT_THAT(m_receiver.receive(), EndsWith("after it"));
}

TEST_F(SnmpManagerTest, LeavesOutWhatTheNetworkRefuses) {
    // A broadcast address is refused without the socket's consent, on any network.
    SnmpManager sender("255.255.255.255", "16200", "secret");
    sender.sendTrap({trapName, 2, "tuner/1", "No lock"});
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre(HasSubstr("Failed to send the trap")));
}

TEST_F(SnmpManagerTest, KeepsNothingOfItsForerunners) {
    manager().sendTrap({trapName, 2, "tuner/1", "No lock"});
    const auto before = openDescriptors();
    for (int i = 0; i < 1000; ++i) {
        auto sender = manager();
        if (i % 100 == 0) {
            sender.sendTrap({trapName, 2, "tuner/1", "No lock"});
            EXPECT_NE(m_receiver.receive(), "");
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SnmpManagerTest, ManagersDoNotMixUp) {
    UdpReceiver other;
    auto first = manager();
    SnmpManager second("127.0.0.1", other.port(), "public");
    first.sendTrap({trapName, 2, "tuner/1", "first"});
    second.sendTrap({trapName, 2, "tuner/1", "second"});
    first.sendTrap({trapName, 2, "tuner/1", "third"});
    EXPECT_NE(m_receiver.receive(), "");
    EXPECT_THAT(m_receiver.receive(), EndsWith("third"));
    EXPECT_THAT(other.receive(), HasSubstr("public"));
    EXPECT_TRUE(other.isEmpty());
}

TEST(SnmpManagerDeathTest, NeedsAMibThatKnowsTheTrap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        SnmpManager("127.0.0.1", "16200", "c").sendTrap({"HALVO-QHED-MIB::none", 0, "", ""}),
        "Assertion failed: \\[rc == 0\\] \n.*\nFailed to add oid. Is the trapname present in the "
        "MIB\\?");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
