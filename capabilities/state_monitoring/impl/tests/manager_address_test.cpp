#include "manager_address.h"

#include <gtest/gtest.h>

namespace Hox::Capability::StateMonitoring {
namespace {

using Kind = ManagerAddress::Kind;

TEST(ManagerAddress, TellsNumbersFromNames) {
    const auto expect = [](const std::string& text, Kind kind, const std::string& host) {
        const ManagerAddress address(text);
        EXPECT_EQ(address.kind, kind) << text;
        EXPECT_EQ(address.host, host) << text;
    };
    expect("10.0.0.1", Kind::Number, "10.0.0.1");
    expect("udp:10.0.0.1", Kind::Number, "10.0.0.1");
    expect("[::1]", Kind::Number, "::1");
    expect("::1", Kind::Number, "::1");
    expect("udp6:[2001:db8::1]", Kind::Number, "2001:db8::1");
    expect("localhost", Kind::Name, "localhost");
    expect("udp:manager-1.example.org", Kind::Name, "manager-1.example.org");
    expect("1.2.3", Kind::Name, "1.2.3");
}

TEST(ManagerAddress, RefusesWhatIsNeither) {
    for (const std::string text : {"", "udp:", "tcp:10.0.0.1", "unix:/tmp/socket", "a b", "-option",
                                   "[10.0.0.1]", "10.0.0.1:162", "name:162", "[]", "a/b"}) {
        EXPECT_EQ(ManagerAddress(text).kind, Kind::Invalid) << text;
    }
    EXPECT_EQ(ManagerAddress(std::string(254, 'a')).kind, Kind::Invalid);
    EXPECT_EQ(ManagerAddress(std::string("a\0b", 3)).kind, Kind::Invalid);
}

TEST(ManagerAddress, SpellsNumbersForTheLibrary) {
    EXPECT_EQ(ManagerAddress::peerName("10.0.0.1"), "udp:10.0.0.1");
    EXPECT_EQ(ManagerAddress::peerName("::1"), "udp6:[::1]");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
