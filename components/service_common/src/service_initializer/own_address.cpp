#include "service_initializer/own_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace Hox::Service {

namespace {

/// The address inside an IPv6 socket address, IPv4 in its mapped form.
in6_addr mapped(const in_addr& address) {
    in6_addr result{};
    result.s6_addr[10] = 0xff;
    result.s6_addr[11] = 0xff;
    std::memcpy(&result.s6_addr[12], &address, sizeof(address));
    return result;
}

bool parse(const std::string& text, in6_addr& address) {
    in_addr shortAddress{};
    if (inet_pton(AF_INET, text.c_str(), &shortAddress) == 1) {
        address = mapped(shortAddress);
        return true;
    }
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool isLoopbackOrAny(const in6_addr& address) {
    constexpr unsigned char loopbackNet = 127;
    const bool isV4 = IN6_IS_ADDR_V4MAPPED(&address);
    const bool isAnyV4 = isV4 && std::memcmp(&address.s6_addr[12], "\0\0\0\0", 4) == 0;
    return IN6_IS_ADDR_LOOPBACK(&address) || IN6_IS_ADDR_UNSPECIFIED(&address) || isAnyV4 ||
           (isV4 && address.s6_addr[12] == loopbackNet);
}

bool isOf(const sockaddr& socketAddress, const in6_addr& address) {
    in6_addr own{};
    if (socketAddress.sa_family == AF_INET) {
        sockaddr_in internet{};
        std::memcpy(&internet, &socketAddress, sizeof(internet));
        own = mapped(internet.sin_addr);
    } else if (socketAddress.sa_family == AF_INET6) {
        sockaddr_in6 internet{};
        std::memcpy(&internet, &socketAddress, sizeof(internet));
        own = internet.sin6_addr;
    } else {
        return false;
    }
    return std::memcmp(&own, &address, sizeof(own)) == 0;
}

bool isOnAnInterface(const in6_addr& address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return false;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && isOf(*entry->ifa_addr, address)) {
            return true;
        }
    }
    return false;
}

bool isSameName(const std::string& left, const std::string& right) {
    return strcasecmp(left.c_str(), right.c_str()) == 0;
}

std::string hostName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    return gethostname(name.data(), name.size()) == 0 ? std::string(name.data()) : std::string();
}

/// Host and port of a target, without the brackets of an IPv6 address and the scheme of gRPC.
std::pair<std::string, std::string> hostAndPort(std::string url) {
    for (const std::string scheme : {"dns:///", "dns:", "ipv4:", "ipv6:"}) {
        if (url.compare(0, scheme.size(), scheme) == 0) {
            url.erase(0, scheme.size());
            break;
        }
    }
    const auto colon = url.rfind(':');
    if (colon == std::string::npos) {
        return {url, ""};
    }
    auto host = url.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return {host, url.substr(colon + 1)};
}

}  // namespace

bool isOwnAddress(const std::string& address, const std::string& ownPort) {
    if (address == "inprocess") {
        return true;
    }
    const auto [host, port] = hostAndPort(address);
    if (std::strtoul(port.c_str(), nullptr, 10) != std::strtoul(ownPort.c_str(), nullptr, 10)) {
        return false;
    }
    in6_addr number{};
    if (!parse(host, number)) {
        return isSameName(host, "localhost") || isSameName(host, hostName());
    }
    return isLoopbackOrAny(number) || isOnAnInterface(number);
}

}  // namespace Hox::Service
