#include "hox/observer_tree/grpc/unary_caller.h"

#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/impl/client_unary_call.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_unary_call.h>

#include <chrono>
#include <utility>

#include "grpc/non_polling_queue.h"

namespace Hox::ObserverTree {

using google::protobuf::Message;

namespace {

/// How often a call that can be ended early looks whether it must.
constexpr std::chrono::milliseconds endInterval{200};

}  // namespace

UnaryCaller::UnaryCaller(std::shared_ptr<grpc::Channel> channel,
                         std::shared_ptr<InProcessGate> gate)
    : m_channel(std::move(channel)),
      m_gate(std::move(gate)),
      m_queue(m_gate ? makeNonPollingQueue() : nullptr) {}

UnaryCaller::~UnaryCaller() {
    if (m_queue) {
        m_queue->Shutdown();
        void* tag = nullptr;
        bool ok = false;
        m_queue->Next(&tag, &ok);  // gRPC requires Next() until the queue has ended
    }
}

grpc::Status UnaryCaller::call(const OwnedRpcMethod& method, const Message& request,
                               Message& response) {
    if (m_gate) {
        return callInProcess(method, request, response);
    }
    grpc::ClientContext context;
    return grpc::internal::BlockingUnaryCall<Message, Message>(m_channel.get(), method.method(),
                                                               &context, request, &response);
}

grpc::Status UnaryCaller::call(const OwnedRpcMethod& method, const Message& request,
                               Message& response, const std::function<bool()>& mustEnd) {
    grpc::CompletionQueue queue;
    grpc::ClientContext context;
    const std::unique_ptr<grpc::ClientAsyncResponseReader<Message>> reader(
        grpc::internal::ClientAsyncResponseReaderHelper::Create<Message>(
            m_channel.get(), &queue, method.method(), &context, request));
    grpc::Status status;
    reader->StartCall();
    reader->Finish(&response, &status, this);
    void* tag = nullptr;
    bool ok = false;
    while (queue.AsyncNext(&tag, &ok, std::chrono::system_clock::now() + endInterval) ==
           grpc::CompletionQueue::TIMEOUT) {
        if (mustEnd()) {
            context.TryCancel();
        }
    }
    queue.Shutdown();
    queue.Next(&tag, &ok);  // gRPC requires Next() until the queue has ended
    return status;
}

grpc::Status UnaryCaller::callInProcess(const OwnedRpcMethod& method, const Message& request,
                                        Message& response) {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Message>> reader;
    grpc::Status status;
    {
        // Held for the start only: closing the gate does not wait for the answer.
        const auto passage = m_gate->pass();
        if (!passage.owns_lock()) {
            return {grpc::StatusCode::UNAVAILABLE, "The server has been shut down"};
        }
        reader.reset(grpc::internal::ClientAsyncResponseReaderHelper::Create<Message>(
            m_channel.get(), m_queue.get(), method.method(), &context, request));
        reader->StartCall();
        reader->Finish(&response, &status, this);
    }
    void* tag = nullptr;
    bool ok = false;
    m_queue->Next(&tag, &ok);
    return status;
}

}  // namespace Hox::ObserverTree
