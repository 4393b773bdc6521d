#include "bare_server/bare_server.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "common/sample_notifications.h"

namespace Hox::Benchmarks {

BareServer::BareServer(const std::string& address, int snapshotKeys, bool hasReports)
    : m_answers(snapshotKeys),
      m_queue(listen(address).AddCompletionQueue()),
      m_reportingQueue(hasReports ? m_builder.AddCompletionQueue() : nullptr),
      m_server(m_builder.BuildAndStart()),
      m_streams{m_monitorService, *m_queue, m_answers, {}},
      m_sliceStreams{m_configurationService, m_reportingQueue ? *m_reportingQueue : *m_queue,
                     m_answers},
      m_create{m_monitorService, *m_queue, &MonitorService::RequestcreateStateNotification,
               [this](const auto& request, auto& /*response*/) {
                   tellObservers(request.statenotification());
               }},
      m_currentState{
          m_monitorService, *m_queue, &MonitorService::RequestgetCurrentState,
          [](const auto& /*request*/, auto& response) { response.set_currentstate(Api::OK); }},
      m_notifications{
          m_monitorService, *m_queue, &MonitorService::RequestgetStateNotifications,
          [this](const auto& /*request*/, auto& response) { m_answers.fill(response); }},
      m_updateSlice{m_configurationService, m_reportingQueue ? *m_reportingQueue : *m_queue,
                    &ConfigurationService::RequestupdateCapConf,
                    [this](const auto& /*request*/, auto& response) {
                        if (m_reports) {
                            report();
                        }
                        response.set_capconfstateid(std::to_string(m_nextStateId++));
                    }} {
    if (!m_server) {
        throw std::runtime_error("Cannot listen on " + address);
    }
    if (hasReports) {
        m_reports = Api::StateMonitoringService::NewStub(
            m_server->InProcessChannel(grpc::ChannelArguments()));
    }
}

grpc::ServerBuilder& BareServer::listen(const std::string& address) {
    m_builder.AddListeningPort(address, grpc::InsecureServerCredentials());
    m_builder.RegisterService(&m_monitorService);
    m_builder.RegisterService(&m_configurationService);
    return m_builder;
}

BareServer::~BareServer() {
    m_server->Shutdown(std::chrono::system_clock::now());
    drain(*m_queue);
    if (m_reportingQueue) {
        drain(*m_reportingQueue);
    }
}

void BareServer::drain(grpc::CompletionQueue& queue) {
    queue.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue.Next(&tag, &ok)) {
        // Nothing may be requested or written any more: every call gets a failure.
        static_cast<EventHandler*>(tag)->handle(false);
    }
}

void BareServer::run(const volatile std::sig_atomic_t& isToEnd) {
    CreateCall::request(m_create);
    CurrentStateCall::request(m_currentState);
    NotificationsCall::request(m_notifications);
    UpdateSliceCall::request(m_updateSlice);
    NotificationStream::request(m_streams);
    SliceStream::request(m_sliceStreams);
    std::thread reporting;
    if (m_reportingQueue) {
        reporting = std::thread([this, &isToEnd] { serve(*m_reportingQueue, isToEnd); });
    }
    serve(*m_queue, isToEnd);
    if (reporting.joinable()) {
        reporting.join();
    }
}

void BareServer::serve(grpc::CompletionQueue& queue, const volatile std::sig_atomic_t& isToEnd) {
    while (isToEnd == 0) {
        void* tag = nullptr;
        bool ok = false;
        const auto deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(500);
        if (queue.AsyncNext(&tag, &ok, deadline) == grpc::CompletionQueue::GOT_EVENT) {
            static_cast<EventHandler*>(tag)->handle(ok);
        }
    }
}

void BareServer::report() {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(5));
    Api::CreateStateNotificationReq request;
    *request.mutable_statenotification() = sampleNotification(0);
    Api::CreateStateNotificationResp response;
    m_reports->createStateNotification(&context, request, &response);
}

void BareServer::tellObservers(const Api::StateNotification& notification) {
    const int index = m_nextIndex++;
    for (auto* stream : m_streams.running) {
        if (stream->watchesCreates()) {
            stream->write(m_answers.change(notification, index));
        }
    }
}

}  // namespace Hox::Benchmarks
