#pragma once

#include <grpcpp/channel.h>

#include <memory>
#include <string>
#include <vector>

#include "hox/service_common/capability/icap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Testing {

/// One capability in a server, started and ended as by the frame, with a
/// private configuration directory. Its hooks cannot wait for a central store.
class InProcessService {
public:
    /// Parses the arguments with the capability's options and calls all start hooks. The service
    /// has the id "head-1". It listens at the address, if there is one. Throws what the hooks
    /// throw.
    explicit InProcessService(std::unique_ptr<Hox::Service::ICapMngr> capability,
                              const std::vector<std::string>& arguments = {},
                              const std::string& address = "");

    /// Cancels calls that are in flight.
    ~InProcessService();
    InProcessService(const InProcessService&) = delete;
    InProcessService& operator=(const InProcessService&) = delete;
    InProcessService(InProcessService&&) = delete;
    InProcessService& operator=(InProcessService&&) = delete;

    /// The context that the hooks got.
    Hox::Service::LumServiceCtx& ctx() { return m_ctx; }

    /// The capability passed to the constructor.
    Hox::Service::ICapMngr& capability() { return *m_ctx.getCapabilities().front().second; }

    /// A new channel to the server. It must be destroyed before this object.
    std::shared_ptr<grpc::Channel> channel() const;

private:
    const TempDir m_configDir;
    Hox::Service::LumServiceCtx m_ctx;
};

}  // namespace Hox::Testing
