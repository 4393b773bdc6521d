#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/server.h>

#include <memory>
#include <mutex>
#include <string>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"

namespace Hox::Service {

/// Opens proxy trees to other services and to this one.
class ProxyObsTreeHelper {
public:
    /// Shares the frame's builder; refers to the frame's slot of the server, which is still null.
    ProxyObsTreeHelper(
        std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder,
        const std::unique_ptr<grpc::Server>& grpcServer);

    /// Creates a proxy of the service at the address, which is "inprocess" for this process and is
    /// otherwise passed to gRPC unchanged. Its callbacks run under the mutex, which is the
    /// capability's. Callable from serverStarted() on; asserts that the server has started. Throws
    /// ObsTreeBuildError for a service that cannot be bound.
    template <typename ServiceType>
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> createProxyObsTree(
        const std::shared_ptr<std::mutex>& mutex, const std::string& address) const {
        HOX_ASSERT(m_grpcServer.get());
        HOX_ASSERT(m_proxyObsTreeBuilder.get());
        return m_proxyObsTreeBuilder->createProxyObsTree<ServiceType>(
            channelTo(address), mutex, isInProcess(address) ? m_inProcessGate : nullptr);
    }

    /// The gate of the process's own server, which must be closed before the server's shutdown.
    const std::shared_ptr<Hox::ObserverTree::InProcessGate>& inProcessGate() const {
        return m_inProcessGate;
    }

private:
    static bool isInProcess(const std::string& address);
    std::shared_ptr<grpc::Channel> channelTo(const std::string& address) const;

    std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> m_proxyObsTreeBuilder;
    const std::unique_ptr<grpc::Server>& m_grpcServer;
    std::shared_ptr<Hox::ObserverTree::InProcessGate> m_inProcessGate =
        std::make_shared<Hox::ObserverTree::InProcessGate>();
};

}  // namespace Hox::Service
