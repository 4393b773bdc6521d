#pragma once

#include <memory>

#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

class IServiceRequest;

/// What Avahi's callbacks work on. Their userdata is a weak pointer to it, so that a callback
/// finds nothing after the request was destroyed.
struct RequestContext {
    NetworkService service;                  ///< what was asked for
    std::weak_ptr<IServiceRequest> request;  ///< its owner
};

/// The request of a callback's userdata; null if either was destroyed.
inline std::shared_ptr<IServiceRequest> requestOf(const std::weak_ptr<RequestContext>* userdata) {
    const auto context = userdata == nullptr ? nullptr : userdata->lock();
    return context ? context->request.lock() : nullptr;
}

}  // namespace Hox::Service::Discovery::Avahi
