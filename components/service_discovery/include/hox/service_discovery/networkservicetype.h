#pragma once

#include <cstdint>
#include <string>

namespace Hox::Service::Discovery {

/// What carries the application protocol.
enum Transport : int { TCP = 0, UDP = 1 };

/// The type of a service: what its instances have in common.
struct NetworkServiceType {
    /// Throws ServiceDiscoveryError if the protocol is longer than maxProtocolLength bytes.
    explicit NetworkServiceType(std::string protocol = "", Transport transportProtocol = TCP);

    /// The type as mDNS writes it, for example "_capability._tcp".
    std::string text() const;

    /// Reads a type as mDNS writes it, whatever its length. The transport is UDP only if the text
    /// after the first dot is "udp", in any case of letters: "_x._udp" reads as TCP.
    static NetworkServiceType parse(const std::string& text);

    std::uint8_t maxProtocolLength = 14;
    std::string applicationProtocol;  ///< without the leading underscore
    Transport transport = TCP;
};

}  // namespace Hox::Service::Discovery
