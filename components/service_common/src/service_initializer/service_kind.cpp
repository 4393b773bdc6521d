#include "hox/service_common/service_initializer/service_kind.h"

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {

std::string serviceKindName(int kind) {
    if (kind != static_cast<int>(ServiceKind::Grpc)) {
        throw CppUtil::InvalidArgumentError("Invalid service type", __FILE__, __LINE__);
    }
    return "grpc";
}

}  // namespace Hox::Service
