#include "avahi/client_core.h"

#include <mutex>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

ClientCore::ClientCore()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

Handle ClientCore::add(const std::shared_ptr<IServiceRequest>& request,
                       const NetworkService& service, const WrapperMaker& makeWrapper) {
    const std::lock_guard<FairMutex> lock(m_avahiMutex);
    if (!isStarted()) {
        const std::string text = "service discovery client not connected";
        m_logger->log(Hox::Log::here(), spdlog::level::err, "error: {}", text);
        throw ServiceDiscoveryError(text, __FILE__, __LINE__);
    }
    // The handle keeps the low half of the number.
    Handle handle(static_cast<unsigned int>(m_nextId++),
                  [core = shared_from_this()](const Handle& dropped) { core->release(dropped); });
    auto* userdata =
        request->bind(std::make_shared<RequestContext>(RequestContext{service, request}));
    request->setWrapper(makeWrapper(*m_connection, userdata));
    m_requests.add(handle.value(), request);
    return handle;
}

void ClientCore::release(const Handle& handle) {
    // Destroyed after the mutex is free: this may run the user's destructors.
    std::shared_ptr<IServiceRequest> request;
    const std::lock_guard<FairMutex> lock(m_avahiMutex);
    request = m_requests.remove(handle, [this](const std::shared_ptr<IServiceRequest>& removed) {
        return !releaseWrapper(*removed);
    });
}

bool ClientCore::releaseWrapper(IServiceRequest& request) const {
    auto* wrapper = request.wrapper();
    if (wrapper == nullptr) {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "Avahi: avahi wrapper not valid");
        return false;
    }
    wrapper->release();
    return true;
}

}  // namespace Hox::Service::Discovery::Avahi
