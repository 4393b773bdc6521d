#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "discovery_fixture.h"
#include "events.h"
#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/testing/wait_until.h"

namespace Hox::Service::Discovery::Avahi {
namespace {

using Hox::Testing::waitUntil;
using std::chrono::seconds;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr auto runningText = "Avahi: server entered running state";
constexpr auto waitingText = "Avahi waiting for daemon to appear";
constexpr auto lostText = "Avahi: server disappeared, unregistering services";

class AvahiServiceDiscoveryClientTest : public DiscoveryTest {
protected:
    void TearDown() override {
        if (m_client) {
            m_client->cancel();
        }
    }

    /// A client without a daemon whose start waits on a thread, or is about to.
    void startWaiting() {
        m_client.emplace();
        m_client->setCallback(m_events.clientCallback());
        m_started = std::async(std::launch::async, [this] { return m_client->start(); });
        ASSERT_TRUE(waitUntil([this] { return m_log.contains(waitingText); }));
        ASSERT_FALSE(hasStartReturned(std::chrono::milliseconds(0)));
    }

    bool hasStartReturned(std::chrono::milliseconds limit = seconds(30)) {
        return m_started.wait_for(limit) == std::future_status::ready;
    }

    Events m_events;
    std::optional<AvahiServiceDiscoveryClient> m_client;
    std::future<bool> m_started;
};

TEST_F(AvahiServiceDiscoveryClientTest, ConnectsToTheDaemon) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    EXPECT_FALSE(client.isStarted());
    EXPECT_TRUE(client.start());
    EXPECT_TRUE(client.isStarted());
    EXPECT_TRUE(client.start());
    EXPECT_EQ(client.hostName(), "head-end");
    EXPECT_EQ(client.domainName(), "local");
    EXPECT_EQ(client.fullyQualifiedHostName(), "head-end.local");
    EXPECT_NO_THROW(client.publisher());
    EXPECT_NO_THROW(client.resolver());
    EXPECT_THAT(m_log.textsAt(spdlog::level::debug), ElementsAre(runningText));
    EXPECT_THAT(m_log.textsOf("avahi_service_discovery_client.h::Hox::Service::Discovery::Avahi::"
                              "AvahiServiceDiscoveryClient"),
                ElementsAre(runningText));
}

TEST_F(AvahiServiceDiscoveryClientTest, GivesNothingAwayUnlessItIsStarted) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    const auto expectNothing = [&] {
        const auto text = HasSubstr("Service Discovery Error: client not connected(");
        EXPECT_THAT(errorOf([&] { client.publisher(); }), text);
        EXPECT_THAT(errorOf([&] { client.resolver(); }), text);
        EXPECT_THAT(errorOf([&] { client.hostName(); }), text);
        EXPECT_THAT(errorOf([&] { client.domainName(); }), text);
        EXPECT_THAT(errorOf([&] { client.fullyQualifiedHostName(); }), text);
    };
    expectNothing();
    client.start();
    client.stop();
    expectNothing();
}

TEST_F(AvahiServiceDiscoveryClientTest, WantsACallbackWithATarget) {
    AvahiServiceDiscoveryClient client;
    EXPECT_THAT(errorOf([&] { client.setCallback(nullptr); }),
                HasSubstr("callback has no target, ie. empty("));
}

TEST_F(AvahiServiceDiscoveryClientTest, WaitsForADaemonThatIsNotThereYet) {
    startWaiting();
    EXPECT_FALSE(m_client->isStarted());
    m_host->startDaemon();
    ASSERT_TRUE(hasStartReturned());
    EXPECT_TRUE(m_started.get());
    EXPECT_TRUE(m_client->isStarted());
    EXPECT_EQ(outcome(*m_client, service("after")), Published);
    // A daemon that has just appeared may report its states one by one, this one twice.
    EXPECT_TRUE(m_log.containsInOrder({waitingText, runningText}));
    EXPECT_THAT(m_log.textsAt(spdlog::level::debug), Each(AnyOf(waitingText, runningText)));
    EXPECT_THAT(m_events.statuses(), IsEmpty());
}

TEST_F(AvahiServiceDiscoveryClientTest, StopEndsTheWaitOfStart) {
    startWaiting();
    // More than one if start has not reached its wait yet.
    ASSERT_TRUE(waitUntil([this] {
        EXPECT_FALSE(m_client->stop());
        return hasStartReturned(std::chrono::milliseconds(0));
    }));
    EXPECT_FALSE(m_started.get());
    EXPECT_FALSE(m_client->isStarted());
    EXPECT_THAT(m_events.statuses(), IsEmpty());
    m_host->startDaemon();
    EXPECT_TRUE(m_client->start());
}

TEST_F(AvahiServiceDiscoveryClientTest, CancelEndsAllWaitsOfStartForGood) {
    startWaiting();
    m_client->cancel();
    ASSERT_TRUE(hasStartReturned());
    EXPECT_FALSE(m_started.get());
    EXPECT_FALSE(m_client->start());
    m_host->startDaemon();
    EXPECT_FALSE(m_client->start());
    EXPECT_FALSE(m_client->isStarted());
}

TEST_F(AvahiServiceDiscoveryClientTest, CancelEndsAStartThatASilentDaemonHoldsUp) {
    m_host->startDaemon();
    constexpr int moments = 40;
    std::vector<AvahiServiceDiscoveryClient> clients(moments);
    for (auto& client : clients) {
        client.start();
        client.stop();
    }
    m_host->pauseDaemon();
    // At any moment: before start asks the daemon, or while it waits for the answer.
    for (int moment = 0; moment < moments; ++moment) {
        auto& client = clients[static_cast<std::size_t>(moment)];
        const auto begin = std::chrono::steady_clock::now();
        auto started = std::async(std::launch::async, [&] { return client.start(); });
        while (std::chrono::steady_clock::now() - begin <
               std::chrono::microseconds(moment * moment * 10)) {
            std::this_thread::yield();
        }
        const auto before = std::chrono::steady_clock::now();
        client.cancel();
        EXPECT_FALSE(started.get()) << moment;
        ASSERT_LT(std::chrono::steady_clock::now() - before, seconds(2)) << moment;
    }
    m_host->resumeDaemon();
}

TEST_F(AvahiServiceDiscoveryClientTest, StopEndsAStartThatASilentDaemonHoldsUp) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.start();
    client.stop();
    m_host->pauseDaemon();
    auto started = std::async(std::launch::async, [&] { return client.start(); });
    const auto before = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitUntil([&] {
        client.stop();
        return started.wait_for(seconds(0)) == std::future_status::ready;
    }));
    EXPECT_FALSE(started.get());
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(4));
    m_host->resumeDaemon();
    EXPECT_TRUE(client.start());
}

TEST_F(AvahiServiceDiscoveryClientTest, CancelLeavesAConnectionAlone) {
    m_host->startDaemon();
    const auto client = startedClient();
    client->cancel();
    EXPECT_TRUE(client->isStarted());
    EXPECT_EQ(outcome(*client, service("still")), Published);
    EXPECT_TRUE(client->stop());
    EXPECT_FALSE(client->start());
}

TEST_F(AvahiServiceDiscoveryClientTest, ManyMayStartAndStopItAtOnce) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_events.clientCallback());
    const auto work = [&](int seed) {
        for (int i = 0; i < 5; ++i) {
            if ((i + seed) % 2 == 0) {
                client.start();
            } else {
                client.stop();
            }
        }
    };
    std::thread first(work, 0);
    std::thread second(work, 1);
    first.join();
    second.join();
    EXPECT_TRUE(client.start());
    EXPECT_TRUE(client.stop());
}

TEST_F(AvahiServiceDiscoveryClientTest, StopWithdrawsAllAndTellsIt) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_events.clientCallback());
    client.start();
    Events seen;
    const auto watcher = startedClient();
    const auto browsing =
        watcher->resolver().browse(NetworkServiceType("capability"), seen.callback(), -1);
    const auto published = client.publisher().publish(service("published"), m_events.callback());
    ASSERT_TRUE(seen.waitFor(ServiceFound, "published"));
    auto pending = client.publisher().publish(service("pending"));

    EXPECT_TRUE(client.stop());
    EXPECT_FALSE(client.isStarted());
    EXPECT_EQ(m_events.count(ClientLost), 1U);
    EXPECT_THROW(pending.content().get(), std::future_error);
    EXPECT_TRUE(seen.waitFor(ServiceRemoved, "published"));
    EXPECT_FALSE(client.stop());
    EXPECT_EQ(m_events.count(ClientLost), 1U);
}

TEST_F(AvahiServiceDiscoveryClientTest, StartsAnewAfterAStop) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_events.clientCallback());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(client.start());
        EXPECT_EQ(client.hostName(), "head-end");
        EXPECT_TRUE(client.stop());
    }
    EXPECT_THAT(m_events.statuses(), ElementsAre(ClientLost, ClientLost, ClientLost));
}

TEST_F(AvahiServiceDiscoveryClientTest, StopBeforeTheStartDoesNothing) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_events.clientCallback());
    EXPECT_FALSE(client.stop());
    EXPECT_THAT(m_events.statuses(), IsEmpty());
    EXPECT_TRUE(client.start());
}

TEST_F(AvahiServiceDiscoveryClientTest, ErrorOfTheCallbackComesOutOfStop) {
    m_host->startDaemon();
    const auto client = startedClient();
    client->setCallback([](const Status&) { throw ServiceDiscoveryError("mine", "f.cpp", 5); });
    EXPECT_EQ(errorOf([&] { client->stop(); }), "Service Discovery Error: mine(f.cpp:5)");
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("Avahi: failed when stopping: Service Discovery Error: mine(f.cpp:5)"));
    EXPECT_FALSE(client->isStarted());
    EXPECT_TRUE(client->start());
}

TEST_F(AvahiServiceDiscoveryClientTest, DestructionWithdrawsAllWithoutAWord) {
    m_host->startDaemon();
    Events seen;
    const auto watcher = startedClient();
    const auto browsing =
        watcher->resolver().browse(NetworkServiceType("capability"), seen.callback(), -1);
    Handle handle;
    {
        const auto client = startedClient();
        client->setCallback(m_events.clientCallback());
        handle = client->publisher().publish(service("published"), m_events.callback());
        ASSERT_TRUE(seen.waitFor(ServiceFound, "published"));
        ASSERT_TRUE(m_events.waitFor(Published));
    }
    EXPECT_TRUE(seen.waitFor(ServiceRemoved, "published"));
    EXPECT_THAT(m_events.statuses(), ElementsAre(Published));
    handle = Handle();
}

TEST_F(AvahiServiceDiscoveryClientTest, CallbacksRunWithAllSignalsBlocked) {
    m_host->startDaemon();
    const auto client = startedClient();
    std::promise<sigset_t> mask;
    const auto publishing =
        client->publisher().publish(service("signals"), [&](const Status&, const NetworkService&) {
            sigset_t set;
            pthread_sigmask(SIG_BLOCK, nullptr, &set);
            mask.set_value(set);
        });
    const auto set = mask.get_future().get();
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE, SIGCHLD}) {
        EXPECT_EQ(sigismember(&set, signal), 1) << signal;
    }
}

TEST_F(AvahiServiceDiscoveryClientTest, CannotBeWithoutABus) {
    m_bus->stop();
    EXPECT_THAT(errorOf([] { const AvahiServiceDiscoveryClient client; }),
                StartsWith("Service Discovery Error: Avahi: failed to create client instance("));
}

TEST_F(AvahiServiceDiscoveryClientTest, CannotBeWithoutDescriptors) {
    rlimit former = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    rlimit none = former;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto error = errorOf([] { const AvahiServiceDiscoveryClient client; });
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_THAT(error,
                StartsWith("Service Discovery Error: Avahi: failed to create client event-loop("));
}

TEST_F(AvahiServiceDiscoveryClientTest, BusThatDiesEndsTheWaitOfStart) {
    startWaiting();
    m_bus->kill();
    ASSERT_TRUE(hasStartReturned());
    EXPECT_THAT(errorOf([&] { m_started.get(); }),
                StartsWith("Service Discovery Error: Avahi: failed to start avahi("));
    EXPECT_FALSE(m_client->isStarted());
    EXPECT_THAT(m_log.textsAt(spdlog::level::debug), ElementsAre(waitingText, lostText, lostText));
    EXPECT_THAT(m_events.statuses(), IsEmpty());

    EXPECT_THAT(errorOf([&] { m_client->start(); }),
                StartsWith("Service Discovery Error: Avahi: failed to create client instance("));
    m_bus->start();
    m_host->startDaemon();
    EXPECT_TRUE(m_client->start());
}

TEST_F(AvahiServiceDiscoveryClientTest, SilentDaemonHoldsUpStopForASecondOnly) {
    m_host->startDaemon();
    const auto client = startedClient();
    client->setCallback(m_events.clientCallback());
    const auto published = client->publisher().publish(service("published"));
    m_host->pauseDaemon();
    // Waits for an answer that never arrives, with the Avahi mutex held.
    auto publishing = std::async(
        std::launch::async, [&] { return errorOf([&] { outcome(*client, service("hanging")); }); });
    // Whether the publication hangs already or has not begun makes no difference to the end.
    std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(client->stop());
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(2));
    EXPECT_EQ(m_events.count(ClientLost), 1U);
    publishing.wait();
    m_host->resumeDaemon();
    EXPECT_TRUE(client->start());
}

TEST_F(AvahiServiceDiscoveryClientTest, SilentDaemonHoldsUpTheDestructorForASecondOnly) {
    m_host->startDaemon();
    auto client = startedClient();
    client->setCallback(m_events.clientCallback());
    auto published = client->publisher().publish(service("published"));
    m_host->pauseDaemon();
    // Waits for an answer that never arrives, unless the client ends first.
    auto dropping = std::async(std::launch::async, [&] { published = {}; });
    const auto before = std::chrono::steady_clock::now();
    client.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(2));
    dropping.wait();
    EXPECT_THAT(m_events.statuses(), IsEmpty());
    m_host->resumeDaemon();
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
