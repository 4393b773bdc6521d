#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"

#include <spdlog/logger.h>

#include <utility>

#include "grpc/non_polling_queue.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

AsyncGRPCServerObsTreeBuilder::AsyncGRPCServerObsTreeBuilder(
    grpc::ServerBuilder* serverBuilder, const std::shared_ptr<std::mutex>& mutex, Polling polling,
    std::shared_ptr<StandbyPoller> standbyPoller)
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())),
      m_serverBuilder(serverBuilder),
      m_asyncGrpcServerHandler(
          polling == Polling::Polls
              ? std::make_shared<AsyncGrpcServerHandler>(serverBuilder->AddCompletionQueue(true),
                                                         mutex, std::move(standbyPoller))
              : std::make_shared<AsyncGrpcServerHandler>(addNonPollingQueue(*serverBuilder),
                                                         mutex)) {}

void AsyncGRPCServerObsTreeBuilder::logBinding(
    const google::protobuf::MethodDescriptor& method) const {
    const auto& options = method.options().GetExtension(obs_tree_option);
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Bound method {} to key {}, type {}",
                  method.full_name(), options.key(), static_cast<int>(options.type()));
}

}  // namespace Hox::ObserverTree
