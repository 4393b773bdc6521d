#pragma once

#include <string>
#include <type_traits>

#include "hox/cpputil/type/type_name.h"

namespace Hox::ObserverTree {

/// Returns the descriptor name of the service that a nested class Service implements, given the
/// name of the class.
std::string serviceNameOfClass(std::string className);

/// The properties of a service derived from one of its generated classes: here from the class
/// Service that is nested in the service's class.
template <typename ServiceType, typename = void>
struct ServiceTraits {
    using Service = ServiceType;
    /// The name as in the descriptors.
    static std::string fullName() { return serviceNameOfClass(getTemplateTypeName<ServiceType>()); }
};

/// The same for the service's class itself.
template <typename ServiceType>
struct ServiceTraits<ServiceType, std::void_t<decltype(ServiceType::service_full_name())>> {
    using Service = typename ServiceType::Service;
    static std::string fullName() { return ServiceType::service_full_name(); }
};

}  // namespace Hox::ObserverTree
