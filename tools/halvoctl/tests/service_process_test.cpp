#include "service_process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/reserved_port.h"

namespace Hox::Ctl {

namespace {

/// A socket that listens on a free port of the loopback interface.
class Listening {
public:
    Listening() : m_socket(LinuxCppUtil::ownFileDescriptor(::socket(AF_INET, SOCK_STREAM, 0))) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof(address);
        EXPECT_EQ(::bind(*m_socket, generic, size), 0);
        EXPECT_EQ(::listen(*m_socket, 1), 0);
        EXPECT_EQ(::getsockname(*m_socket, generic, &size), 0);
        m_port = ntohs(address.sin_port);
    }

    std::uint16_t port() const { return m_port; }

private:
    LinuxCppUtil::OwnedFileDescriptor m_socket;
    std::uint16_t m_port = 0;
};

TEST(ServiceProcess, ListenersAreFoundByTheirSockets) {
    const Listening socket;
    EXPECT_EQ(listenersOn(socket.port()).processes.count(::getpid()), 1U);
    const Testing::ReservedPort reserved;
    EXPECT_TRUE(listenersOn(static_cast<std::uint16_t>(reserved.number())).processes.empty());
}

TEST(ServiceProcess, IsSeenThroughTheKernel) {
    const ServiceProcess process(::getpid());
    EXPECT_EQ(process.uid(), ::geteuid());
    EXPECT_EQ(process.program(), std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_FALSE(process.isProgramDeleted());
    EXPECT_EQ(process.absolute("/a/b"), "/a/b");
    EXPECT_EQ(process.absolute("a"), (std::filesystem::current_path() / "a").string());
    EXPECT_FALSE(process.has("--no-such-option"));
    EXPECT_FALSE(process.valueOf("--no-such-option"));
}

TEST(ServiceProcess, OneThatIsGoneIsEmpty) {
    constexpr pid_t nobody = 4194305;  // above the largest number
    const ServiceProcess process(nobody);
    EXPECT_EQ(process.program(), "");
    EXPECT_EQ(process.root(), "");
    EXPECT_FALSE(process.isProgramDeleted());
}

}  // namespace

}  // namespace Hox::Ctl
