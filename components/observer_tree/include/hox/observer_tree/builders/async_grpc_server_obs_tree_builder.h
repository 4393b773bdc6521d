#pragma once

#include <grpcpp/server_builder.h>

#include <memory>
#include <mutex>

#include "hox/observer_tree/builders/proto_obs_tree_builder.h"
#include "hox/observer_tree/builders/service_traits.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "hox/observer_tree/grpc/grpc_wrapper_service.h"
#include "hox/observer_tree/observer_tree.h"

namespace Hox::ObserverTree {

/// Serves a capability's tree over gRPC: binds the methods of generated services to it.
///
/// Each capability has its own builder, and with it its own queue and handler. Used by the thread
/// that sets up the service, before the server is started.
class AsyncGRPCServerObsTreeBuilder : public ProtoObsTreeBuilder {
public:
    /// Whether the thread of a queue reads from the network while it waits.
    enum class Polling { Polls, DoesNotPoll };

    /// Adds a queue to the server and creates its handler. The server builder is not owned and
    /// outlives this object; `mutex` is the capability's. Exactly one queue of the process should
    /// poll: it reads for all queues, and with two polling queues each event wakes both threads.
    /// The poller polls while the thread of a polling queue runs a handler; without a poller,
    /// network input waits for the handler.
    AsyncGRPCServerObsTreeBuilder(grpc::ServerBuilder* serverBuilder,
                                  const std::shared_ptr<std::mutex>& mutex,
                                  Polling polling = Polling::Polls,
                                  std::shared_ptr<StandbyPoller> standbyPoller = nullptr);

    /// Binds each method of the service that carries obs_tree_option to the tree and registers the
    /// service with the server; its other methods answer UNIMPLEMENTED. `ServiceType` is the class
    /// that the service's declaration generates, or the class Service nested in it. Throws
    /// ObsTreeBuildError when the descriptor pool lacks the service.
    ///
    /// The tree outlives the handler; the handler keeps the registered service alive.
    template <typename ServiceType>
    void buildServerObsTree(ObserverTree& tree) {
        const auto wrapper =
            std::make_shared<GrpcWrapperService<typename ServiceTraits<ServiceType>::Service>>();
        for (const auto* method :
             getObsTreeMethods(*google::protobuf::DescriptorPool::generated_pool(),
                               ServiceTraits<ServiceType>::fullName())) {
            m_asyncGrpcServerHandler->addMethod(*method, wrapper, &tree);
            wrapper->markMethodAsynchronous(method->index());
            logBinding(*method);
        }
        m_asyncGrpcServerHandler->addService(wrapper);
        m_serverBuilder->RegisterService(wrapper.get());
    }

    /// The handler of all methods that this builder has bound. The owner starts it once the server
    /// runs.
    const std::shared_ptr<AsyncGrpcServerHandler>& asyncGrpcServerHandler() const {
        return m_asyncGrpcServerHandler;
    }

private:
    void logBinding(const google::protobuf::MethodDescriptor& method) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
    grpc::ServerBuilder* m_serverBuilder;
    std::shared_ptr<AsyncGrpcServerHandler> m_asyncGrpcServerHandler;
};

}  // namespace Hox::ObserverTree
