#include "hox/testing/reserved_port.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace Hox::Testing {

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// The socket functions accept addresses of all families as one type.
sockaddr* asSocketAddress(sockaddr_in6& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

ReservedPort::ReservedPort()
    : m_socket(LinuxCppUtil::ownFileDescriptor(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
    require(m_socket != nullptr, "socket");
    const int on = 1;
    require(setsockopt(*m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0, "setsockopt");
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t size = sizeof(address);
    require(bind(*m_socket, asSocketAddress(address), size) == 0, "bind");
    require(getsockname(*m_socket, asSocketAddress(address), &size) == 0, "getsockname");
    m_number = ntohs(address.sin6_port);
}

}  // namespace Hox::Testing
