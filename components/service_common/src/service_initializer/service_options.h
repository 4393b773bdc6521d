#pragma once

#include <spdlog/logger.h>

#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {

/// Adds the service's own options, in the group "service".
void addServiceOptions(LumServiceCtx& ctx);

/// Parses the command line into the context. Returns false, with the help on standard output, where
/// the service has to stop; an option that the parser refuses is logged as well. Throws
/// std::invalid_argument and std::out_of_range for ports that are no numbers where both are given.
bool parseServiceOptions(int argc, const char* const* argv, LumServiceCtx& ctx,
                         spdlog::logger& logger);

}  // namespace Hox::Service
