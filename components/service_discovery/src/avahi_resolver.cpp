#include "avahi_resolver.h"

#include <utility>

#include "avahi/future/avahi_future_service.h"
#include "avahi/future/avahi_future_services.h"
#include "avahi/request/avahi_callback.h"
#include "avahi/request/avahi_request.h"
#include "avahi/wrappers/service_browser_wrapper.h"
#include "avahi/wrappers/service_resolver_wrapper.h"
#include "hox/cpputil/error/not_implemented_error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

namespace {

constexpr auto notConnected = "service discovery client not connected";

[[noreturn]] void throwNotImplemented() {
    throw Hox::CppUtil::NotImplementedError("functionality not yet implemented", __FILE__,
                                            __LINE__);
}

}  // namespace

AvahiServiceResolver::AvahiServiceResolver(std::shared_ptr<ClientCore> core)
    : m_logger(logger()), m_core(std::move(core)) {}

FutureOutcome<NetworkService> AvahiServiceResolver::resolve(const std::string& name,
                                                            const NetworkServiceType& type,
                                                            int interfaceIndex) {
    requireStarted("service discovery client not started");
    if (name.empty()) {
        throw ServiceDiscoveryError("service name is required to resolve a service.", __FILE__,
                                    __LINE__);
    }
    AvahiFutureService delivery;
    auto future = delivery.future();
    auto handle =
        addResolver(std::make_shared<AvahiRequest<AvahiFutureService>>(std::move(delivery)), name,
                    type, interfaceIndex);
    return {std::move(handle), std::move(future)};
}

Handle AvahiServiceResolver::resolve(const std::string& name, const NetworkServiceType& type,
                                     const ServiceDiscoveryCallback& callback, int interfaceIndex) {
    requireStarted(notConnected);
    if (name.empty() || type.applicationProtocol.empty()) {
        throw ServiceDiscoveryError("service name requires both name and servicetype.", __FILE__,
                                    __LINE__);
    }
    AvahiCallback<NetworkService> delivery(callback);
    return addResolver(
        std::make_shared<AvahiRequest<AvahiCallback<NetworkService>>>(std::move(delivery)), name,
        type, interfaceIndex);
}

FutureOutcome<NetworkService> AvahiServiceResolver::resolveAddress(const std::string&, int) {
    throwNotImplemented();
}

FutureOutcome<NetworkService> AvahiServiceResolver::resolveHostName(const std::string&, int) {
    throwNotImplemented();
}

FutureOutcome<std::vector<NetworkService>> AvahiServiceResolver::browse(
    const NetworkServiceType& type, int interfaceIndex) {
    requireStarted(notConnected);
    AvahiFutureServices delivery;
    auto future = delivery.future();
    auto handle =
        addBrowser(std::make_shared<AvahiRequest<AvahiFutureServices>>(std::move(delivery)), type,
                   interfaceIndex);
    return {std::move(handle), std::move(future)};
}

Handle AvahiServiceResolver::browse(const NetworkServiceType& type,
                                    const ServiceDiscoveryCallback& callback, int interfaceIndex) {
    requireStarted(notConnected);
    AvahiCallback<NetworkService> delivery(callback);
    return addBrowser(
        std::make_shared<AvahiRequest<AvahiCallback<NetworkService>>>(std::move(delivery)), type,
        interfaceIndex);
}

FutureOutcome<std::vector<NetworkService>> AvahiServiceResolver::browseDomains(int) {
    throwNotImplemented();
}

std::shared_ptr<spdlog::logger> AvahiServiceResolver::logger() {
    return Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName());
}

void AvahiServiceResolver::requireStarted(const char* text) const {
    if (!m_core->isStarted()) {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "error: {}", "client not connected");
        throw ServiceDiscoveryError(text, __FILE__, __LINE__);
    }
}

Handle AvahiServiceResolver::addResolver(const std::shared_ptr<IServiceRequest>& request,
                                         const std::string& name, const NetworkServiceType& type,
                                         int interfaceIndex) {
    NetworkService service;
    service.name = name;
    service.type = type;
    service.interfaceIndex = interfaceIndex;
    return m_core->add(request, service, [&](const DaemonConnection& connection, void* userdata) {
        return std::make_unique<ServiceResolverWrapper>(connection, avahiResolveCallback, userdata,
                                                        service);
    });
}

Handle AvahiServiceResolver::addBrowser(const std::shared_ptr<IServiceRequest>& request,
                                        const NetworkServiceType& type, int interfaceIndex) {
    NetworkService service;
    service.type = type;
    service.interfaceIndex = interfaceIndex;
    return m_core->add(request, service, [&](const DaemonConnection& connection, void* userdata) {
        return std::make_unique<ServiceBrowserWrapper>(connection, avahiBrowseCallback, userdata,
                                                       service);
    });
}

}  // namespace Hox::Service::Discovery::Avahi
