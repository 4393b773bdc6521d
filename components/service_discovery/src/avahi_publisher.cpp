#include "avahi_publisher.h"

#include <avahi-common/error.h>

#include <mutex>
#include <utility>

#include "avahi/future/avahi_future_service.h"
#include "avahi/request/avahi_callback.h"
#include "avahi/request/avahi_request.h"
#include "avahi/wrappers/entry_group_wrapper.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {

AvahiServicePublisher::AvahiServicePublisher(std::shared_ptr<ClientCore> core)
    : m_logger(logger()), m_core(std::move(core)) {}

FutureOutcome<NetworkService> AvahiServicePublisher::publish(const NetworkService& service) {
    requireStarted();
    AvahiFutureService delivery;
    auto future = delivery.future();
    auto handle =
        add(std::make_shared<AvahiRequest<AvahiFutureService>>(std::move(delivery)), service);
    return {std::move(handle), std::move(future)};
}

Handle AvahiServicePublisher::publish(const NetworkService& service,
                                      const ServiceDiscoveryCallback& callback) {
    requireStarted();
    AvahiCallback<NetworkService> delivery(callback);
    return add(std::make_shared<AvahiRequest<AvahiCallback<NetworkService>>>(std::move(delivery)),
               service);
}

Status AvahiServicePublisher::status(const Handle& handle) {
    const std::lock_guard<FairMutex> lock(m_core->avahiMutex());
    const auto request = handle.isValid() ? m_core->requests().find(handle) : nullptr;
    const auto* group =
        request ? dynamic_cast<const EntryGroupWrapper*>(request->wrapper()) : nullptr;
    if (group == nullptr) {
        throw ServiceDiscoveryError("invalid publish handle", __FILE__, __LINE__);
    }
    return group->status();
}

void AvahiServicePublisher::avahiEntryGroupCallback(AvahiEntryGroup* group,
                                                    AvahiEntryGroupState state,
                                                    void* userdata) noexcept {
    auto* context = static_cast<std::weak_ptr<RequestContext>*>(userdata);
    switch (state) {
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
            handleCallback(context, Published);
            break;
        case AVAHI_ENTRY_GROUP_COLLISION:
            handleCallback(context, Collision);
            break;
        case AVAHI_ENTRY_GROUP_FAILURE:
            logger()->log(Hox::Log::here(), spdlog::level::err, "Avahi: entry group failure {}",
                          avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(group))));
            handleCallback(context, PublishFailure);
            break;
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
            break;
    }
}

void AvahiServicePublisher::handleCallback(std::weak_ptr<RequestContext>* context, Status status) {
    const auto request = requestOf(context);
    if (!request) {
        logger()->log(Hox::Log::here(), spdlog::level::err, "Avahi: context object not valid");
        return;
    }
    const auto service = context->lock()->service;
    request->deliver(status, service);
}

std::shared_ptr<spdlog::logger> AvahiServicePublisher::logger() {
    return Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName());
}

void AvahiServicePublisher::requireStarted() const {
    if (!m_core->isStarted()) {
        const std::string text = "service discovery client not connected";
        m_logger->log(Hox::Log::here(), spdlog::level::err, "error: {}", text);
        throw ServiceDiscoveryError(text, __FILE__, __LINE__);
    }
}

Handle AvahiServicePublisher::add(const std::shared_ptr<IServiceRequest>& request,
                                  const NetworkService& service) {
    return m_core->add(request, service, [&](const DaemonConnection& connection, void* userdata) {
        return std::make_unique<EntryGroupWrapper>(connection, avahiEntryGroupCallback,
                                                   handleCallback, userdata, service, *m_logger);
    });
}

}  // namespace Hox::Service::Discovery::Avahi
