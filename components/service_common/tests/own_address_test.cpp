#include "service_initializer/own_address.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

namespace Hox::Service {
namespace {

TEST(OwnAddress, IsKnownByAddressAndPort) {
    for (const std::string host :
         {"127.0.0.1", "127.1.2.3", "localhost", "LocalHost", "0.0.0.0", "[::1]", "[::]",
          "ipv4:127.0.0.1", "ipv6:[::1]", "dns:///localhost", "[::ffff:127.0.0.1]"}) {
        EXPECT_TRUE(isOwnAddress(host + ":5000", "5000")) << host;
        EXPECT_FALSE(isOwnAddress(host + ":5001", "5000")) << host;
    }
}

TEST(OwnAddress, IsKnownByTheHostName) {
    std::array<char, 256> name{};
    ASSERT_EQ(gethostname(name.data(), name.size()), 0);
    EXPECT_TRUE(isOwnAddress(std::string(name.data()) + ":5000", "5000"));
}

TEST(OwnAddress, IsKnownByTheNumberOfThePort) {
    EXPECT_TRUE(isOwnAddress("127.0.0.1:05000", "5000"));
    EXPECT_TRUE(isOwnAddress("127.0.0.1:5000", "05000"));
}

TEST(OwnAddress, IsTheProcessItself) {
    EXPECT_TRUE(isOwnAddress("inprocess", "5000"));
}

TEST(OwnAddress, IsNoOther) {
    for (const std::string url : {"198.51.100.7:5000", "[2001:db8::1]:5000", "other.invalid:5000",
                                  "127.0.0.1", "5000", "", ":", "127.0.0.1:"}) {
        EXPECT_FALSE(isOwnAddress(url, "5000")) << url;
    }
}

}  // namespace
}  // namespace Hox::Service
