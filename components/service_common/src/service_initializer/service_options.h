#pragma once

#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {

/// Adds the service's own options, in the group "service".
void addServiceOptions(LumServiceCtx& ctx);

/// Prints the help of all groups to standard output, followed by a line end.
void printHelp(LumServiceCtx& ctx);

}  // namespace Hox::Service
