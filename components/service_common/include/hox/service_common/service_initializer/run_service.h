#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "hox/service_common/capability/icap_mngr.h"

namespace Hox::Service {

/// Creates the capabilities of a service, in the order in which they are initialised.
using CapabilityFactory = std::function<std::vector<std::unique_ptr<ICapMngr>>()>;

/// A factory of one capability of each class, made by its default constructor.
template <typename... Capabilities>
CapabilityFactory capabilities() {
    return [] {
        std::vector<std::unique_ptr<ICapMngr>> made;
        (made.push_back(std::make_unique<Capabilities>()), ...);
        return made;
    };
}

/// All that the main function of a service does: sets up the process and the frame, serves with
/// server reflection until SIGINT or SIGTERM, and returns the exit status of the process, 0 after a
/// regular end and 1 if the command line is not valid. Failed assertions abort.
///
/// Called once, on the main thread, before gRPC is used; argv outlives the call. The capabilities
/// are created when the log system exists. Throws what LumServiceInitializer throws.
int runService(int argc, char** argv, const CapabilityFactory& makeCapabilities);

}  // namespace Hox::Service
