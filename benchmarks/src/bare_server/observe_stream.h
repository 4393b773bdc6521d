#pragma once

#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>

#include <deque>

#include "common/event_handler.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

/// One observe stream: with a queue of elements, because only one write may be in flight. The
/// object deletes itself at the end of the stream.
class ObserveStream : public EventHandler {
public:
    ~ObserveStream() override = default;
    ObserveStream(const ObserveStream&) = delete;
    ObserveStream(ObserveStream&&) = delete;
    ObserveStream& operator=(const ObserveStream&) = delete;
    ObserveStream& operator=(ObserveStream&&) = delete;

    /// Writes the element, or queues it while a write is in flight.
    void write(ObserverTree::ObsTreeObserveChangeSet element);

    void handle(bool ok) override;

protected:
    using Writer = grpc::ServerAsyncWriter<ObserverTree::ObsTreeObserveChangeSet>;

    /// The derived class requests its method's next stream with context, writer and this as tag.
    ObserveStream();

    grpc::ServerContext& context() { return m_context; }
    Writer& writer() { return m_writer; }

private:
    class DoneHandler : public EventHandler {
    public:
        explicit DoneHandler(ObserveStream& stream) : m_stream(stream) {}
        void handle(bool ok) override;

    private:
        ObserveStream& m_stream;
    };

    /// Requests another stream of the method.
    virtual void requestNext() = 0;
    /// The request has arrived: writes the first element.
    virtual void start() = 0;
    /// The peer has disconnected.
    virtual void onDone() {}

    grpc::ServerContext m_context;
    Writer m_writer;
    DoneHandler m_doneHandler;
    std::deque<ObserverTree::ObsTreeObserveChangeSet> m_queue;
    bool m_isStarted = false;
    bool m_isWriting = false;
    bool m_isDone = false;
};

}  // namespace Hox::Benchmarks
