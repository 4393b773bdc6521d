#include "hox/observer_tree/grpc/unary_caller.h"

#include <gmock/gmock.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <future>
#include <thread>
#include <vector>

#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::waitUntil;

/// Answers "x" immediately and all other requests when it is released or cancelled.
class SlowService : public TestService::Service {
public:
    grpc::Status readItem(grpc::ServerContext* context, const Item* request,
                          Answer* response) override {
        response->set_text("read " + request->name());
        if (request->name() == "x") {
            return {grpc::StatusCode::OK, ""};
        }
        m_entered.set_value();
        EXPECT_TRUE(waitUntil([this, context] { return m_isLetGo || context->IsCancelled(); }));
        return grpc::Status::OK;
    }

    std::future<void> entered() { return m_entered.get_future(); }
    void letGo() { m_isLetGo = true; }

private:
    std::promise<void> m_entered;
    std::atomic<bool> m_isLetGo{false};
};

/// A server of this process with a caller.
class UnaryCallerTest : public ::testing::Test {
protected:
    UnaryCallerTest() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_service);
        m_server = builder.BuildAndStart();
        m_channel = m_server->InProcessChannel(grpc::ChannelArguments());
        m_caller = std::make_unique<UnaryCaller>(m_channel, m_gate);
    }

    grpc::Status read(const std::string& name, Answer& answer) {
        const OwnedRpcMethod method(*Item::descriptor()
                                         ->file()
                                         ->FindServiceByName("TestService")
                                         ->FindMethodByName("readItem"),
                                    OwnedRpcMethod::Answer::Once, m_channel);
        Item item;
        item.set_name(name);
        return m_caller->call(method, item, answer);
    }

    SlowService m_service;
    std::unique_ptr<grpc::Server> m_server;
    std::shared_ptr<grpc::Channel> m_channel;
    std::shared_ptr<InProcessGate> m_gate = std::make_shared<InProcessGate>();
    std::unique_ptr<UnaryCaller> m_caller;
};

TEST_F(UnaryCallerTest, AnswersEachOfManyThreads) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this] {
            for (int round = 0; round < 200; ++round) {
                Answer answer;
                EXPECT_TRUE(read("x", answer).ok());
                EXPECT_EQ(answer.text(), "read x");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST_F(UnaryCallerTest, GateDoesNotWaitForAnAnswer) {
    auto call = std::async(std::launch::async, [this] {
        Answer answer;
        return read("slow", answer);
    });
    m_service.entered().wait();
    m_gate->close();
    m_service.letGo();
    EXPECT_TRUE(call.get().ok());
    Answer answer;
    const auto status = read("x", answer);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(status.error_message(), "The server has been shut down");
}

TEST_F(UnaryCallerTest, ShutdownCancelsWhatIsLeftAfterItsGrace) {
    auto call = std::async(std::launch::async, [this] {
        Answer answer;
        return read("slow", answer);
    });
    m_service.entered().wait();
    m_gate->close();
    m_server->Shutdown(std::chrono::system_clock::now() + std::chrono::milliseconds(20));
    EXPECT_FALSE(call.get().ok());
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
