#include "server/listening_sockets.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>

#include "hox/cpputil/error/initialization_error.h"
#include "hox/cpputil/string/string_utils.h"

namespace Hox::Service {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

/// The time in milliseconds that a peer may leave data unacknowledged before its connection is
/// dropped.
constexpr int userTimeout = 20000;

constexpr int maxPort = 65535;

/// Of both families, where the kernel has both.
constexpr std::string_view everyAddress = "::";

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

[[noreturn]] void refuse(const std::string& address, const std::string& reason) {
    throw CppUtil::InitializationError(
        "Unable to start gRPC server on address " + address + " - " + reason, __FILE__, __LINE__);
}

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

/// The library truncates a number that is not a port to sixteen bits.
bool isNoPort(const std::string& port) {
    return CppUtil::str_isonly_digits(port) && (port.size() > 5 || std::stoi(port) > maxPort);
}

Addresses resolve(const std::string& host, const std::string& port, const std::string& address) {
    if (isNoPort(port)) {
        refuse(address, "The port is above 65535");
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (error != 0) {
        refuse(address, ::gai_strerror(error));
    }
    return {found, &::freeaddrinfo};
}

void setOption(int socket, int level, int option, int value) {
    ::setsockopt(socket, level, option, &value, sizeof(value));
}

/// Null, with errno set, if the address is not available.
OwnedFileDescriptor listenAt(const addrinfo& address) {
    auto socket = LinuxCppUtil::ownFileDescriptor(
        ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket) {
        return nullptr;
    }
    // Accepted sockets inherit the options of the listening socket.
    setOption(*socket, SOL_SOCKET, SO_REUSEADDR, 1);
    setOption(*socket, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(*socket, IPPROTO_TCP, TCP_USER_TIMEOUT, userTimeout);
    if (address.ai_family == AF_INET6) {
        setOption(*socket, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    }
    if (::bind(*socket, address.ai_addr, address.ai_addrlen) != 0 ||
        ::listen(*socket, SOMAXCONN) != 0) {
        return nullptr;
    }
    return socket;
}

/// A machine need not have addresses of both families.
bool isFamilyMissing(int error) {
    return error == EAFNOSUPPORT || error == EADDRNOTAVAIL;
}

/// Adds a socket for each address of the host. Returns the reason why an address is missing, 0 for
/// none. Throws if one is busy.
int addSockets(std::vector<OwnedFileDescriptor>& sockets, const std::string& host,
               const std::string& port, const std::string& address) {
    int error = 0;
    const auto addresses = resolve(host, port, address);
    for (const auto* entry = addresses.get(); entry != nullptr; entry = entry->ai_next) {
        if (auto socket = listenAt(*entry)) {
            sockets.push_back(std::move(socket));
            continue;
        }
        error = errno;
        if (!isFamilyMissing(error)) {
            refuse(address, reasonOf(error));
        }
    }
    return error;
}

}  // namespace

std::vector<OwnedFileDescriptor> listenAt(const std::string& host, const std::string& port) {
    const std::string address =
        (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + port;
    std::vector<OwnedFileDescriptor> sockets;
    int error = addSockets(sockets, host, port, address);
    if (sockets.empty() && host == everyAddress) {
        error = addSockets(sockets, "0.0.0.0", port, address);
    }
    if (sockets.empty()) {
        refuse(address, reasonOf(error));
    }
    return sockets;
}

}  // namespace Hox::Service
