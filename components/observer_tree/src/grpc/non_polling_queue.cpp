#include "grpc/non_polling_queue.h"

#include <grpc/grpc.h>

namespace Hox::ObserverTree {

namespace {

grpc_completion_queue* makeCoreQueue() {
    const grpc_completion_queue_attributes attributes{GRPC_CQ_CURRENT_VERSION, GRPC_CQ_NEXT,
                                                      GRPC_CQ_NON_POLLING, nullptr};
    return grpc_completion_queue_create(grpc_completion_queue_factory_lookup(&attributes),
                                        &attributes, nullptr);
}

#ifdef HALVO_NON_POLLING_QUEUES

/// The queue inside a queue. The C++ interface of the library only creates polling server queues,
/// while the C core accepts any kind. A member that is named in an explicit instantiation may be
/// private. If the member has another name or type in some version of the library, this does not
/// compile.
template <grpc_completion_queue* grpc::CompletionQueue::*member>
struct CoreQueueOf {
    friend grpc_completion_queue*& coreQueue(grpc::CompletionQueue& queue) { return queue.*member; }
};

template struct CoreQueueOf<&grpc::CompletionQueue::cq_>;

grpc_completion_queue*& coreQueue(grpc::CompletionQueue& queue);

#endif

}  // namespace

std::unique_ptr<grpc::CompletionQueue> makeNonPollingQueue() {
    return std::make_unique<grpc::CompletionQueue>(makeCoreQueue());
}

std::unique_ptr<grpc::ServerCompletionQueue> addNonPollingQueue(grpc::ServerBuilder& builder) {
    auto queue = builder.AddCompletionQueue(false);
#ifdef HALVO_NON_POLLING_QUEUES
    auto& inner = coreQueue(*queue);
    grpc_completion_queue_shutdown(inner);
    grpc_completion_queue_destroy(inner);
    inner = makeCoreQueue();
#endif
    return queue;
}

}  // namespace Hox::ObserverTree
