#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>

#include "common/event_handler.h"

namespace Hox::Benchmarks {

/// One call of a unary method. The next call of the method is requested when this answer has been
/// sent.
template <typename Service, typename Request, typename Response>
class UnaryCall : public EventHandler {
public:
    using RequestFunction = void (Service::*)(grpc::ServerContext*, Request*,
                                              grpc::ServerAsyncResponseWriter<Response>*,
                                              grpc::CompletionQueue*, grpc::ServerCompletionQueue*,
                                              void*);

    /// The shared state of all calls of the method; lives as long as the server.
    struct Method {
        Service& service;
        grpc::ServerCompletionQueue& queue;
        RequestFunction requestFunction;
        std::function<void(const Request&, Response&)> answer;
    };

    /// Waits for a call of the method; the object deletes itself.
    static void request(const Method& method) { new UnaryCall(method); }

    void handle(bool ok) override {
        if (!ok || m_isAnswered) {
            delete this;
        } else {
            m_isAnswered = true;
            Response response;
            m_method.answer(m_request, response);
            m_responder.Finish(response, grpc::Status::OK, this);
            request(m_method);
        }
    }

private:
    explicit UnaryCall(const Method& method) : m_method(method), m_responder(&m_context) {
        (method.service.*method.requestFunction)(&m_context, &m_request, &m_responder,
                                                 &method.queue, &method.queue, this);
    }

    const Method& m_method;
    grpc::ServerContext m_context;
    grpc::ServerAsyncResponseWriter<Response> m_responder;
    Request m_request;
    bool m_isAnswered = false;
};

}  // namespace Hox::Benchmarks
