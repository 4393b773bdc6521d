#include "connection.h"

#include <grpcpp/impl/client_unary_call.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/impl/rpc_method.h>

#include <utility>

#include "call_error.h"

namespace Hox::Ctl {

using google::protobuf::Message;

Connection::Connection(std::string endpoint, std::shared_ptr<grpc::Channel> channel,
                       Interrupt& interrupt, std::chrono::milliseconds timeout, Trace trace)
    : m_endpoint(std::move(endpoint)),
      m_channel(std::move(channel)),
      m_interrupt(interrupt),
      m_timeout(timeout),
      m_trace(std::move(trace)) {}

void Connection::call(const std::string& path, const Message& request, Message& response) const {
    m_trace(path, request);
    grpc::ClientContext context;
    const auto cancellation = limit(context);
    const grpc::internal::RpcMethod method(path.c_str(), grpc::internal::RpcMethod::NORMAL_RPC);
    const auto status = grpc::internal::BlockingUnaryCall<Message, Message>(
        m_channel.get(), method, &context, request, &response);
    if (!status.ok()) {
        fail(status, context);
    }
}

std::unique_ptr<ResponseStream> Connection::open(const std::string& path, const Message& request,
                                                 std::unique_ptr<Message> element) const {
    m_trace(path, request);
    return std::make_unique<ResponseStream>(*this, m_interrupt, path, request, std::move(element));
}

std::shared_ptr<void> Connection::limit(grpc::ClientContext& context) const {
    context.set_deadline(std::chrono::system_clock::now() + m_timeout);
    return m_interrupt.onRequest([&context] { context.TryCancel(); });
}

void Connection::fail(const grpc::Status& status, const grpc::ClientContext& context) const {
    if (m_interrupt.isRequested()) {
        throw CtlError(ExitCode::Interrupted, "");
    }
    throw CallError(status, context, *m_channel, m_endpoint);
}

}  // namespace Hox::Ctl
