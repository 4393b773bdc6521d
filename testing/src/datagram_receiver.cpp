#include "hox/testing/datagram_receiver.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>

namespace Hox::Testing {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        fail("socket path " + path);
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

/// A socket bound to the first `size` bytes of the address.
LinuxCppUtil::OwnedFileDescriptor boundSocket(const sockaddr_un& address, socklen_t size) {
    auto descriptor = LinuxCppUtil::ownFileDescriptor(
        socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!descriptor) {
        fail("socket");
    }
    if (bind(*descriptor, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        fail("bind " + std::string(address.sun_path));
    }
    return descriptor;
}

}  // namespace

DatagramReceiver::DatagramReceiver(const std::filesystem::path& path)
    : m_address(path.string()), m_socket(boundSocket(addressOf(m_address), sizeof(sockaddr_un))) {}

DatagramReceiver::DatagramReceiver()
    // If only the family is given, the kernel chooses an abstract name.
    : m_socket(boundSocket(addressOf(""), sizeof(sa_family_t))) {
    sockaddr_un address{};
    socklen_t size = sizeof(address);
    if (getsockname(*m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        fail("getsockname");
    }
    const std::size_t length = size - offsetof(sockaddr_un, sun_path);
    m_address = "@" + std::string(address.sun_path + 1, length - 1);
}

DatagramReceiver::~DatagramReceiver() {
    if (m_address.front() != '@') {
        unlink(m_address.c_str());
    }
}

const std::vector<std::string>& DatagramReceiver::messages() {
    while (true) {
        char next = 0;
        const auto size = recv(*m_socket, &next, sizeof(next), MSG_PEEK | MSG_TRUNC);
        if (size < 0) {
            if (errno == EAGAIN) {
                return m_messages;
            }
            fail("recv");
        }
        std::string message(static_cast<std::size_t>(size), '\0');
        if (recv(*m_socket, message.data(), message.size(), 0) < 0) {
            fail("recv");
        }
        m_messages.push_back(std::move(message));
    }
}

}  // namespace Hox::Testing
