#pragma once

#include <memory>

#include "avahi/request/request_context.h"
#include "avahi/wrappers/avahi_wrapper.h"
#include "hox/service_discovery/networkservice.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery::Avahi {

/// Joins what the user wants with the Avahi object that fulfils it. All is called under the Avahi
/// mutex; the destructor need not be.
class IServiceRequest {
public:
    virtual ~IServiceRequest() = default;

    /// Delivers an event to the user. The caller holds a shared pointer to the request meanwhile,
    /// as the user may end it.
    virtual void deliver(Status status, const NetworkService& service) = 0;

    /// Everything that is known now has been delivered.
    virtual void complete() = 0;

    /// Takes the context and returns the userdata for Avahi, a std::weak_ptr<RequestContext>* that
    /// is valid as long as the request.
    virtual void* bind(std::shared_ptr<RequestContext> context) = 0;

    /// Takes the owner of the Avahi object.
    virtual void setWrapper(std::unique_ptr<AvahiWrapper> wrapper) = 0;

    /// The owner of the Avahi object, null if there is none.
    virtual AvahiWrapper* wrapper() const = 0;
};

}  // namespace Hox::Service::Discovery::Avahi
