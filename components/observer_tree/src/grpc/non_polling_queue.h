#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/server_builder.h>

#include <memory>

namespace Hox::ObserverTree {

/// A queue for calls inside the process: a thread that waits in it never reads from the network,
/// and it takes no descriptor.
std::unique_ptr<grpc::CompletionQueue> makeNonPollingQueue();

/// A queue of the server whose thread never reads from the network: it waits until another thread
/// of the process has read what is meant for it. A polling one where the build has it so
/// (HALVO_NON_POLLING_QUEUES).
std::unique_ptr<grpc::ServerCompletionQueue> addNonPollingQueue(grpc::ServerBuilder& builder);

}  // namespace Hox::ObserverTree
