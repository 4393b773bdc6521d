#include "grpc/hand_driven_server.h"

#include <gtest/gtest.h>

#include <grpcpp/server_builder.h>

#include <chrono>
#include <thread>
#include <utility>

#include "hox/testing/log_capture.h"

namespace Hox::ObserverTree::Test {

using NextStatus = grpc::CompletionQueue::NextStatus;

namespace {

/// Has the log system of the captures from the first test on: it records before a log call returns.
class CapturedLogging : public ::testing::Environment {
public:
    void SetUp() override { const Hox::Testing::LogCapture installed; }
};

const auto* const capturedLogging = ::testing::AddGlobalTestEnvironment(new CapturedLogging);

}  // namespace

void CountingService::requestUnary(
    int methodIndex, grpc::ServerContext* context, google::protobuf::Message* request,
    grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
    grpc::ServerCompletionQueue* callQueue, grpc::ServerCompletionQueue* notificationQueue,
    void* tag) {
    ++m_requests[methodIndex];
    GrpcWrapperService::requestUnary(methodIndex, context, request, responder, callQueue,
                                     notificationQueue, tag);
}

void CountingService::requestServerStreaming(
    int methodIndex, grpc::ServerContext* context, google::protobuf::Message* request,
    grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
    grpc::ServerCompletionQueue* callQueue, grpc::ServerCompletionQueue* notificationQueue,
    void* tag) {
    ++m_requests[methodIndex];
    GrpcWrapperService::requestServerStreaming(methodIndex, context, request, writer, callQueue,
                                               notificationQueue, tag);
}

int CountingService::requests(const std::string& method) const {
    const auto* file = Item::descriptor()->file();
    const auto found =
        m_requests.find(file->FindServiceByName("TestService")->FindMethodByName(method)->index());
    return found == m_requests.end() ? 0 : found->second;
}

HandDrivenServer::HandDrivenServer() {
    registerItemHandlers(*tree, handlers);
    grpc::ServerBuilder builder;
    auto queue = builder.AddCompletionQueue(true);
    m_queue = queue.get();
    handler = std::make_unique<AsyncGrpcServerHandler>(std::move(queue), mutex);
    const auto* descriptor = Item::descriptor()->file()->FindServiceByName("TestService");
    for (int index = 0; index < descriptor->method_count(); ++index) {
        const auto& method = *descriptor->method(index);
        if (method.options().HasExtension(obs_tree_option)) {
            handler->addMethod(method, service, tree.get());
            service->markMethodAsynchronous(index);
        }
    }
    builder.RegisterService(service.get());
    m_server = builder.BuildAndStart();
    stub = TestService::NewStub(m_server->InProcessChannel(grpc::ChannelArguments()));
    handler->requestFirstCalls();
}

HandDrivenServer::~HandDrivenServer() {
    stub.reset();
    destroyHandler();
}

QueueEvent HandDrivenServer::next() {
    if (m_kept) {
        return *std::exchange(m_kept, nullptr);
    }
    QueueEvent event{};
    event.outcome = m_queue->AsyncNext(&event.tag, &event.ok,
                                       std::chrono::system_clock::now() + std::chrono::seconds(30));
    EXPECT_EQ(event.outcome, NextStatus::GOT_EVENT);
    return event;
}

bool HandDrivenServer::hasEvent() {
    if (!m_kept) {
        QueueEvent event{};
        event.outcome = m_queue->AsyncNext(&event.tag, &event.ok, std::chrono::system_clock::now());
        if (event.outcome == NextStatus::GOT_EVENT) {
            m_kept = std::make_unique<QueueEvent>(event);
        }
    }
    return m_kept != nullptr;
}

bool HandDrivenServer::process(const QueueEvent& event) const {
    return handler->processEvent(event.outcome, event.tag, event.ok);
}

void* HandDrivenServer::processNext() {
    const auto event = next();
    EXPECT_TRUE(process(event));
    return event.tag;
}

bool HandDrivenServer::processOne(std::chrono::milliseconds wait) {
    QueueEvent event{};
    if (m_kept) {
        event = next();
    } else {
        event.outcome =
            m_queue->AsyncNext(&event.tag, &event.ok, std::chrono::system_clock::now() + wait);
    }
    if (event.outcome == NextStatus::GOT_EVENT) {
        process(event);
        return true;
    }
    return false;
}

void HandDrivenServer::destroyHandler() {
    if (!m_server) {
        return;
    }
    m_server->Shutdown(std::chrono::system_clock::now());
    if (m_kept) {
        process(next());
    }
    handler.reset();
    m_server.reset();
}

std::future<UnaryResult> startCall(TestService::Stub& stub, UnaryMethod method,
                                   const std::string& name) {
    return std::async(std::launch::async, [&stub, method, name] {
        UnaryResult result;
        grpc::ClientContext context;
        Item item;
        item.set_name(name);
        result.status = (stub.*method)(&context, item, &result.answer);
        return result;
    });
}

ObserveClient::ObserveClient(TestService::Stub& stub, const std::string& keyPattern) {
    ObserveReq request;
    request.set_key_pattern(keyPattern);
    reader = stub.observeItems(&context, request);
}

}  // namespace Hox::ObserverTree::Test
