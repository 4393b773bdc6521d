#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <grpcpp/channel.h>

#include <memory>
#include <mutex>

#include "hox/observer_tree/builders/proto_obs_tree_builder.h"
#include "hox/observer_tree/builders/service_traits.h"
#include "hox/observer_tree/grpc/async_grpc_client_handler.h"
#include "hox/observer_tree/proxy_observer_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// The type of proxy tree that this builder creates.
using GrpcProxyObserverTree = ProxyObserverTree<AsyncGrpcClientHandler>;

/// Builds proxy trees from the descriptors that the remote services were built from.
///
/// Stateless: one object serves all proxies, from any thread.
class AsyncGrpcProxyObsTreeBuilder : public ProtoObsTreeBuilder {
public:
    /// Creates the builder's logger.
    AsyncGrpcProxyObsTreeBuilder();

    /// Creates a proxy with its own client handler, thread and queue, which run under the
    /// capability's mutex. The gate is that of the process's own server if the channel leads there,
    /// otherwise null. Throws ObsTreeBuildError for a service that the descriptor pool lacks and
    /// for a method whose operation does not exist.
    template <typename ServiceType>
    std::shared_ptr<GrpcProxyObserverTree> createProxyObsTree(
        const std::shared_ptr<grpc::Channel>& channel, const std::shared_ptr<std::mutex>& mutex,
        std::shared_ptr<InProcessGate> gate) const {
        const bool inProcess = gate != nullptr;
        const auto handler = std::make_shared<AsyncGrpcClientHandler>(mutex, inProcess);
        auto tree = std::make_shared<GrpcProxyObserverTree>(channel, handler, std::move(gate));
        buildProxyObsTree<ServiceType>(tree, inProcess, channel, handler);
        // Last: if the build fails, the proxy is destroyed while its caller holds the mutex.
        handler->startThread();
        return tree;
    }

    /// Binds each method of the service that carries obs_tree_option to the proxy. `ServiceType` is
    /// the class that the service's declaration generates, or the class Service nested in it.
    /// Throws like createProxyObsTree.
    template <typename ServiceType>
    void buildProxyObsTree(const std::shared_ptr<GrpcProxyObserverTree>& tree, bool inProcess,
                           const std::shared_ptr<grpc::Channel>& channel,
                           const std::shared_ptr<AsyncGrpcClientHandler>& handler) const {
        for (const auto* method :
             getObsTreeMethods(*google::protobuf::DescriptorPool::generated_pool(),
                               ServiceTraits<ServiceType>::fullName())) {
            bindMethod(*method, *tree, inProcess, channel, handler);
        }
    }

    /// Lets observers at the method's address observe on the server: registers the hooks that start
    /// and end a stream of the handler. The tree that the method is bound to keeps the streams.
    void addObserve(const google::protobuf::MethodDescriptor& method, const ObsTreeOptions& options,
                    GrpcProxyObserverTree& tree, const std::shared_ptr<grpc::Channel>& channel,
                    bool inProcess, const std::shared_ptr<AsyncGrpcClientHandler>& handler) const;

private:
    void bindMethod(const google::protobuf::MethodDescriptor& method, GrpcProxyObserverTree& tree,
                    bool inProcess, const std::shared_ptr<grpc::Channel>& channel,
                    const std::shared_ptr<AsyncGrpcClientHandler>& handler) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
