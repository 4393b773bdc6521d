#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"

#include <utility>

#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/change_set_conversion.h"

namespace Hox::ObserverTree {

namespace {

using google::protobuf::Message;

Status statusOf(const grpc::Status& grpcStatus, const ObsTreeObserveChangeSet& message) {
    if (!grpcStatus.ok()) {
        return {static_cast<ProtoStatus::StatusCode>(grpcStatus.error_code()),
                grpcStatus.error_message()};
    }
    return {message.observestatus().statuscode(), message.observestatus().errormessage()};
}

void passOn(const Message* message, const grpc::Status& grpcStatus,
            const ObserverCallback& callback) {
    static const ObsTreeObserveChangeSet none;
    const auto& changeSet =
        message != nullptr ? dynamic_cast<const ObsTreeObserveChangeSet&>(*message) : none;
    callback(fromWire(changeSet), statusOf(grpcStatus, changeSet));
}

}  // namespace

AsyncGrpcProxyObsTreeBuilder::AsyncGrpcProxyObsTreeBuilder()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

void AsyncGrpcProxyObsTreeBuilder::bindMethod(
    const google::protobuf::MethodDescriptor& method, GrpcProxyObserverTree& tree, bool inProcess,
    const std::shared_ptr<grpc::Channel>& channel,
    const std::shared_ptr<AsyncGrpcClientHandler>& handler) const {
    const ObsTreeOptions options = method.options().GetExtension(obs_tree_option);
    switch (options.type()) {
        case ObsTreeOptions::CREATE:
        case ObsTreeOptions::READ:
        case ObsTreeOptions::UPDATE:
        case ObsTreeOptions::REMOVE:
            tree.setUnaryMethod(options.key(), static_cast<UnaryOps>(options.type() - 1),
                                std::make_unique<OwnedRpcMethod>(
                                    method, grpc::internal::RpcMethod::NORMAL_RPC, channel));
            return;
        case ObsTreeOptions::OBSERVE:
            addObserve(method, options, tree, channel, inProcess, handler);
            return;
        default:
            throw ObsTreeBuildError("No handler implemented for action: " +
                                        std::to_string(options.type()) + method.DebugString(),
                                    __FILE__, __LINE__);
    }
}

void AsyncGrpcProxyObsTreeBuilder::addObserve(
    const google::protobuf::MethodDescriptor& method, const ObsTreeOptions& options,
    GrpcProxyObserverTree& tree, const std::shared_ptr<grpc::Channel>& channel, bool inProcess,
    const std::shared_ptr<AsyncGrpcClientHandler>& handler) const {
    tree.registerNewObserverHandler<Message>(
        options.key(), [logger = m_logger, &method, &tree, channel, inProcess,
                        weakHandler = std::weak_ptr<AsyncGrpcClientHandler>(handler)](
                           const Message& inMsg, const ObserverCallback& callback) {
            logger->log(
                Hox::Log::here(), spdlog::level::debug,
                "Register Observer Start, add RAII handle to map and call observe on server");
            const auto clientHandler = weakHandler.lock();
            const auto passage = tree.passGate();
            AsyncGrpcClientHandler::CallMethodRaiiHandleType handle;
            if (clientHandler && (!inProcess || passage.owns_lock())) {
                handle = clientHandler->callMethodServerStreaming(
                    inMsg, method, channel, inProcess,
                    // A copy: the observer may leave while its callback runs.
                    [callback](const std::unique_ptr<Message>& message,
                               const grpc::Status& status) {
                        passOn(message.get(), status, callback);
                    });
            }
            tree.addRemoteObservation(inMsg, std::move(handle));
        });
    tree.registerObserverGoneHandler<Message>(
        options.key(),
        [logger = m_logger, &tree](const Message& inMsg, const ObserverCallback& /*callback*/) {
            logger->log(Hox::Log::here(), spdlog::level::debug,
                        "Register Observer Stop, delete RAII handle from map will trigger server "
                        "unregister");
            tree.removeRemoteObservation(&inMsg);
        });
}

}  // namespace Hox::ObserverTree
