#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/server_builder.h>

#include <memory>

namespace Hox::ObserverTree {

/// A queue for calls inside the process: a thread that waits in it never reads from the network,
/// and the queue uses no descriptor.
std::unique_ptr<grpc::CompletionQueue> makeNonPollingQueue();

/// A queue of the server whose thread never reads from the network: it waits until another thread
/// of the process has read its data. It is a polling queue if the build says so
/// (HALVO_NON_POLLING_QUEUES).
std::unique_ptr<grpc::ServerCompletionQueue> addNonPollingQueue(grpc::ServerBuilder& builder);

}  // namespace Hox::ObserverTree
