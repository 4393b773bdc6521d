#pragma once

#include <memory>
#include <utility>

#include "avahi/request/iservice_request.h"

namespace Hox::Service::Discovery::Avahi {

/// A request that delivers in one of several ways: AvahiCallback, AvahiFutureService and
/// AvahiFutureServices.
template <typename Delivery>
class AvahiRequest : public IServiceRequest {
public:
    explicit AvahiRequest(Delivery delivery) : m_delivery(std::move(delivery)) {}

    void deliver(Status status, const NetworkService& service) override {
        m_delivery.deliver(status, service);
    }

    void complete() override { m_delivery.complete(); }

    void* bind(std::shared_ptr<RequestContext> context) override {
        m_userdata = context;
        m_context = std::move(context);
        return &m_userdata;
    }

    void setWrapper(std::unique_ptr<AvahiWrapper> wrapper) override {
        m_wrapper = std::move(wrapper);
    }

    AvahiWrapper* wrapper() const override { return m_wrapper.get(); }

private:
    Delivery m_delivery;
    std::shared_ptr<RequestContext> m_context;
    std::weak_ptr<RequestContext> m_userdata;
    std::unique_ptr<AvahiWrapper> m_wrapper;
};

}  // namespace Hox::Service::Discovery::Avahi
