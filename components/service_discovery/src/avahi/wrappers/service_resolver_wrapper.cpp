#include "avahi/wrappers/service_resolver_wrapper.h"

#include "avahi/wrappers/daemon_text.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

ServiceResolverWrapper::ServiceResolverWrapper(const DaemonConnection& connection,
                                               AvahiServiceResolverCallback callback,
                                               void* userdata, const NetworkService& service) {
    const auto typeText = service.type.text();
    if (isDaemonText(service.name) && isDaemonText(typeText)) {
        m_resolver.reset(avahi_service_resolver_new(
            connection.client(), service.interfaceIndex, AVAHI_PROTO_INET, service.name.c_str(),
            typeText.c_str(), orNull(service.domain), AVAHI_PROTO_UNSPEC, AvahiLookupFlags(0),
            callback, userdata));
    }
    if (!m_resolver) {
        throw ServiceDiscoveryError("request invalid pointer", __FILE__, __LINE__);
    }
}

}  // namespace Hox::Service::Discovery::Avahi
