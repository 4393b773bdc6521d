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

/// Observe streams of one client. Their elements are counted, not parsed.
class ObserverGroup {
public:
    /// Called on arrival of each element after a stream's first one.
    using ArrivalHandler = std::function<void()>;

    ObserverGroup(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel,
                  std::string method, ArrivalHandler onArrival);
    ~ObserverGroup();
    ObserverGroup(const ObserverGroup&) = delete;
    ObserverGroup(ObserverGroup&&) = delete;
    ObserverGroup& operator=(const ObserverGroup&) = delete;
    ObserverGroup& operator=(ObserverGroup&&) = delete;

    /// Opens one more stream per request and returns when each has received its snapshot.
    void open(const std::vector<grpc::ByteBuffer>& requests);

    /// Cancels all streams and returns when all have ended.
    void close();

    /// The number of elements after the first ones, of all streams.
    std::size_t arrivals() const { return m_arrivals; }

    /// The last element of the stream that was opened first.
    const grpc::ByteBuffer& lastElement() const;

private:
    class Stream;

    EventLoop& m_loop;
    grpc::GenericStub m_stub;
    const std::string m_method;
    ArrivalHandler m_onArrival;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::size_t m_snapshots = 0;
    std::size_t m_arrivals = 0;
    std::size_t m_ended = 0;
    bool m_isClosing = false;
};

}  // namespace Hox::Benchmarks
