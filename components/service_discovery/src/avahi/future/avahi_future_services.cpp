#include "avahi/future/avahi_future_services.h"

#include <algorithm>
#include <utility>

namespace Hox::Service::Discovery::Avahi {

void AvahiFutureServices::deliver(Status status, const NetworkService& service) {
    if (isFulfilled()) {
        return;
    }
    if (status == ServiceFound) {
        m_services.push_back(service);
    } else if (status == ServiceRemoved) {
        const auto gone =
            std::find_if(m_services.begin(), m_services.end(), [&](const NetworkService& other) {
                return other.name == service.name && other.domain == service.domain &&
                       other.interfaceIndex == service.interfaceIndex;
            });
        if (gone != m_services.end()) {
            m_services.erase(gone);
        }
    } else {
        fulfil(status, std::move(m_services));
    }
}

void AvahiFutureServices::complete() {
    fulfil(ServiceFound, std::move(m_services));
}

}  // namespace Hox::Service::Discovery::Avahi
