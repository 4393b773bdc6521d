#pragma once

#include <spdlog/logger.h>

#include <memory>
#include <string>

#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

class HostLookup;
class SnmpManager;

/// Sends the notifications that concern an SNMP manager as traps.
///
/// Nothing is sent until there is a configuration. All functions run under the capability's mutex
/// and do not wait for the network, except configure(), which waits for a host name for at most 200
/// milliseconds.
class TrapForwarder {
public:
    /// Sends nothing.
    TrapForwarder();

    /// Ends a look-up that is under way.
    ~TrapForwarder();
    TrapForwarder(const TrapForwarder&) = delete;
    TrapForwarder(TrapForwarder&&) = delete;
    TrapForwarder& operator=(const TrapForwarder&) = delete;
    TrapForwarder& operator=(TrapForwarder&&) = delete;

    /// Sends to this manager from now on. If it cannot be used, that is logged and the previous
    /// manager remains in use, also while the address of a host name is still unknown.
    void configure(const Api::SnmpConfiguration& configuration);

    /// Sends nothing from now on.
    void disable();

    /// Sends the trap that belongs to the notification's type and severity, if there is one.
    void forward(const Api::StateNotification& notification);

private:
    void open(const std::string& peer);
    void takeAddress();
    void lookUp(const std::string& host);
    void logFailure(const std::string& reason) const;

    const std::shared_ptr<spdlog::logger> m_logger;
    std::unique_ptr<SnmpManager> m_snmpManager;
    Api::SnmpConfiguration m_wanted;       // the last one
    std::unique_ptr<HostLookup> m_lookup;  // null unless the address of m_wanted is not known yet
};

}  // namespace Hox::Capability::StateMonitoring
