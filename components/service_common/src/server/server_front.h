#pragma once

#include <memory>
#include <string>

#include "health/health_service.h"
#include "server/connection_acceptor.h"

namespace grpc {
class ServerBuilder;
}  // namespace grpc

namespace Hox::Service {

/// What the network sees of the process's server beside its services: ports, connections, the
/// standard health service. Outlives the server.
class ServerFront {
public:
    /// Sets how the server treats quiet connections, and adds the health service to it. Before the
    /// server is built.
    void prepare(grpc::ServerBuilder& builder);

    /// Listens on the port, on loopback only, and on the external one, unless that is empty, on all
    /// interfaces; clients wait. After prepare(). Throws InitializationError that names the address
    /// that cannot be had.
    void listen(const std::string& port, const std::string& externalPort);

    /// Starts to accept connections; the server runs. Throws where there is no descriptor or thread
    /// for it.
    void open();

    /// Tells that everything is served.
    void setServing();

    /// Tells that nothing is served any more and closes the ports; ahead of the server's shutdown.
    /// Any thread, one at a time.
    void close();

private:
    HealthService m_health;
    std::unique_ptr<ConnectionAcceptor> m_acceptor;
};

}  // namespace Hox::Service
