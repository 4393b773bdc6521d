#include "hox/testing/reserved_port.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Hox::Testing {
namespace {

/// Binds a socket to the port; returns whether that succeeded.
bool canBind(std::uint16_t port, bool shared) {
    const int descriptor = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = shared ? 1 : 0;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    const bool isBound =
        bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(descriptor);
    return isBound;
}

TEST(ReservedPort, IsLeftToAServer) {
    const ReservedPort port;
    EXPECT_NE(port.number(), 0);
    EXPECT_EQ(port.text(), std::to_string(port.number()));
    EXPECT_TRUE(canBind(port.number(), true));
    EXPECT_FALSE(canBind(port.number(), false));
}

TEST(ReservedPort, IsAnotherOneForEachObject) {
    const ReservedPort first;
    const ReservedPort second;
    EXPECT_NE(first.number(), second.number());
}

}  // namespace
}  // namespace Hox::Testing
