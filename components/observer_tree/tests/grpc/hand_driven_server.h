#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/server.h>

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "grpc/item_tree.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "hox/observer_tree/grpc/grpc_wrapper_service.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// The real service, which also counts how often each method has been requested.
class CountingService : public GrpcWrapperService<TestService::Service> {
public:
    void requestUnary(int methodIndex, grpc::ServerContext* context,
                      google::protobuf::Message* request,
                      grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
                      grpc::ServerCompletionQueue* callQueue,
                      grpc::ServerCompletionQueue* notificationQueue, void* tag) override;
    void requestServerStreaming(int methodIndex, grpc::ServerContext* context,
                                google::protobuf::Message* request,
                                grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
                                grpc::ServerCompletionQueue* callQueue,
                                grpc::ServerCompletionQueue* notificationQueue, void* tag) override;

    /// How often the method has been requested so far.
    int requests(const std::string& method) const;

private:
    std::map<int, int> m_requests;
};

/// An event of the queue.
struct QueueEvent {
    grpc::CompletionQueue::NextStatus outcome;
    void* tag;
    bool ok;
};

/// A served tree without a thread: the test takes each event from the queue and hands it on,
/// changed or not. Clients are in the same process.
class HandDrivenServer {
public:
    HandDrivenServer();
    ~HandDrivenServer();
    HandDrivenServer(const HandDrivenServer&) = delete;
    HandDrivenServer(HandDrivenServer&&) = delete;
    HandDrivenServer& operator=(const HandDrivenServer&) = delete;
    HandDrivenServer& operator=(HandDrivenServer&&) = delete;

    /// Waits for the next event, but not for ever.
    QueueEvent next();

    /// Whether an event is waiting right now; it is kept for next().
    bool hasEvent();

    /// Hands an event to the handler.
    bool process(const QueueEvent& event) const;

    /// Takes the next event and hands it on as it is; returns its tag.
    void* processNext();

    /// Takes and hands on events until the future is ready.
    template <typename T>
    T processUntilReady(std::future<T> future) {
        while (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            processOne(std::chrono::milliseconds(5));
        }
        return future.get();
    }

    /// Ends the server and then the handler, which finds all events of the end in its queue. Twice
    /// does no harm.
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

/// A unary call of a client thread.
struct UnaryResult {
    grpc::Status status;
    Answer answer;
};

using UnaryMethod = grpc::Status (TestService::Stub::*)(grpc::ClientContext*, const Item&, Answer*);

/// Starts a call of the method with an item of that name.
std::future<UnaryResult> startCall(TestService::Stub& stub, UnaryMethod method,
                                   const std::string& name);

/// An observe stream of a client.
struct ObserveClient {
    explicit ObserveClient(TestService::Stub& stub, const std::string& keyPattern = "/**");

    /// Waits for the next element; false at the stream's end.
    bool read() { return reader->Read(&element); }

    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<ObsTreeObserveChangeSet>> reader;
    ObsTreeObserveChangeSet element;
};

}  // namespace Hox::ObserverTree::Test
