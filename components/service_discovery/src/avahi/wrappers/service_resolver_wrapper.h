#pragma once

#include <avahi-client/lookup.h>

#include <memory>

#include "avahi/daemon_connection.h"
#include "avahi/wrappers/avahi_wrapper.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

/// Owns a resolver: the search for host, address, port and TXT records of one instance.
class ServiceResolverWrapper : public AvahiWrapper {
public:
    /// Begins to look for the service by name, type and interface. Throws ServiceDiscoveryError if
    /// the daemon refuses it.
    ServiceResolverWrapper(const DaemonConnection& connection,
                           AvahiServiceResolverCallback callback, void* userdata,
                           const NetworkService& service);

    void release() override { m_resolver.reset(); }

private:
    struct FreeResolver {
        void operator()(::AvahiServiceResolver* resolver) const {
            avahi_service_resolver_free(resolver);
        }
    };

    std::unique_ptr<::AvahiServiceResolver, FreeResolver> m_resolver;
};

}  // namespace Hox::Service::Discovery::Avahi
