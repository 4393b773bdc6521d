#include "hox/testing/datagram_receiver.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace

DatagramReceiver::DatagramReceiver(const std::filesystem::path& path)
    : m_path(path), m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (m_socket < 0) {
        fail("socket");
    }
    const auto address = addressOf(path.string());
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(m_socket);
        errno = error;
        fail("bind " + path.string());
    }
}

DatagramReceiver::~DatagramReceiver() {
    close(m_socket);
    unlink(m_path.c_str());
}

const std::vector<std::string>& DatagramReceiver::messages() {
    while (true) {
        char next = 0;
        const auto size = recv(m_socket, &next, sizeof(next), MSG_PEEK | MSG_TRUNC);
        if (size < 0) {
            if (errno == EAGAIN) {
                return m_messages;
            }
            fail("recv");
        }
        std::string message(static_cast<std::size_t>(size), '\0');
        if (recv(m_socket, message.data(), message.size(), 0) < 0) {
            fail("recv");
        }
        m_messages.push_back(std::move(message));
    }
}

}  // namespace Hox::Testing
