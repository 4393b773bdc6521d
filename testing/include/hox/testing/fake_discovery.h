#pragma once

#include <memory>

#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_discovery/iservice_discovery_client.h"

namespace Hox::Testing {

/// A new discovery client without a daemon, which publishes everything at once.
std::shared_ptr<Hox::Service::Discovery::IServiceDiscoveryClient> fakeDiscoveryClient();

/// Gives a context without a frame what a capability needs to be published: the option "port", 5000
/// by default, and a started fake client. Before the command line is parsed.
void prepareForPublication(Hox::Service::LumServiceCtx& ctx);

}  // namespace Hox::Testing
