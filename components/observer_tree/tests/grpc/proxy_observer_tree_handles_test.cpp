// Handles of observations, dropped at unusual moments.
#include "hox/observer_tree/proxy_observer_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>

#include "grpc/proxy_tree_fixture.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;

/// Over a connection and in-process.
class ProxyTreeHandles : public ProxyTree, public ::testing::WithParamInterface<bool> {
protected:
    ProxyTreeHandles() : ProxyTree(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Channels, ProxyTreeHandles, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "InProcess" : "Remote"; });

TEST_F(ProxyTree, IsSilentOnceTheHandleHasBeenDropped) {
    auto handle = m_client->observe("/items/*", m_told.callback());
    expectObservers(1);
    m_client->drop(handle);
    expectObservers(0);
    m_served->create("a", 1);
    Told later;
    const auto second = m_client->observe("/items/*", later.callback());
    ASSERT_TRUE(later.waitFor(1));
    EXPECT_TRUE(m_told.lines().empty());
}

TEST_P(ProxyTreeHandles, MayBeDroppedInTheCallbackOfTheirOwnObserver) {
    std::any handle;
    auto record = m_told.callback();
    m_client->observe(handle, "/items/*", [&](const ChangeSetType& changes, const Status& status) {
        handle.reset();
        record(changes, status);
    });
    m_served->create("a", 1);
    ASSERT_TRUE(m_told.waitFor(1));
    expectObservers(0);
    m_served->create("b", 2);
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1"));
}

TEST_P(ProxyTreeHandles, WaitForACallbackThatRunsWhileTheyAreDroppedElsewhere) {
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::atomic<bool> hasLeft{false};
    auto handle = m_client->observe("/items/*", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        mayLeave.get_future().wait();
        hasLeft = true;
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    // Without the capability's mutex on purpose: the call's own mutex must suffice.
    std::promise<void> started;
    auto dropped = std::async(std::launch::async, [&] {
        started.set_value();
        handle.reset();
        return hasLeft.load();
    });
    started.get_future().wait();
    EXPECT_EQ(dropped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mayLeave.set_value();
    EXPECT_TRUE(dropped.get());
}

TEST_P(ProxyTreeHandles, MayBeDroppedElsewhereWhileTheirCallbackObservesAnew) {
    std::promise<void> entered;
    // The hook for leaving observers is the proxy's own; it logs when it runs.
    const LogCapture log(
        "async_grpc_proxy_obs_tree_builder.h::Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder",
        spdlog::level::debug);
    const auto isLeaving = [&log] {
        return log.contains(
            "Register Observer Stop, delete RAII handle from map will trigger server unregister");
    };
    std::any next;
    auto record = m_told.callback();
    auto handle = m_client->observe("/items/a", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        EXPECT_TRUE(waitUntil(isLeaving));
        ObserveReq request;
        request.set_key_pattern("/items/b");
        next = m_client->proxy->observe<ObserveReq>("/items", request, record, 0);
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    // The end of the call waits for the callback, which needs the proxy's observers meanwhile.
    handle.reset();
    m_served->create("b", 2);
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/b=2"));
    m_client->drop(next);
}

TEST_P(ProxyTreeHandles, MayDieAsLastCopiesInAMapThatIsErasedUnderALock) {
    constexpr int handleCount = 20;
    std::mutex mapMutex;
    std::map<int, std::any> handles;
    std::atomic<int> calls{0};
    for (int i = 0; i < handleCount; ++i) {
        handles[i] =
            m_client->observe("/items/*", [&](const ChangeSetType&, const Status&) { ++calls; });
    }
    expectObservers(handleCount);
    std::atomic<bool> isOver{false};
    auto changes = std::async(std::launch::async, [&] {
        for (int count = 0; !isOver; ++count) {
            m_served->create("a", count);
        }
    });
    ASSERT_TRUE(waitUntil([&] { return calls > 0; }));
    const auto erase = [&](int first) {
        for (int i = first; i < handleCount; i += 2) {
            const std::lock_guard<std::mutex> lock(mapMutex);
            handles.erase(i);
        }
    };
    auto other = std::async(std::launch::async, [&] { erase(0); });
    erase(1);
    other.get();
    const int callsUntilThen = calls;
    isOver = true;
    changes.get();
    expectObservers(0);
    EXPECT_EQ(calls, callsUntilThen);
}

TEST_P(ProxyTreeHandles, MayBeDroppedInTheirCallbackWhileTheProxyGoes) {
    std::any handle;
    std::promise<void> entered;
    m_client->observe(handle, "/items/*", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        EXPECT_TRUE(
            waitUntil([this] { return m_log.contains("Finishing streaming call, RAII style"); }));
        handle.reset();
        m_told.add("dropped");
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    m_client.reset();
    EXPECT_THAT(m_told.lines(), ElementsAre("dropped"));
    expectObservers(0);
}

TEST_F(ProxyTree, CancelsItsStreamsWhenItGoes) {
    const auto handle = m_client->observe("/items/*", m_told.callback());
    expectObservers(1);
    m_client.reset();
    expectObservers(0);
    EXPECT_TRUE(m_told.lines().empty());
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
