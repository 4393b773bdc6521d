#pragma once

#include <string>

namespace Hox::Capability::StateMonitoring {

/// The address of an SNMP manager as an operator writes it: a number or a host name, with or
/// without "udp:" or "udp6:" before it.
struct ManagerAddress {
    /// Number: can be used as it is. Name: has to be looked up. Invalid: neither.
    enum class Kind { Number, Name, Invalid };

    /// Takes the text apart; looks nothing up.
    explicit ManagerAddress(const std::string& text);

    Kind kind = Kind::Invalid;
    std::string host;  ///< the number or the name alone

    /// The text that the SNMP library takes for a numeric host. It names the transport, because the
    /// configuration of the library can make TCP the default one.
    static std::string peerName(const std::string& number);
};

}  // namespace Hox::Capability::StateMonitoring
