#include "avahi/request/request_state.h"

#include <exception>
#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

RequestState::RequestState()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

void RequestState::add(unsigned int id, std::shared_ptr<IServiceRequest> request) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.insert_or_assign(id, std::move(request));
}

std::shared_ptr<IServiceRequest> RequestState::find(const Handle& handle) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_requests.find(handle.value());
    return found == m_requests.end() ? nullptr : found->second;
}

std::shared_ptr<IServiceRequest> RequestState::remove(const Handle& handle,
                                                      const Cleanup& cleanup) {
    try {
        const std::lock_guard<std::mutex> lock(m_mutex);
        auto& entry = m_requests[handle.value()];
        if (entry && cleanup(entry)) {
            m_logger->log(Hox::Log::here(), spdlog::level::err,
                          "Avahi: failed to cleanup resource");
        }
        auto request = std::move(entry);
        m_requests.erase(handle.value());
        return request;
    } catch (const std::exception&) {
        throw ServiceDiscoveryError("invalid publish handle", __FILE__, __LINE__);
    }
}

RequestState::Requests RequestState::takeAll() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_requests, {});
}

}  // namespace Hox::Service::Discovery::Avahi
