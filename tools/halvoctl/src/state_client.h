#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "connection.h"
#include "severity.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

/// The calls of a state monitor. Every function throws CtlError if its call fails.
class StateClient {
public:
    using Stored = Hox::Capability::StateMonitoring::Api::StoredNotification;
    using Report = Hox::Capability::StateMonitoring::Api::StateNotification;
    using Manager = Hox::Capability::StateMonitoring::Api::SnmpConfiguration;
    using Query = Hox::Capability::StateMonitoring::Api::GetStateNotificationsReq;

    /// The connection must outlive this object.
    explicit StateClient(const Connection& connection) : m_connection(connection) {}

    /// The severity of the whole.
    Severity current() const;

    /// The latest report of each origin.
    std::vector<Stored> latest() const;

    /// Archived reports, the oldest first. A query that must not be sent is refused.
    std::vector<Stored> archived(const Query& query) const;

    /// Stores a report, unless it must not be sent.
    void report(const Report& report) const;

    /// The manager that gets the traps, nothing if there is none.
    std::optional<Manager> manager() const;

    /// Sends the traps to this manager from now on.
    void setManager(const Manager& manager) const;

    /// Sends no more traps.
    void clearManager() const;

private:
    const Connection& m_connection;
};

/// The reports about whether the configuration of a service is saved, one for each service id.
std::vector<StateClient::Stored> savingReports(const std::vector<StateClient::Stored>& latest);

/// The ids of the services that have reported unsaved changes last.
std::set<std::string> unsavedServices(const std::vector<StateClient::Stored>& latest);

/// The same, but only of those whose report was the same one before.
std::set<std::string> unsavedInBoth(const std::vector<StateClient::Stored>& before,
                                    const std::vector<StateClient::Stored>& after);

}  // namespace Hox::Ctl
