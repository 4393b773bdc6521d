#include "manager_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

namespace Hox::Capability::StateMonitoring {

namespace {

template <int Family, typename Address>
bool isNumber(const std::string& text) {
    Address address{};
    const bool isWhole = text.find('\0') == std::string::npos;
    return isWhole && inet_pton(Family, text.c_str(), &address) == 1;
}

bool isHostName(const std::string& text) {
    constexpr std::size_t longest = 253;
    const auto isAllowed = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '-' || character == '_' ||
               character == '.';
    };
    return !text.empty() && text.size() <= longest && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), isAllowed);
}

std::string withoutTransport(const std::string& text) {
    for (const std::string transport : {"udp:", "udp6:"}) {
        if (text.compare(0, transport.size(), transport) == 0) {
            return text.substr(transport.size());
        }
    }
    return text;
}

}  // namespace

ManagerAddress::ManagerAddress(const std::string& text) : host(withoutTransport(text)) {
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        kind = isNumber<AF_INET6, in6_addr>(host) ? Kind::Number : Kind::Invalid;
    } else if (isNumber<AF_INET, in_addr>(host) || isNumber<AF_INET6, in6_addr>(host)) {
        kind = Kind::Number;
    } else {
        kind = isHostName(host) ? Kind::Name : Kind::Invalid;
    }
}

std::string ManagerAddress::peerName(const std::string& number) {
    return number.find(':') == std::string::npos ? "udp:" + number : "udp6:[" + number + "]";
}

}  // namespace Hox::Capability::StateMonitoring
