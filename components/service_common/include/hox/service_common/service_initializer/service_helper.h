#pragma once

#include <map>
#include <string>

#include "hox/cpputil/resource/resource_handle.h"

namespace Hox::Service {

class LumServiceCtx;

/// Makes a capability known on the network.
class ServiceHelper {
public:
    /// Refers to the context that it is a member of.
    explicit ServiceHelper(LumServiceCtx& ctx);

    /// Publishes a service of the capability with this catalogue number, on the service's port and
    /// on one network interface, and returns once it is on the network. Whoever keeps the handle
    /// keeps it there: if the daemon is lost, the frame publishes it again.
    ///
    /// Kind and visibility are numbers of ServiceKind and ServiceVisibility, serviceIface the full
    /// name of the gRPC service. The TXT records are those of `txt`, and of the standard ones those
    /// whose keys it does not have.
    ///
    /// Called in initCapability(), on the main thread. There is no limit of time: with no daemon it
    /// waits for one. Throws ServiceDiscoveryPublishError with the status if the name is taken or
    /// refused; ServiceDiscoveryError for an unknown interface, or if the daemon gives no place for
    /// the service; InvalidArgumentError for unknown numbers; std::invalid_argument or
    /// std::out_of_range for a port that is not a number. Errors of discovery are logged.
    CppUtil::ResourceHandle<unsigned int> publishCapability(
        int id, int kind, int visibility, const std::string& serviceIface,
        const std::map<std::string, std::string>& txt, const std::string& interfaceName);

private:
    LumServiceCtx& m_ctx;
};

}  // namespace Hox::Service
