#pragma once

#include <grpcpp/grpcpp.h>

#include <csignal>
#include <memory>
#include <string>

#include "bare_server/bare_answers.h"
#include "bare_server/observe_stream.h"
#include "bare_server/unary_call.h"

namespace Hox::Benchmarks {

/// What gRPC itself costs: the measured methods of the state monitor on one completion queue and
/// one thread, the messages parsed and answered, nothing stored.
class BareServer {
public:
    /// Listens on the address. Throws std::runtime_error when it cannot.
    BareServer(const std::string& address, int snapshotKeys);
    ~BareServer();
    BareServer(const BareServer&) = delete;
    BareServer(BareServer&&) = delete;
    BareServer& operator=(const BareServer&) = delete;
    BareServer& operator=(BareServer&&) = delete;

    /// Serves on this thread until the flag is set, which takes effect within half a second.
    void run(const volatile std::sig_atomic_t& isToEnd);

private:
    using CreateCall = UnaryCall<Api::CreateStateNotificationReq, Api::CreateStateNotificationResp>;
    using CurrentStateCall = UnaryCall<Api::GetCurrentStateReq, Api::GetCurrentStateResp>;
    using NotificationsCall =
        UnaryCall<Api::GetStateNotificationsReq, Api::GetStateNotificationsResp>;

    static grpc::ServerBuilder& listen(grpc::ServerBuilder& builder, const std::string& address,
                                       grpc::Service& service);
    void tellObservers(const Api::StateNotification& notification);

    const BareAnswers m_answers;
    Api::StateMonitoringService::AsyncService m_service;
    grpc::ServerBuilder m_builder;
    std::unique_ptr<grpc::ServerCompletionQueue> m_queue;
    std::unique_ptr<grpc::Server> m_server;
    ObserveStreams m_streams;
    const CreateCall::Method m_create;
    const CurrentStateCall::Method m_currentState;
    const NotificationsCall::Method m_notifications;
    int m_nextIndex = 0;
};

}  // namespace Hox::Benchmarks
