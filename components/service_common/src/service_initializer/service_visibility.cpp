#include "hox/service_common/service_initializer/service_visibility.h"

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {

std::string visibilityName(int visibility) {
    switch (static_cast<ServiceVisibility>(visibility)) {
        case ServiceVisibility::Private:
            return "private";
        case ServiceVisibility::Public:
            return "public";
    }
    throw CppUtil::InvalidArgumentError("Invalid service type", __FILE__, __LINE__);
}

}  // namespace Hox::Service
