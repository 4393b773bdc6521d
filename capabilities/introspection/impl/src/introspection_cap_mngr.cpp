#include "hox/introspection/introspection_cap_mngr.h"

#include <grpcpp/server_builder.h>

#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Capability::Introspection {

int IntrospectionCapMngr::id() const {
    return static_cast<int>(Hox::Service::CapabilityType::Introspection);
}

void IntrospectionCapMngr::initCapability(Hox::Service::LumServiceCtx& ctx) {
    ctx.getServerBuilder().RegisterService(&m_service);
}

}  // namespace Hox::Capability::Introspection
