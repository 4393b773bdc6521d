#pragma once

#include <avahi-client/lookup.h>
#include <spdlog/logger.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "avahi/client_core.h"
#include "avahi/request/request_context.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/timer/timer.h"
#include "hox/service_discovery/iservice_resolver.h"

namespace Hox::Service::Discovery::Avahi {

/// Finds services through browsers and resolvers of Avahi, one for each request.
class AvahiServiceResolver : public IServiceResolver {
public:
    /// Starts the thread of the timer; throws std::system_error if that fails.
    explicit AvahiServiceResolver(std::shared_ptr<ClientCore> core);

    FutureOutcome<NetworkService> resolve(const std::string& name, const NetworkServiceType& type,
                                          int interfaceIndex) override;
    Handle resolve(const std::string& name, const NetworkServiceType& type,
                   const ServiceDiscoveryCallback& callback, int interfaceIndex) override;
    FutureOutcome<NetworkService> resolveAddress(const std::string& address,
                                                 int interfaceIndex) override;
    FutureOutcome<NetworkService> resolveHostName(const std::string& hostName,
                                                  int interfaceIndex) override;
    FutureOutcome<std::vector<NetworkService>> browse(const NetworkServiceType& type,
                                                      int interfaceIndex) override;
    Handle browse(const NetworkServiceType& type, const ServiceDiscoveryCallback& callback,
                  int interfaceIndex) override;
    FutureOutcome<std::vector<NetworkService>> browseDomains(int interfaceIndex) override;

    // Avahi's entries, on the event loop.
    static void avahiBrowseCallback(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                                    AvahiProtocol protocol, AvahiBrowserEvent event,
                                    const char* name, const char* type, const char* domain,
                                    AvahiLookupResultFlags flags, void* userdata) noexcept;
    static void avahiResolveCallback(::AvahiServiceResolver* resolver, AvahiIfIndex interface,
                                     AvahiProtocol protocol, AvahiResolverEvent event,
                                     const char* name, const char* type, const char* domain,
                                     const char* hostName, const AvahiAddress* address,
                                     std::uint16_t port, AvahiStringList* txt,
                                     AvahiLookupResultFlags flags, void* userdata) noexcept;

    // For the operations that are not implemented: nothing reaches them yet.
    static void avahiDomainBrowseCallback(AvahiDomainBrowser* browser, AvahiIfIndex interface,
                                          AvahiProtocol protocol, AvahiBrowserEvent event,
                                          const char* domain, AvahiLookupResultFlags flags,
                                          void* userdata) noexcept;
    static void avahiAddressBrowseCallback(AvahiAddressResolver* resolver, AvahiIfIndex interface,
                                           AvahiProtocol protocol, AvahiResolverEvent event,
                                           const AvahiAddress* address, const char* hostName,
                                           AvahiLookupResultFlags flags, void* userdata) noexcept;
    static void avahiHostnameBrowseCallback(AvahiHostNameResolver* resolver, AvahiIfIndex interface,
                                            AvahiProtocol protocol, AvahiResolverEvent event,
                                            const char* hostName, const AvahiAddress* address,
                                            AvahiLookupResultFlags flags, void* userdata) noexcept;
    static void avahiRecordBrowseCallback(AvahiRecordBrowser* browser, AvahiIfIndex interface,
                                          AvahiProtocol protocol, AvahiBrowserEvent event,
                                          const char* name, std::uint16_t recordClass,
                                          std::uint16_t recordType, const void* data,
                                          std::size_t size, AvahiLookupResultFlags flags,
                                          void* userdata) noexcept;

    /// Delivers an event to the request's user, on the event loop; an error line where the request
    /// is dropped.
    static void handleCallbackEvent(std::weak_ptr<RequestContext>* context, Status status,
                                    const NetworkService& service);

private:
    inline static const std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    static std::shared_ptr<spdlog::logger> logger();
    static bool isContextValid(const std::weak_ptr<RequestContext>* context, const char* object);
    static bool isInterfaceValid(AvahiIfIndex interface, const char* function);
    static void handleBrowserEvent(std::weak_ptr<RequestContext>* context, AvahiBrowserEvent event,
                                   const NetworkService& service);
    static void handleResolverEvent(std::weak_ptr<RequestContext>* context,
                                    AvahiResolverEvent event, const NetworkService& service);

    void requireStarted(const char* text) const;
    Handle addResolver(const std::shared_ptr<IServiceRequest>& request, const std::string& name,
                       const NetworkServiceType& type, int interfaceIndex);
    Handle addBrowser(const std::shared_ptr<IServiceRequest>& request,
                      const NetworkServiceType& type, int interfaceIndex);

    std::shared_ptr<spdlog::logger> m_logger;
    std::shared_ptr<ClientCore> m_core;
    Hox::CppUtil::Timer m_timer;
};

}  // namespace Hox::Service::Discovery::Avahi
