#include "hox/service_discovery/networkservicetype.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery {
namespace {

using ::testing::StartsWith;

TEST(NetworkServiceType, ReadsAsMdnsWritesIt) {
    EXPECT_EQ(NetworkServiceType("capability").text(), "_capability._tcp");
    EXPECT_EQ(NetworkServiceType("capability", TCP).text(), "_capability._tcp");
    EXPECT_EQ(NetworkServiceType("x", UDP).text(), "_x._udp");
    EXPECT_EQ(NetworkServiceType("x", static_cast<Transport>(2)).text(), "_x._unknown");
    EXPECT_EQ(NetworkServiceType().text(), "_._tcp");
}

TEST(NetworkServiceType, TakesProtocolsOfFourteenBytes) {
    const NetworkServiceType type("abcdefghijklmn", UDP);
    EXPECT_EQ(type.applicationProtocol, "abcdefghijklmn");
    EXPECT_EQ(type.transport, UDP);
    EXPECT_EQ(type.maxProtocolLength, 14);
}

TEST(NetworkServiceType, RefusesProtocolsOfFifteenBytes) {
    try {
        const NetworkServiceType type("abcdefghijklmno");
        FAIL() << type.text();
    } catch (const ServiceDiscoveryError& error) {
        EXPECT_THAT(
            error.what(),
            StartsWith("Service Discovery Error: application protocol above maxiumum limit.("));
    }
}

TEST(NetworkServiceType, HasTheNumbersOfTheTransports) {
    EXPECT_EQ(TCP, 0);
    EXPECT_EQ(UDP, 1);
}

TEST(NetworkServiceType, ParsesWhatTheNetworkReports) {
    struct Row {
        std::string text;
        std::string protocol;
        Transport transport;
    };
    const Row rows[] = {
        {"_capability._tcp", "capability", TCP},
        {"_x._udp", "x", TCP},  // the underscore stays on the transport
        {"_x.udp", "x", UDP},
        {"_x.UdP", "x", UDP},
        {"_x.tcp", "x", TCP},
        {"_x._sub._udp", "x", TCP},
        {"_x.", "x", TCP},
        {"_x", "x", TCP},
        {".udp", "", UDP},
        {"_", "", TCP},
        {"", "", TCP},
        {"_longer-than-fourteen._tcp", "longer-than-fourteen", TCP},
    };
    for (const auto& row : rows) {
        const auto type = NetworkServiceType::parse(row.text);
        EXPECT_EQ(type.applicationProtocol, row.protocol) << row.text;
        EXPECT_EQ(type.transport, row.transport) << row.text;
    }
}

TEST(NetworkService, IsAnywhereUnlessSaidOtherwise) {
    const NetworkService service;
    EXPECT_EQ(service.protocol, -1);
    EXPECT_EQ(service.interfaceIndex, -1);
    EXPECT_EQ(service.port, 0);
    EXPECT_EQ(service.domain, "");
}

}  // namespace
}  // namespace Hox::Service::Discovery
