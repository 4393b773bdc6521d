#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "avahi/request/iservice_request.h"

namespace Hox::Service::Discovery::Avahi {

/// A request that keeps what is delivered, without Avahi.
class FakeRequest : public IServiceRequest {
public:
    void deliver(Status status, const NetworkService& service) override {
        delivered.emplace_back(status, service);
    }
    void complete() override { ++completed; }
    void* bind(std::shared_ptr<RequestContext> context) override {
        m_userdata = context;
        m_context = std::move(context);
        return &m_userdata;
    }
    void setWrapper(std::unique_ptr<AvahiWrapper> wrapper) override {
        m_wrapper = std::move(wrapper);
    }
    AvahiWrapper* wrapper() const override { return m_wrapper.get(); }

    std::vector<std::pair<Status, NetworkService>> delivered;
    int completed = 0;

private:
    std::shared_ptr<RequestContext> m_context;
    std::weak_ptr<RequestContext> m_userdata;
    std::unique_ptr<AvahiWrapper> m_wrapper;
};

}  // namespace Hox::Service::Discovery::Avahi
