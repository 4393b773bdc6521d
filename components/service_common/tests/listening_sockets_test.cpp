#include "server/listening_sockets.h"

#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <array>
#include <cstddef>

#include "hox/cpputil/error/initialization_error.h"
#include "hox/testing/reserved_port.h"

namespace Hox::Service {
namespace {

using CppUtil::InitializationError;
using ::testing::StartsWith;
using ::testing::Throws;
using ::testing::ThrowsMessage;

int option(int socket, int level, int name) {
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(::getsockopt(socket, level, name, &value, &size), 0);
    return value;
}

/// The addresses at which the sockets listen, as their families have them.
std::vector<int> families(const std::vector<LinuxCppUtil::OwnedFileDescriptor>& sockets) {
    std::vector<int> families;
    for (const auto& socket : sockets) {
        families.push_back(option(*socket, SOL_SOCKET, SO_DOMAIN));
    }
    return families;
}

TEST(ListeningSockets, ListenWhereverTheNameLeads) {
    const Testing::ReservedPort port;
    const auto sockets = listenAt("localhost", port.text());
    // The machine's name need not have both families.
    EXPECT_THAT(families(sockets), ::testing::Contains(AF_INET));
    for (const auto& socket : sockets) {
        EXPECT_EQ(option(*socket, SOL_SOCKET, SO_ACCEPTCONN), 1);
        EXPECT_EQ(option(*socket, SOL_SOCKET, SO_REUSEPORT), 0);
        EXPECT_EQ(option(*socket, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(option(*socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 20000);
    }
}

TEST(ListeningSockets, ListenOnAllInterfacesForBothFamilies) {
    const Testing::ReservedPort port;
    const auto sockets = listenAt("::", port.text());
    ASSERT_THAT(families(sockets), ::testing::ElementsAre(AF_INET6));
    EXPECT_EQ(option(*sockets.front(), IPPROTO_IPV6, IPV6_V6ONLY), 0);
}

/// From now on the process is on a kernel without IPv6.
void takeIpv6Away() {
    const auto dataAt = [](std::size_t offset) {
        return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
    };
    std::array<sock_filter, 6> filter{dataAt(offsetof(seccomp_data, nr)),
                                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
                                      dataAt(offsetof(seccomp_data, args)),
                                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
                                      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
                                      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{filter.size(), filter.data()};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST(ListeningSocketsDeathTest, ListenOnAllInterfacesWhereThereIsNoIpv6) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const Testing::ReservedPort port;
            takeIpv6Away();
            const auto sockets = listenAt("::", port.text());
            std::exit(families(sockets) == std::vector<int>{AF_INET} ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ListeningSockets, AreNotShared) {
    const Testing::ReservedPort port;
    const auto sockets = listenAt("localhost", port.text());
    EXPECT_THAT([&port] { listenAt("localhost", port.text()); },
                ThrowsMessage<InitializationError>(StartsWith(
                    "Initialization Error: Unable to start gRPC server on address localhost:" +
                    port.text() + " - Address already in use(")));
    EXPECT_THAT([&port] { listenAt("::", port.text()); },
                ThrowsMessage<InitializationError>(StartsWith(
                    "Initialization Error: Unable to start gRPC server on address [::]:" +
                    port.text() + " - Address already in use(")));
}

TEST(ListeningSockets, OneFamilyThatIsTakenIsEnoughForARefusal) {
    const Testing::ReservedPort port;
    const auto sockets = listenAt("127.0.0.1", port.text());
    EXPECT_THAT([&port] { listenAt("localhost", port.text()); }, Throws<InitializationError>());
}

TEST(ListeningSockets, RefuseWhatIsNoPort) {
    const auto refusal = [](const std::string& port) -> std::string {
        try {
            listenAt("localhost", port);
        } catch (const InitializationError& error) {
            return error.what();
        }
        return "none";
    };
    const std::string start = "Initialization Error: Unable to start gRPC server on address ";
    EXPECT_THAT(refusal("65536"), StartsWith(start + "localhost:65536 - The port is above 65535("));
    EXPECT_THAT(refusal("99999999999999999999"), StartsWith(start + "localhost:9999999999999999"));
    EXPECT_THAT(refusal("abc"), StartsWith(start + "localhost:abc - Servname not supported"));
}

}  // namespace
}  // namespace Hox::Service
