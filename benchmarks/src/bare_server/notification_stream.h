#pragma once

#include <grpcpp/grpcpp.h>

#include <set>

#include "bare_server/bare_answers.h"
#include "bare_server/observe_stream.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Benchmarks {

class NotificationStream;

/// The shared state of all streams of notifications; lives as long as the server.
struct NotificationStreams {
    Api::StateMonitoringService::AsyncService& service;
    grpc::ServerCompletionQueue& queue;
    const BareAnswers& answers;
    std::set<NotificationStream*> running;
};

/// A stream of notifications, with a flag for whether it observes new notifications.
class NotificationStream : public ObserveStream {
public:
    /// Waits for a stream; the object deletes itself.
    static void request(NotificationStreams& streams) { new NotificationStream(streams); }

    ~NotificationStream() override { m_streams.running.erase(this); }
    NotificationStream(const NotificationStream&) = delete;
    NotificationStream(NotificationStream&&) = delete;
    NotificationStream& operator=(const NotificationStream&) = delete;
    NotificationStream& operator=(NotificationStream&&) = delete;

    bool watchesCreates() const { return m_watchesCreates; }

private:
    explicit NotificationStream(NotificationStreams& streams) : m_streams(streams) {
        streams.service.RequestobserveStateNotifications(&context(), &m_request, &writer(),
                                                         &streams.queue, &streams.queue, this);
    }

    void requestNext() override { request(m_streams); }
    void start() override {
        m_watchesCreates = m_request.key_pattern() == watchAllPattern;
        m_streams.running.insert(this);
        write(m_streams.answers.snapshot(m_request.key_pattern()));
    }
    void onDone() override { m_streams.running.erase(this); }

    NotificationStreams& m_streams;
    ObserverTree::ObserveReq m_request;
    bool m_watchesCreates = false;
};

}  // namespace Hox::Benchmarks
