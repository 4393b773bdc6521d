#pragma once

#include <grpcpp/server.h>

#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <optional>

#include "grpc/counting_service.h"
#include "grpc/item_tree.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// An event of the queue.
struct QueueEvent {
    grpc::CompletionQueue::NextStatus outcome;
    void* tag;
    bool ok;
};

/// A served tree without a thread: the test takes each event from the queue and passes it on,
/// changed or unchanged. Clients are in the same process.
class HandDrivenServer {
public:
    /// Without a limit, the handler's default limit applies.
    explicit HandDrivenServer(std::optional<std::size_t> maxMessageSize = std::nullopt);
    ~HandDrivenServer();
    HandDrivenServer(const HandDrivenServer&) = delete;
    HandDrivenServer(HandDrivenServer&&) = delete;
    HandDrivenServer& operator=(const HandDrivenServer&) = delete;
    HandDrivenServer& operator=(HandDrivenServer&&) = delete;

    /// Waits for the next event, with a deadline.
    QueueEvent next();

    /// Whether an event is waiting right now; it is kept for next().
    bool hasEvent();

    /// Passes an event to the handler.
    bool process(const QueueEvent& event) const;

    /// Takes the next event and passes it on unchanged; returns its tag.
    void* processNext();

    /// Takes and passes on events until the future is ready.
    template <typename T>
    T processUntilReady(std::future<T> future) {
        while (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            processOne(std::chrono::milliseconds(5));
        }
        return future.get();
    }

    /// Shuts down the server and then destroys the handler, which finds all final events in its
    /// queue. A second call has no effect.
    void destroyHandler();

    std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();  ///< The capability's.
    ItemHandlers handlers;
    std::unique_ptr<ObserverTree> tree = std::make_unique<ObserverTree>();
    std::shared_ptr<CountingService> service = std::make_shared<CountingService>();
    std::unique_ptr<AsyncGrpcServerHandler> handler;
    std::unique_ptr<TestService::Stub> stub;

private:
    bool processOne(std::chrono::milliseconds wait);

    grpc::ServerCompletionQueue* m_queue = nullptr;
    std::unique_ptr<grpc::Server> m_server;
    std::unique_ptr<QueueEvent> m_kept;
};

}  // namespace Hox::ObserverTree::Test
