#pragma once

#include <avahi-client/publish.h>
#include <spdlog/logger.h>

#include <functional>
#include <memory>
#include <string>

#include "avahi/client_core.h"
#include "avahi/request/request_context.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/service_discovery/iservice_publisher.h"

namespace Hox::Service::Discovery::Avahi {

/// Publishes services through entry groups of Avahi, one for each request.
class AvahiServicePublisher : public IServicePublisher {
public:
    explicit AvahiServicePublisher(std::shared_ptr<ClientCore> core);

    FutureOutcome<NetworkService> publish(const NetworkService& service) override;
    Handle publish(const NetworkService& service,
                   const ServiceDiscoveryCallback& callback) override;
    Status status(const Handle& handle) override;

    /// Avahi's entry, on the event loop.
    static void avahiEntryGroupCallback(AvahiEntryGroup* group, AvahiEntryGroupState state,
                                        void* userdata) noexcept;

    /// Delivers the outcome to the request's user, on the event loop; an error line where the
    /// request was dropped.
    static void handleCallback(std::weak_ptr<RequestContext>* context, Status status);

private:
    inline static const std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    static std::shared_ptr<spdlog::logger> logger();
    void requireStarted() const;
    Handle add(const std::shared_ptr<IServiceRequest>& request, const NetworkService& service);

    std::shared_ptr<spdlog::logger> m_logger;
    std::shared_ptr<ClientCore> m_core;
};

}  // namespace Hox::Service::Discovery::Avahi
