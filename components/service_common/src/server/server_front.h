#pragma once

#include <memory>
#include <string>

#include "health/health_service.h"
#include "server/connection_acceptor.h"

namespace grpc {
class ServerBuilder;
}  // namespace grpc

namespace Hox::Service {

/// The network side of the process's server besides its services: ports, connections, the standard
/// health service. Outlives the server.
class ServerFront {
public:
    /// Sets how the server treats quiet connections, and adds the health service. Called before the
    /// server is built.
    void prepare(grpc::ServerBuilder& builder);

    /// Listens on the port, on loopback only, and on the external port, unless it is empty, on all
    /// interfaces; clients wait. Called after prepare(). Throws InitializationError, which names
    /// the address that is not available.
    void listen(const std::string& port, const std::string& externalPort);

    /// Starts to accept connections; called while the server runs. Throws if there is no descriptor
    /// or thread for it.
    void open();

    /// Reports that everything is served.
    void setServing();

    /// Reports that nothing is served any more and closes the ports. Called before the server's
    /// shutdown, from any thread, one at a time.
    void close();

private:
    HealthService m_health;
    std::unique_ptr<ConnectionAcceptor> m_acceptor;
};

}  // namespace Hox::Service
