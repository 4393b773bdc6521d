#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <array>
#include <map>

#include "avahi/request/iservice_request.h"
#include "avahi_resolver.h"
#include "hox/cpputil/log/source_location.h"

// What the network reports is passed on unchanged: nothing of it is trusted, nothing is refused.

namespace Hox::Service::Discovery::Avahi {

namespace {

std::weak_ptr<RequestContext>* contextOf(void* userdata) {
    return static_cast<std::weak_ptr<RequestContext>*>(userdata);
}

std::string text(const char* maybeNull) {
    return maybeNull == nullptr ? std::string() : std::string(maybeNull);
}

std::string text(const AvahiAddress* address) {
    std::array<char, AVAHI_ADDRESS_STR_MAX> buffer = {};
    if (address != nullptr) {
        avahi_address_snprint(buffer.data(), buffer.size(), address);
    }
    return buffer.data();
}

/// Of several entries with one key the first one counts; an entry without "=" has the empty key.
std::map<std::string, std::string> txtRecords(AvahiStringList* list) {
    std::map<std::string, std::string> records;
    for (; list != nullptr; list = avahi_string_list_get_next(list)) {
        const auto* bytes = reinterpret_cast<const char*>(avahi_string_list_get_text(list));
        const std::string entry(bytes, avahi_string_list_get_size(list));
        const auto end = entry.find('=');
        if (end == std::string::npos) {
            records.emplace();
        } else {
            records.emplace(entry.substr(0, end), entry.substr(end + 1));
        }
    }
    return records;
}

NetworkService hostService(AvahiIfIndex interface, const char* hostName,
                           const AvahiAddress* address) {
    NetworkService service;
    service.hostName = text(hostName);
    service.address = text(address);
    service.interfaceIndex = interface;
    return service;
}

}  // namespace

void AvahiServiceResolver::avahiBrowseCallback(AvahiServiceBrowser*, AvahiIfIndex interface,
                                               AvahiProtocol, AvahiBrowserEvent event,
                                               const char* name, const char* type,
                                               const char* domain, AvahiLookupResultFlags,
                                               void* userdata) noexcept {
    if (!isInterfaceValid(interface, "avahiBrowseCallback")) {
        return;
    }
    NetworkService service;
    service.name = text(name);
    service.domain = text(domain);
    service.type = NetworkServiceType::parse(text(type));
    service.interfaceIndex = interface;
    handleBrowserEvent(contextOf(userdata), event, service);
}

void AvahiServiceResolver::avahiResolveCallback(::AvahiServiceResolver*, AvahiIfIndex interface,
                                                AvahiProtocol protocol, AvahiResolverEvent event,
                                                const char* name, const char* type,
                                                const char* domain, const char* hostName,
                                                const AvahiAddress* address, std::uint16_t port,
                                                AvahiStringList* txt, AvahiLookupResultFlags,
                                                void* userdata) noexcept {
    if (interface < AVAHI_IF_UNSPEC ||
        !isContextValid(contextOf(userdata), "AvahiServiceResolver")) {
        return;
    }
    NetworkService service;
    service.name = text(name);
    service.hostName = text(hostName);
    service.domain = text(domain);
    service.type = NetworkServiceType::parse(text(type));
    service.protocol = protocol == AVAHI_PROTO_UNSPEC || protocol == AVAHI_PROTO_INET6
                           ? protocol
                           : AVAHI_PROTO_INET;
    service.interfaceIndex = interface;
    service.port = port;
    service.address = text(address);
    service.txtRecords = txtRecords(txt);
    handleResolverEvent(contextOf(userdata), event, service);
}

void AvahiServiceResolver::avahiDomainBrowseCallback(AvahiDomainBrowser*, AvahiIfIndex interface,
                                                     AvahiProtocol, AvahiBrowserEvent event,
                                                     const char* domain, AvahiLookupResultFlags,
                                                     void* userdata) noexcept {
    if (!isInterfaceValid(interface, "avahiDomainBrowseCallback") ||
        !isContextValid(contextOf(userdata), "AvahiDomainBrowser")) {
        return;
    }
    NetworkService service;
    service.domain = text(domain);
    service.interfaceIndex = interface;
    handleBrowserEvent(contextOf(userdata), event, service);
}

void AvahiServiceResolver::avahiAddressBrowseCallback(AvahiAddressResolver*, AvahiIfIndex interface,
                                                      AvahiProtocol, AvahiResolverEvent event,
                                                      const AvahiAddress* address,
                                                      const char* hostName, AvahiLookupResultFlags,
                                                      void* userdata) noexcept {
    if (isInterfaceValid(interface, "avahiAddressBrowseCallback") &&
        isContextValid(contextOf(userdata), "AvahiAddressBrowser")) {
        handleResolverEvent(contextOf(userdata), event, hostService(interface, hostName, address));
    }
}

void AvahiServiceResolver::avahiHostnameBrowseCallback(
    AvahiHostNameResolver*, AvahiIfIndex interface, AvahiProtocol, AvahiResolverEvent event,
    const char* hostName, const AvahiAddress* address, AvahiLookupResultFlags,
    void* userdata) noexcept {
    if (isInterfaceValid(interface, "avahiHostnameBrowseCallback") &&
        isContextValid(contextOf(userdata), "AvahiHostNameBrowser")) {
        handleResolverEvent(contextOf(userdata), event, hostService(interface, hostName, address));
    }
}

void AvahiServiceResolver::avahiRecordBrowseCallback(AvahiRecordBrowser*, AvahiIfIndex interface,
                                                     AvahiProtocol, AvahiBrowserEvent event,
                                                     const char* name, std::uint16_t, std::uint16_t,
                                                     const void*, std::size_t,
                                                     AvahiLookupResultFlags,
                                                     void* userdata) noexcept {
    if (!isInterfaceValid(interface, "avahiRecordBrowseCallback") ||
        !isContextValid(contextOf(userdata), "AvahiRecordBrowser")) {
        return;
    }
    NetworkService service;
    service.name = text(name);
    service.interfaceIndex = interface;
    handleBrowserEvent(contextOf(userdata), event, service);
}

void AvahiServiceResolver::handleCallbackEvent(std::weak_ptr<RequestContext>* context,
                                               Status status, const NetworkService& service) {
    const auto request = requestOf(context);
    if (!request) {
        logger()->log(Hox::Log::here(), spdlog::level::err, "context object not valid");
        return;
    }
    request->deliver(status, service);
}

void AvahiServiceResolver::handleBrowserEvent(std::weak_ptr<RequestContext>* context,
                                              AvahiBrowserEvent event,
                                              const NetworkService& service) {
    switch (event) {
        case AVAHI_BROWSER_NEW:
            handleCallbackEvent(context, ServiceFound, service);
            break;
        case AVAHI_BROWSER_REMOVE:
            handleCallbackEvent(context, ServiceRemoved, service);
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
            if (const auto request = requestOf(context)) {
                request->complete();
            }
            break;
        case AVAHI_BROWSER_FAILURE:
            handleCallbackEvent(context, BrowseFailure, NetworkService());
            break;
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            break;
    }
}

void AvahiServiceResolver::handleResolverEvent(std::weak_ptr<RequestContext>* context,
                                               AvahiResolverEvent event,
                                               const NetworkService& service) {
    switch (event) {
        case AVAHI_RESOLVER_FOUND:
            handleCallbackEvent(context, ServiceResolved, service);
            break;
        case AVAHI_RESOLVER_FAILURE:
            handleCallbackEvent(context, ResolveFailure, NetworkService());
            break;
    }
}

bool AvahiServiceResolver::isInterfaceValid(AvahiIfIndex interface, const char* function) {
    if (interface < AVAHI_IF_UNSPEC) {
        logger()->log(Hox::Log::here(), spdlog::level::err, "{}: invalid interface index invalid",
                      function);
        return false;
    }
    return true;
}

bool AvahiServiceResolver::isContextValid(const std::weak_ptr<RequestContext>* context,
                                          const char* object) {
    if (!requestOf(context)) {
        logger()->log(Hox::Log::here(), spdlog::level::err, "{}: request context not valid",
                      object);
        return false;
    }
    return true;
}

}  // namespace Hox::Service::Discovery::Avahi
