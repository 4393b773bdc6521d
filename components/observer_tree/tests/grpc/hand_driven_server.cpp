#include "grpc/hand_driven_server.h"

#include <gtest/gtest.h>

#include <grpcpp/server_builder.h>

#include <chrono>
#include <utility>

namespace Hox::ObserverTree::Test {

using NextStatus = grpc::CompletionQueue::NextStatus;

HandDrivenServer::HandDrivenServer(std::optional<std::size_t> maxMessageSize) {
    registerItemHandlers(*tree, handlers);
    grpc::ServerBuilder builder;
    auto queue = builder.AddCompletionQueue(true);
    m_queue = queue.get();
    handler = maxMessageSize ? std::make_unique<AsyncGrpcServerHandler>(std::move(queue), mutex,
                                                                        nullptr, *maxMessageSize)
                             : std::make_unique<AsyncGrpcServerHandler>(std::move(queue), mutex);
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

}  // namespace Hox::ObserverTree::Test
