#pragma once

#include <string>
#include <type_traits>

#include "hox/cpputil/type/type_name.h"

namespace Hox::ObserverTree {

/// The name of the service, as the descriptors have it, that this nested class Service implements,
/// from the class's own name.
std::string serviceNameOfClass(std::string className);

/// What is known of a service by one of its generated classes: here the class Service that is
/// nested in the service's own.
template <typename ServiceType, typename = void>
struct ServiceTraits {
    using Service = ServiceType;
    /// As the descriptors have it.
    static std::string fullName() { return serviceNameOfClass(getTemplateTypeName<ServiceType>()); }
};

/// The same for the service's own class.
template <typename ServiceType>
struct ServiceTraits<ServiceType, std::void_t<decltype(ServiceType::service_full_name())>> {
    using Service = typename ServiceType::Service;
    static std::string fullName() { return ServiceType::service_full_name(); }
};

}  // namespace Hox::ObserverTree
