#include "system_state_reports.h"

#include <utility>

#include "time_stamp.h"

namespace Hox::Capability::StateMonitoring {

SystemStateReports::SystemStateReports(std::string serviceId) : m_serviceId(std::move(serviceId)) {}

std::optional<Api::StateNotification> SystemStateReports::update(const std::string& managerState) {
    const SystemState previous = m_systemState;
    if (managerState == "running" && previous != SystemState::Running) {
        m_systemState = SystemState::Running;
        return report(Api::StateSeverity::OK, previous == SystemState::Starting
                                                  ? "System booted."
                                                  : "Internal system status OK.");
    }
    if (managerState == "degraded" && previous != SystemState::Degraded) {
        m_systemState = SystemState::Degraded;
        return report(Api::StateSeverity::ERROR, "Internal system failure.");
    }
    if (managerState == "starting") {
        m_systemState = SystemState::Starting;
    }
    return std::nullopt;
}

Api::StateNotification SystemStateReports::report(Api::StateSeverity severity,
                                                  const char* text) const {
    Api::StateNotification notification;
    notification.set_severity(severity);
    notification.set_service_id(m_serviceId);
    notification.set_type("system.systemd-degraded");
    notification.set_source("system/systemd");
    notification.set_msg(text);
    *notification.mutable_timestamp() = currentTimeStamp();
    return notification;
}

}  // namespace Hox::Capability::StateMonitoring
