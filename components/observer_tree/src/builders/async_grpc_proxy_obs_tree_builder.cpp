#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"

#include <spdlog/logger.h>

#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/change_set_conversion.h"

namespace Hox::ObserverTree {

namespace {

using google::protobuf::Message;

/// Passes the elements of one observed method on to observers. What the peer sends wrongly is left
/// out and logged once. Runs under the capability's mutex.
class ElementReader {
public:
    ElementReader(std::shared_ptr<spdlog::logger> logger,
                  const google::protobuf::MethodDescriptor& method)
        : m_logger(std::move(logger)), m_method(method) {}

    void passOn(const Message* message, const grpc::Status& grpcStatus,
                const ObserverCallback& callback) {
        if (message == nullptr) {
            callback(ChangeSetType(), statusOf(grpcStatus));
            return;
        }
        const auto* changeSet = dynamic_cast<const ObsTreeObserveChangeSet*>(message);
        if (changeSet == nullptr) {
            logOnce(m_hasLoggedType, "left out, of type " + message->GetTypeName());
            return;
        }
        callback(fromWire(*changeSet), statusOf(changeSet->observestatus()));
    }

private:
    static Status statusOf(const grpc::Status& status) {
        return {static_cast<ProtoStatus::StatusCode>(status.error_code()), status.error_message()};
    }

    Status statusOf(const ProtoStatus& status) {
        if (status.statuscode() == ProtoStatus::OK && !status.errormessage().empty()) {
            logOnce(m_hasLoggedText,
                    "without its text, as its status is OK: " + status.errormessage());
            return {};
        }
        return {status.statuscode(), status.errormessage()};
    }

    void logOnce(bool& hasLogged, const std::string& what) {
        if (!std::exchange(hasLogged, true)) {
            m_logger->log(Hox::Log::here(), spdlog::level::err, "Element of {} {}",
                          m_method.full_name(), what);
        }
    }

    const std::shared_ptr<spdlog::logger> m_logger;
    const google::protobuf::MethodDescriptor& m_method;
    bool m_hasLoggedText = false;
    bool m_hasLoggedType = false;
};

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
            tree.setUnaryMethod(
                options.key(), static_cast<UnaryOps>(options.type() - 1),
                std::make_unique<OwnedRpcMethod>(method, OwnedRpcMethod::Answer::Once, channel));
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
    tree.setObserveMethod(options.key(), std::make_unique<OwnedRpcMethod>(
                                             method, OwnedRpcMethod::Answer::AsStream, channel));
    tree.registerNewObserverHandler<Message>(
        options.key(), [logger = m_logger, &method, &tree, channel, inProcess,
                        weakHandler = std::weak_ptr<AsyncGrpcClientHandler>(handler),
                        reader = std::make_shared<ElementReader>(m_logger, method)](
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
                    [callback, reader](const std::unique_ptr<Message>& message,
                                       const grpc::Status& status) {
                        reader->passOn(message.get(), status, callback);
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
