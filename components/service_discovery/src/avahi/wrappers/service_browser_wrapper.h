#pragma once

#include <avahi-client/lookup.h>

#include <memory>

#include "avahi/daemon_connection.h"
#include "avahi/wrappers/avahi_wrapper.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

/// Owns a browser: the search for all instances of a type.
class ServiceBrowserWrapper : public AvahiWrapper {
public:
    /// Begins to browse for the type of the service on its interface. Throws ServiceDiscoveryError
    /// if the daemon refuses it.
    ServiceBrowserWrapper(const DaemonConnection& connection, AvahiServiceBrowserCallback callback,
                          void* userdata, const NetworkService& service);

    void release() override { m_browser.reset(); }

private:
    struct FreeBrowser {
        void operator()(AvahiServiceBrowser* browser) const { avahi_service_browser_free(browser); }
    };

    std::unique_ptr<AvahiServiceBrowser, FreeBrowser> m_browser;
};

}  // namespace Hox::Service::Discovery::Avahi
