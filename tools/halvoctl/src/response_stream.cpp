#include "response_stream.h"

#include <grpcpp/channel.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/impl/rpc_method.h>

#include <utility>

#include "connection.h"

namespace Hox::Ctl {

using google::protobuf::Message;

ResponseStream::ResponseStream(const Connection& connection, Interrupt& interrupt, std::string path,
                               const Message& request, std::unique_ptr<Message> element)
    : m_connection(connection), m_path(std::move(path)), m_element(std::move(element)) {
    const grpc::internal::RpcMethod method(m_path.c_str(),
                                           grpc::internal::RpcMethod::SERVER_STREAMING);
    m_reader.reset(grpc::internal::ClientAsyncReaderFactory<Message>::Create(
        connection.channel().get(), &m_queue, method, &m_context, request, true, nullptr));
    m_cancellation = interrupt.onRequest([this] { m_context.TryCancel(); });
}

ResponseStream::~ResponseStream() {
    m_cancellation.reset();
    m_context.TryCancel();
    m_queue.Shutdown();
    void* tag = nullptr;
    bool isOk = false;
    while (m_queue.Next(&tag, &isOk)) {
    }
}

void ResponseStream::requestNext() {
    if (m_step == Step::Read) {
        m_reader->Read(m_element.get(), nullptr);
    } else {
        m_reader->Finish(&m_status, nullptr);
    }
    m_isRequested = true;
}

ResponseStream::Event ResponseStream::next(std::chrono::system_clock::time_point deadline) {
    while (m_step != Step::Ended) {
        if (!std::exchange(m_isRequested, true)) {
            requestNext();
        }
        void* tag = nullptr;
        bool isOk = false;
        if (m_queue.AsyncNext(&tag, &isOk, deadline) != grpc::CompletionQueue::GOT_EVENT) {
            return Event::Nothing;
        }
        m_isRequested = false;
        if (m_step == Step::Finish) {
            m_step = Step::Ended;
        } else if (!isOk) {
            m_step = Step::Finish;
        } else if (std::exchange(m_step, Step::Read) == Step::Read) {
            return Event::Element;
        }
    }
    return Event::End;
}

void ResponseStream::check() const {
    if (!m_status.ok()) {
        m_connection.fail(m_status, m_context);
    }
}

}  // namespace Hox::Ctl
