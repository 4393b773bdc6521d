#pragma once

#include <grpcpp/grpcpp.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>

#include "bare_server/bare_answers.h"
#include "bare_server/notification_stream.h"
#include "bare_server/slice_stream.h"
#include "bare_server/unary_call.h"
#include "configuration.grpc.pb.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Benchmarks {

/// Measures the cost of gRPC itself: the measured methods of the state monitor and the
/// configuration store, on one completion queue and one thread. Messages are parsed and answered,
/// nothing is stored.
///
/// With reports it has a second queue and thread for the configuration store, which makes one call
/// inside the process per update, as the service does.
class BareServer {
public:
    /// Listens on the address. Throws std::runtime_error on failure.
    BareServer(const std::string& address, int snapshotKeys, bool hasReports);
    ~BareServer();
    BareServer(const BareServer&) = delete;
    BareServer(BareServer&&) = delete;
    BareServer& operator=(const BareServer&) = delete;
    BareServer& operator=(BareServer&&) = delete;

    /// Serves on this thread until the flag is set, which takes effect within half a second.
    void run(const volatile std::sig_atomic_t& isToEnd);

private:
    using MonitorService = Api::StateMonitoringService::AsyncService;
    using ConfigurationService = ConfApi::ConfigurationService::AsyncService;
    using CreateCall = UnaryCall<MonitorService, Api::CreateStateNotificationReq,
                                 Api::CreateStateNotificationResp>;
    using CurrentStateCall =
        UnaryCall<MonitorService, Api::GetCurrentStateReq, Api::GetCurrentStateResp>;
    using NotificationsCall =
        UnaryCall<MonitorService, Api::GetStateNotificationsReq, Api::GetStateNotificationsResp>;
    using UpdateSliceCall =
        UnaryCall<ConfigurationService, ConfApi::UpdateCapConfReq, ConfApi::UpdateCapConfResp>;

    grpc::ServerBuilder& listen(const std::string& address);
    void tellObservers(const Api::StateNotification& notification);
    void report();
    static void serve(grpc::CompletionQueue& queue, const volatile std::sig_atomic_t& isToEnd);
    static void drain(grpc::CompletionQueue& queue);

    const BareAnswers m_answers;
    MonitorService m_monitorService;
    ConfigurationService m_configurationService;
    grpc::ServerBuilder m_builder;
    std::unique_ptr<grpc::ServerCompletionQueue> m_queue;
    std::unique_ptr<grpc::ServerCompletionQueue> m_reportingQueue;
    std::unique_ptr<grpc::Server> m_server;
    std::unique_ptr<Api::StateMonitoringService::Stub> m_reports;
    NotificationStreams m_streams;
    const SliceStreams m_sliceStreams;
    const CreateCall::Method m_create;
    const CurrentStateCall::Method m_currentState;
    const NotificationsCall::Method m_notifications;
    const UpdateSliceCall::Method m_updateSlice;
    int m_nextIndex = 0;
    std::int64_t m_nextStateId = 1600000000000000000;
};

}  // namespace Hox::Benchmarks
