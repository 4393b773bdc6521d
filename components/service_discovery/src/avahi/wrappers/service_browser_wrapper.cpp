#include "avahi/wrappers/service_browser_wrapper.h"

#include "avahi/wrappers/daemon_text.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

ServiceBrowserWrapper::ServiceBrowserWrapper(const DaemonConnection& connection,
                                             AvahiServiceBrowserCallback callback, void* userdata,
                                             const NetworkService& service) {
    const auto typeText = service.type.text();
    if (isDaemonText(typeText)) {
        m_browser.reset(avahi_service_browser_new(connection.client(), service.interfaceIndex,
                                                  AVAHI_PROTO_UNSPEC, typeText.c_str(), nullptr,
                                                  AvahiLookupFlags(0), callback, userdata));
    }
    if (!m_browser) {
        throw ServiceDiscoveryError("request invalid pointer", __FILE__, __LINE__);
    }
}

}  // namespace Hox::Service::Discovery::Avahi
