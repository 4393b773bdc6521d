#include "grpc/non_polling_queue.h"

#include <grpcpp/server.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "grpc/system_calls.h"
#include "grpc/unary_call.h"
#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::waitUntil;

/// Prevents this process from opening descriptors during its lifetime.
class NoDescriptors {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &m_former);
        rlimit none = m_former;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_former); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors(NoDescriptors&&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    NoDescriptors& operator=(NoDescriptors&&) = delete;

private:
    rlimit m_former{};
};

void end(grpc::CompletionQueue& queue) {
    queue.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    EXPECT_FALSE(queue.Next(&tag, &ok));
}

/// Whether a thread that waits in the queue of a server reads from the network meanwhile.
bool isRead(grpc::CompletionQueue& queue) {
    std::atomic<int> thread{0};
    std::thread waiting([&queue, &thread] {
        thread = ::gettid();
        void* tag = nullptr;
        bool ok = false;
        queue.Next(&tag, &ok);
    });
    bool isReading = false;
    EXPECT_TRUE(waitUntil([&thread, &isReading] {
        const long call = systemCallOf(thread);
        isReading = isReadOfTheNetwork(call);
        return isReading || call == SYS_futex;
    }));
    queue.Shutdown();
    waiting.join();
    return isReading;
}

TEST(NonPollingQueue, ServesAServerWithoutReading) {
    TestService::AsyncService service;
    grpc::ServerBuilder builder;
    builder.RegisterService(&service);
    const auto polling = builder.AddCompletionQueue(true);
    const auto nonPolling = addNonPollingQueue(builder);
    const auto server = builder.BuildAndStart();
    ASSERT_TRUE(server);
    grpc::ServerContext context;
    Item item;
    grpc::ServerAsyncResponseWriter<Answer> responder(&context);
    service.RequestreadItem(&context, &item, &responder, nonPolling.get(), nonPolling.get(), &item);
    const auto stub = TestService::NewStub(server->InProcessChannel(grpc::ChannelArguments()));
    auto call = startCall(*stub, &TestService::Stub::readItem, "x");
    void* tag = nullptr;
    bool ok = false;
    ASSERT_TRUE(nonPolling->Next(&tag, &ok));
    EXPECT_EQ(tag, &item);
    EXPECT_EQ(item.name(), "x");
    responder.Finish(Answer(), grpc::Status::OK, &item);
    ASSERT_TRUE(nonPolling->Next(&tag, &ok));
    EXPECT_TRUE(call.get().status.ok());
    server->Shutdown();
    EXPECT_TRUE(isRead(*polling));
#ifdef HALVO_NON_POLLING_QUEUES
    EXPECT_FALSE(isRead(*nonPolling));
#else
    EXPECT_TRUE(isRead(*nonPolling));
#endif
}

TEST(NonPollingQueue, NeedsNoDescriptor) {
    const NoDescriptors none;
    const auto queue = makeNonPollingQueue();
    void* tag = nullptr;
    bool ok = false;
    EXPECT_EQ(queue->AsyncNext(&tag, &ok, std::chrono::system_clock::now()),
              grpc::CompletionQueue::TIMEOUT);
    end(*queue);
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
