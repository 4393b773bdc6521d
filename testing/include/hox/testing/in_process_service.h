#pragma once

#include <grpcpp/channel.h>

#include <memory>
#include <string>
#include <vector>

#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Testing {

/// One capability in a server without a listener, started and ended as the frame does it; but it
/// can open no proxies, and its hooks cannot wait for a central store.
class InProcessService {
public:
    /// Parses the arguments with the capability's options and calls all hooks of its start. The
    /// service has the id "head-1". Throws as the hooks do.
    explicit InProcessService(std::unique_ptr<Hox::Service::ICapMngr> capability,
                              const std::vector<std::string>& arguments = {});

    /// Ends calls in flight at once.
    ~InProcessService();
    InProcessService(const InProcessService&) = delete;
    InProcessService& operator=(const InProcessService&) = delete;
    InProcessService(InProcessService&&) = delete;
    InProcessService& operator=(InProcessService&&) = delete;

    /// What the hooks were given.
    Hox::Service::LumServiceCtx& ctx() { return m_ctx; }

    /// The capability that was handed in.
    Hox::Service::ICapMngr& capability() { return *m_ctx.getCapabilities().front().second; }

    /// A new way into the server. Leave it before this object goes.
    std::shared_ptr<grpc::Channel> channel() const;

private:
    Hox::Service::LumServiceCtx m_ctx;
};

}  // namespace Hox::Testing
