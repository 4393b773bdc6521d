#pragma once

#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "load_client/event_loop.h"

namespace Hox::Benchmarks {

/// Keeps a number of calls of one unary method outstanding. The requests are serialised in advance
/// and the answers are not parsed, so the client costs little compared with the server.
class UnaryLoad {
public:
    /// Sends the requests in turn, again and again.
    UnaryLoad(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel, std::string method,
              std::vector<grpc::ByteBuffer> requests);
    ~UnaryLoad();
    UnaryLoad(const UnaryLoad&) = delete;
    UnaryLoad(UnaryLoad&&) = delete;
    UnaryLoad& operator=(const UnaryLoad&) = delete;
    UnaryLoad& operator=(UnaryLoad&&) = delete;

    /// Keeps `outstanding` calls in flight as long as the condition holds, which is tested before
    /// each call; returns when all are answered. Throws std::runtime_error if an answer is not OK.
    void run(std::size_t outstanding, const std::function<bool()>& goesOn);

    /// The same without waiting: the calls continue while the caller runs the loop.
    void start(std::size_t outstanding, const std::function<bool()>& goesOn);

    /// Returns when the condition of start no longer holds and all calls are answered.
    void finish();

    /// Calls once; returns with the answer.
    const grpc::ByteBuffer& callOnce();

    /// Calls once with this request instead of the earlier ones; returns with the answer.
    const grpc::ByteBuffer& callOnce(grpc::ByteBuffer request);

    /// Calls answered so far.
    std::size_t answered() const { return m_answered; }

private:
    class Slot;

    EventLoop& m_loop;
    grpc::GenericStub m_stub;
    const std::string m_method;
    std::vector<grpc::ByteBuffer> m_requests;
    std::size_t m_started = 0;
    std::size_t m_answered = 0;
    std::function<bool()> m_goesOn;
    std::vector<std::unique_ptr<Slot>> m_slots;
};

}  // namespace Hox::Benchmarks
