#include "hox/observer_tree/proxy_observer_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "grpc/observe_client.h"
#include "grpc/proxy_tree_fixture.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;
using ::testing::StartsWith;

TEST_F(ProxyTree, CallsUnaryOperationsByKey) {
    Answer answer;
    EXPECT_TRUE(m_client->call(UnaryOps::CREATE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "created a");
    EXPECT_TRUE(m_client->call(UnaryOps::UPDATE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "updated a");
    EXPECT_TRUE(m_client->call(UnaryOps::READ, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "read a");
    EXPECT_TRUE(m_client->call(UnaryOps::REMOVE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "removed a");
}

TEST_F(ProxyTree, PassesCodeAndTextOfAFailureOn) {
    Answer answer;
    const Status status = m_client->call(UnaryOps::READ, "fail", answer);
    EXPECT_EQ(status.statusCode(), ProtoStatus::NOT_FOUND);
    EXPECT_EQ(status.errorMessage(), "no such item");
}

TEST_F(ProxyTree, KnowsNoOperationThatTheServiceLacks) {
    Answer answer;
    try {
        m_client->proxy->callUnary("/items/other", UnaryOps::READ, Item(), answer);
        FAIL();
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(ProxyTree, DeliversTheSnapshotAndThenEveryChange) {
    m_served->create("a", 1);
    const auto handle = m_client->observe("/items/*", m_told.callback());
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create("b", 2);
    m_served->create("a", 3);
    ASSERT_TRUE(m_told.waitFor(3));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1", "0  /items/b=2", "0  /items/a=3"));
}

TEST_F(ProxyTree, LetsTheServerApplyThePattern) {
    const auto handle = m_client->observe("/items/a*", m_told.callback());
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines().at(0),
                StartsWith("3 PathError: More than two *'s in key_pattern component not allowed"));
}

TEST_F(ProxyTree, OpensAStreamForEachObserver) {
    Told other;
    auto first = m_client->observe("/items/a", m_told.callback());
    auto second = m_client->observe("/items/b", other.callback());
    expectObservers(2);
    m_served->create("a", 1);
    m_served->create("b", 2);
    ASSERT_TRUE(m_told.waitFor(1) && other.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1"));
    EXPECT_THAT(other.lines(), ElementsAre("0  /items/b=2"));
    m_client->drop(first);
    expectObservers(1);
    m_client->drop(second);
    expectObservers(0);
}

/// A capability that serves a tree and writes the values it observes elsewhere into it.
TEST_F(ProxyTree, ChangesFromItsThreadNeverStallAServedStream) {
    constexpr int changes = 300;
    ServedTree<TestService> relay;
    const auto proxy = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(
        m_served->newChannel(), relay.mutex, nullptr);
    std::any handle;
    {
        ObserveReq request;
        request.set_key_pattern("/items/*");
        const std::lock_guard<std::mutex> lock(*relay.mutex);
        handle = proxy->observe<ObserveReq>(
            "/items", request,
            [&relay](const ChangeSetType& observed, const Status&) {
                for (const auto& [key, keyChanges] : observed) {
                    createItem(*relay.tree, "relayed",
                               keyChanges.at(0).current->get<Item>().count());
                }
            },
            0);
    }
    expectObservers(1);
    const auto stub = relay.newStub();
    ObserveClient relayed(*stub, "/items/relayed");
    ObserveClient own(*stub, "/items/own");
    ASSERT_TRUE(waitUntil([&] { return relay.handlers.observers == 2; }));
    auto ownChanges = std::async(std::launch::async, [&relay] {
        for (int count = 1; count <= changes; ++count) {
            relay.create("own", count);
        }
    });
    auto observed = std::async(std::launch::async, [this] {
        for (int count = 1; count <= changes; ++count) {
            m_served->create("a", count);
        }
    });
    const auto expectAll = [](ObserveClient& observer, const std::string& key) {
        for (int count = 1; count <= changes; ++count) {
            ASSERT_TRUE(observer.read());
            ASSERT_EQ(currentCount(observer.element, key), count);
        }
    };
    auto reader = std::async(std::launch::async, [&] { expectAll(own, "/items/own"); });
    expectAll(relayed, "/items/relayed");
    reader.get();
    ownChanges.get();
    observed.get();
    const std::lock_guard<std::mutex> lock(*relay.mutex);
    handle.reset();
}

TEST_F(ProxyTree, LogsWhenItsObserversComeAndGo) {
    const LogCapture log;
    auto handle = m_client->observe("/items/*", m_told.callback());
    m_client->drop(handle);
    EXPECT_TRUE(log.containsInOrder(
        {"Register Observer Start, add RAII handle to map and call observe on server",
         "Register Observer Stop, delete RAII handle from map will trigger server unregister",
         "Finishing streaming call, RAII style"}));
}

TEST(AsyncGrpcClientHandlerDeathTest, RefusesUnaryMethodsAndASecondThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto* service = google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        TestService::service_full_name());
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    EXPECT_DEATH(
        std::make_shared<AsyncGrpcClientHandler>(std::make_shared<std::mutex>())
            ->callMethodServerStreaming(Item(), *service->FindMethodByName("readItem"), channel,
                                        false, nullptr),
        "The async API should no longer be used for unary calls. Use blocking gRPC directly.");
    EXPECT_DEATH(
        {
            const auto handler =
                std::make_shared<AsyncGrpcClientHandler>(std::make_shared<std::mutex>());
            handler->startThread();
            handler->startThread();
        },
        "Assertion failed: \\[!m_thread\\]");
    EXPECT_DEATH(
        {
            const ProxyClient client(channel);
            client.proxy->removeRemoteObservation(nullptr);
        },
        "Assertion failed: \\[m_observerMap.erase\\(inMsg\\)\\]");
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
