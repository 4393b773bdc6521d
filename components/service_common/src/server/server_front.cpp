#include "server/server_front.h"

#include <grpc/grpc.h>
#include <grpcpp/server_builder.h>

#include "health/service_names_plugin.h"

namespace Hox::Service {

namespace {

// In milliseconds.
constexpr int pingInterval = 30000;
constexpr int pingTimeout = 20000;
/// Clients may ping every ten seconds; delays on the network can bring two pings closer together.
constexpr int shortestClientPingInterval = 9000;

}  // namespace

void ServerFront::prepare(grpc::ServerBuilder& builder) {
    // Detects a peer that has disappeared silently, even if nothing is sent to it.
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, pingInterval);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, pingTimeout);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS,
                               shortestClientPingInterval);
    builder.RegisterService(&m_health);
    ServiceNamesPlugin::addTo(builder,
                              [this](const auto& names) { m_health.setServiceNames(names); });
    m_acceptor = std::make_unique<ConnectionAcceptor>(builder);
}

void ServerFront::listen(const std::string& port, const std::string& externalPort) {
    m_acceptor->listen("localhost", port);
    if (!externalPort.empty()) {
        m_acceptor->listen("::", externalPort);
    }
}

void ServerFront::open() {
    m_acceptor->start();
}

void ServerFront::setServing() {
    m_health.setServing(true);
}

void ServerFront::close() {
    m_health.setServing(false);
    m_health.endWatches();
    if (m_acceptor) {
        m_acceptor->stop();
    }
}

}  // namespace Hox::Service
