#include "udp_receiver.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace Hox::Capability::StateMonitoring::Fixture {

UdpReceiver::UdpReceiver()
    : m_socket(LinuxCppUtil::ownFileDescriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(LinuxCppUtil::fileDescriptorNumber(m_socket),
             reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::system_error(errno, std::generic_category(), "bind");
    }
}

std::string UdpReceiver::port() const {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    getsockname(LinuxCppUtil::fileDescriptorNumber(m_socket), reinterpret_cast<sockaddr*>(&address),
                &size);
    return std::to_string(ntohs(address.sin_port));
}

std::string UdpReceiver::receive(std::chrono::milliseconds limit) {
    pollfd readable{LinuxCppUtil::fileDescriptorNumber(m_socket), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(limit.count())) <= 0) {
        return "";
    }
    std::vector<char> buffer(65'536);
    const auto length = recv(readable.fd, buffer.data(), buffer.size(), 0);
    return length <= 0 ? "" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

}  // namespace Hox::Capability::StateMonitoring::Fixture
