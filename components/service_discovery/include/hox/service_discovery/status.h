#pragma once

namespace Hox::Service::Discovery {

/// How a publication, a search or the connection to the daemon has turned out.
enum Status : int {
    Published = 0,        ///< the service is on the network
    Collision = 1,        ///< another service has the name
    Registering = 2,      ///< the service is not yet on the network
    PublishFailure = 3,   ///< the service cannot be published
    ServiceFound = 4,     ///< browsing: a service has appeared
    ServiceRemoved = 5,   ///< browsing: a service has disappeared
    ServiceResolved = 6,  ///< resolving: the service has been found
    ResolveFailure = 7,   ///< resolving: the service cannot be found
    BrowseFailure = 8,    ///< browsing has failed
    ClientLost = 10  ///< the connection to the daemon is lost or stopped; all requests are lost
};

}  // namespace Hox::Service::Discovery
