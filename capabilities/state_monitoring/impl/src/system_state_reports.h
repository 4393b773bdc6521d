#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "state_monitoring.pb.h"
#include "system_state.h"

namespace Hox::Capability::StateMonitoring {

/// Turns the states of the machine's service manager into notifications of this service, one per
/// change.
class SystemStateReports {
public:
    /// The id is that of this service.
    explicit SystemStateReports(std::string serviceId);

    /// Takes in what the manager calls its state. Returns the notification to be created, or
    /// nothing if there is nothing new to report. On one thread at a time, without a lock.
    std::optional<Api::StateNotification> update(const std::string& managerState);

    /// The last state that is not unknown. Callable from any thread, without a lock.
    SystemState state() const { return m_systemState; }

private:
    Api::StateNotification report(Api::StateSeverity severity, const char* text) const;

    const std::string m_serviceId;
    std::atomic<SystemState> m_systemState{SystemState::Unknown};
};

}  // namespace Hox::Capability::StateMonitoring
