#pragma once

#include <spdlog/logger.h>

#include <memory>
#include <string>

#include "snmp_event.h"

struct snmp_session;
struct snmp_pdu;

namespace Hox::Capability::StateMonitoring {

/// One SNMP manager, to which traps are sent as SNMPv2c over UDP.
///
/// The SNMP library has one state for the whole process: objects are created, used and destroyed on
/// one thread at a time, under the capability's mutex. Several may exist.
class SnmpManager {
public:
    /// The text for a manager that cannot be used.
    static constexpr const char* notOpenedText = "Failed to open netsnmp session";

    /// Opens the session. The address is numeric or one that is found without the network: a name
    /// that is looked up holds the caller up. Throws std::runtime_error if there is no such
    /// address or port, or if the community is empty or longer than 256 bytes.
    SnmpManager(const std::string& managerIp, const std::string& trapPort, std::string community);
    ~SnmpManager();
    SnmpManager(const SnmpManager&) = delete;
    SnmpManager(SnmpManager&&) = delete;
    SnmpManager& operator=(const SnmpManager&) = delete;
    SnmpManager& operator=(SnmpManager&&) = delete;

    /// Sends the trap; does not wait for the manager. What the network refuses, or what does not
    /// fit into a datagram, is logged and left out. Asserts that the MIBs know the trap.
    void sendTrap(const SnmpEvent& event);

private:
    struct PduDeleter {
        void operator()(snmp_pdu* pdu) const;
    };
    using Pdu = std::unique_ptr<snmp_pdu, PduDeleter>;

    static void setEnterprise(snmp_pdu& pdu);
    static void addEvent(snmp_pdu& pdu, const SnmpEvent& event);
    std::string lastError();

    const std::shared_ptr<spdlog::logger> m_logger;
    std::string m_peerName;
    std::string m_community;
    snmp_session* m_session = nullptr;
};

}  // namespace Hox::Capability::StateMonitoring
