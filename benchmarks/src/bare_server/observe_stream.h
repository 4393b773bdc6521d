#pragma once

#include <grpcpp/grpcpp.h>

#include <deque>
#include <set>

#include "bare_server/bare_answers.h"
#include "common/event_handler.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Benchmarks {

class ObserveStream;

/// What all streams share; lives as long as the server.
struct ObserveStreams {
    Api::StateMonitoringService::AsyncService& service;
    grpc::ServerCompletionQueue& queue;
    const BareAnswers& answers;
    std::set<ObserveStream*> running;
};

/// One observe stream: a flag that says whether it watches what is created, and a queue of
/// elements, as only one write may be under way.
class ObserveStream : public EventHandler {
public:
    /// Waits for a stream; the object deletes itself.
    static void request(ObserveStreams& streams) { new ObserveStream(streams); }

    ~ObserveStream() override { m_streams.running.erase(this); }
    ObserveStream(const ObserveStream&) = delete;
    ObserveStream(ObserveStream&&) = delete;
    ObserveStream& operator=(const ObserveStream&) = delete;
    ObserveStream& operator=(ObserveStream&&) = delete;

    bool watchesCreates() const { return m_watchesCreates; }

    /// Writes the element, or queues it while another one is on its way.
    void write(ObserverTree::ObsTreeObserveChangeSet element);

    void handle(bool ok) override;

private:
    class DoneHandler : public EventHandler {
    public:
        explicit DoneHandler(ObserveStream& stream) : m_stream(stream) {}
        void handle(bool ok) override;

    private:
        ObserveStream& m_stream;
    };

    explicit ObserveStream(ObserveStreams& streams);
    void start();

    ObserveStreams& m_streams;
    grpc::ServerContext m_context;
    grpc::ServerAsyncWriter<ObserverTree::ObsTreeObserveChangeSet> m_writer;
    ObserverTree::ObserveReq m_request;
    DoneHandler m_doneHandler;
    std::deque<ObserverTree::ObsTreeObserveChangeSet> m_queue;
    bool m_isStarted = false;
    bool m_isWriting = false;
    bool m_isDone = false;
    bool m_watchesCreates = false;
};

}  // namespace Hox::Benchmarks
