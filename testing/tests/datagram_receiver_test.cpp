#include "hox/testing/datagram_receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <system_error>

#include "hox/testing/temp_dir.h"

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Sends to a path, or to an abstract name after "@".
void send(const std::string& to, const std::string& message) {
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sender, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    to.copy(address.sun_path, sizeof(address.sun_path) - 1);
    socklen_t size = sizeof(address);
    if (to.front() == '@') {
        address.sun_path[0] = '\0';
        size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + to.size());
    }
    EXPECT_EQ(sendto(sender, message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), size),
              static_cast<ssize_t>(message.size()));
    close(sender);
}

TEST(DatagramReceiver, KeepsMessagesWholeAndInOrder) {
    const TempDir folder;
    DatagramReceiver receiver(folder / "socket");
    EXPECT_THAT(receiver.messages(), IsEmpty());
    const std::string large(20000, 'x');
    send(folder / "socket", "first");
    send(folder / "socket", "");
    send(folder / "socket", large);
    EXPECT_THAT(receiver.messages(), ElementsAre("first", "", large));
    send(folder / "socket", "later");
    EXPECT_THAT(receiver.messages(), ElementsAre("first", "", large, "later"));
}

TEST(DatagramReceiver, ReceivesUnderANameOfItsOwn) {
    DatagramReceiver receiver;
    DatagramReceiver other;
    EXPECT_THAT(receiver.address(), ::testing::StartsWith("@"));
    EXPECT_NE(receiver.address(), other.address());
    send(receiver.address(), "first");
    EXPECT_THAT(receiver.messages(), ElementsAre("first"));
    EXPECT_THAT(other.messages(), IsEmpty());
}

TEST(DatagramReceiver, RemovesItsSocket) {
    const TempDir folder;
    {
        const DatagramReceiver receiver(folder / "socket");
        EXPECT_TRUE(std::filesystem::is_socket(folder / "socket"));
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "socket"));
}

TEST(DatagramReceiver, RefusesAPathThatIsTakenOrTooLong) {
    const TempDir folder;
    const DatagramReceiver receiver(folder / "socket");
    EXPECT_THROW(DatagramReceiver(folder / "socket"), std::system_error);
    EXPECT_THROW(DatagramReceiver(folder / std::string(108, 'x')), std::system_error);
}

}  // namespace
}  // namespace Hox::Testing
