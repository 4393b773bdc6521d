#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "discovery_fixture.h"
#include "events.h"
#include "hox/testing/wait_until.h"

// The daemon, or the bus, is lost at every moment of a client's life.

namespace Hox::Service::Discovery::Avahi {
namespace {

using Hox::Testing::waitUntil;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::StartsWith;

constexpr auto runningText = "Avahi: server entered running state";
constexpr auto lostText = "Avahi: server disappeared, unregistering services";

class AvahiLossTest : public DiscoveryTest {
protected:
    /// A client with a publication that is established, one that is pending, and a browse.
    void startBusyClient() {
        m_host->startDaemon();
        m_client = startedClient();
        m_client->setCallback(m_lost.clientCallback());
        m_handles.push_back(m_client->publisher().publish(service("first"), m_events.callback()));
        m_handles.push_back(
            m_client->resolver().browse(NetworkServiceType("capability"), m_events.callback(), -1));
        ASSERT_TRUE(m_events.waitFor(Published));
        m_pending = m_client->publisher().publish(service("pending"));
    }

    void expectLoss() {
        ASSERT_TRUE(m_lost.waitFor(ClientLost));
        EXPECT_FALSE(m_client->isStarted());
        EXPECT_THROW(m_pending.content().get(), std::future_error);
        const auto notConnected = StartsWith("Service Discovery Error: client not connected(");
        EXPECT_THAT(errorOf([&] { m_client->publisher(); }), notConnected);
        EXPECT_THAT(errorOf([&] { m_client->hostName(); }), notConnected);
        EXPECT_TRUE(m_log.containsInOrder({runningText, lostText}));
        m_events.clear();
        m_handles.clear();
        m_pending = {};
        EXPECT_THAT(m_events.statuses(), IsEmpty());
        EXPECT_THAT(m_lost.statuses(), ElementsAre(ClientLost));
        EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
    }

    /// Lets some time pass, another each time, so that what follows hits any moment.
    void waitForAMoment(std::chrono::microseconds atMost) {
        std::uniform_int_distribution<std::chrono::microseconds::rep> some(0, atMost.count());
        std::this_thread::sleep_for(std::chrono::microseconds(some(m_random)));
    }

    Events m_events;
    Events m_lost;
    std::unique_ptr<AvahiServiceDiscoveryClient> m_client;
    std::vector<Handle> m_handles;
    FutureOutcome<NetworkService> m_pending;
    std::minstd_rand m_random;
};

TEST_F(AvahiLossTest, DaemonThatIsKilledTakesAllRequestsWithIt) {
    startBusyClient();
    m_host->killDaemon();
    expectLoss();
    m_host->startDaemon();
    EXPECT_TRUE(m_client->start());
    EXPECT_EQ(outcome(*m_client, service("first")), Published);
}

TEST_F(AvahiLossTest, DaemonThatEndsTakesAllRequestsWithIt) {
    startBusyClient();
    m_host->stopDaemon();
    expectLoss();
    m_host->startDaemon();
    EXPECT_TRUE(m_client->start());
    EXPECT_EQ(outcome(*m_client, service("first")), Published);
}

TEST_F(AvahiLossTest, BusThatDiesTakesAllRequestsWithIt) {
    startBusyClient();
    m_bus->kill();
    expectLoss();
    EXPECT_THAT(errorOf([&] { m_client->start(); }),
                StartsWith("Service Discovery Error: Avahi: failed to create client instance("));
    m_bus->start();
    m_host->startDaemon();
    EXPECT_TRUE(m_client->start());
    EXPECT_EQ(outcome(*m_client, service("first")), Published);
}

TEST_F(AvahiLossTest, StartAfterALossWaitsForTheDaemon) {
    startBusyClient();
    m_host->killDaemon();
    expectLoss();
    auto started = std::async(std::launch::async, [&] { return m_client->start(); });
    EXPECT_TRUE(waitUntil([&] { return m_log.contains("Avahi waiting for daemon to appear"); }));
    m_host->startDaemon();
    EXPECT_TRUE(started.get());
    EXPECT_EQ(outcome(*m_client, service("first")), Published);
}

TEST_F(AvahiLossTest, StopAfterALossSaysNothing) {
    startBusyClient();
    m_host->killDaemon();
    expectLoss();
    EXPECT_FALSE(m_client->stop());
    EXPECT_EQ(m_lost.count(ClientLost), 1U);
}

TEST_F(AvahiLossTest, LossEndsWithTheClient) {
    startBusyClient();
    m_host->killDaemon();
    m_client.reset();
    // Told by the loss, or not at all by the end.
    EXPECT_THAT(m_lost.statuses().size(), Lt(2U));
    m_handles.clear();
    EXPECT_THROW(m_pending.content().get(), std::future_error);
}

TEST_F(AvahiLossTest, DaemonThatIsLostAheadOfTheStartIsLostAfterIt) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_lost.clientCallback());
    m_host->killDaemon();
    // The client learns of it in its event loop: within start, or just after it.
    const auto error = errorOf([&] { client.start(); });
    if (error.empty()) {
        EXPECT_TRUE(m_lost.waitFor(ClientLost));
    }
    EXPECT_TRUE(waitUntil([&] { return !client.isStarted(); }));
    m_host->startDaemon();
    EXPECT_TRUE(client.start());
    EXPECT_EQ(outcome(client, service("first")), Published);
}

TEST_F(AvahiLossTest, PublicationOnADaemonThatIsGoneThrowsOrIsLost) {
    m_host->startDaemon();
    const auto client = startedClient();
    client->setCallback(m_lost.clientCallback());
    m_host->killDaemon();
    const auto error = errorOf([&] {
        auto publication = client->publisher().publish(service("gone"));
        EXPECT_THROW(publication.content().get(), std::future_error);
    });
    if (!error.empty()) {
        EXPECT_THAT(error, StartsWith("Service Discovery Error: "));
    }
    EXPECT_TRUE(m_lost.waitFor(ClientLost));
}

TEST_F(AvahiLossTest, HandlesMayBeDroppedInTheCallbackOfTheLoss) {
    startBusyClient();
    m_client->setCallback([&](const Status& status) {
        m_handles.clear();
        m_pending = {};
        m_lost.clientCallback()(status);
    });
    m_host->killDaemon();
    ASSERT_TRUE(m_lost.waitFor(ClientLost));
    EXPECT_THAT(m_handles, IsEmpty());
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiLossTest, HandlesMayBeDroppedInTheCallbackOfStop) {
    startBusyClient();
    m_client->setCallback([&](const Status& status) {
        m_handles.clear();
        m_pending = {};
        m_lost.clientCallback()(status);
    });
    EXPECT_TRUE(m_client->stop());
    EXPECT_THAT(m_lost.statuses(), ElementsAre(ClientLost));
    EXPECT_THAT(m_handles, IsEmpty());
}

TEST_F(AvahiLossTest, TwentyLossesInARow) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_lost.clientCallback());
    for (std::size_t i = 1; i <= 20; ++i) {
        ASSERT_TRUE(client.start()) << i;
        const auto handle = client.publisher().publish(service("again"), m_events.callback());
        waitForAMoment(milliseconds(5));
        m_host->killDaemon();
        ASSERT_TRUE(m_lost.waitFor(ClientLost, "", i));
        m_host->startDaemon();
    }
    EXPECT_TRUE(client.start());
    EXPECT_EQ(outcome(client, service("again")), Published);
    EXPECT_EQ(m_lost.all().size(), 20U);
}

TEST_F(AvahiLossTest, LossDuringTheEnd) {
    m_host->startDaemon();
    for (int i = 0; i < 20; ++i) {
        Events lost;
        auto client = startedClient();
        client->setCallback(lost.clientCallback());
        const auto handle = client->publisher().publish(service("ending"), m_events.callback());
        auto stopped = std::async(std::launch::async, [&] { return client->stop(); });
        waitForAMoment(milliseconds(1));
        if (i % 4 == 3) {
            m_bus->kill();
        } else {
            m_host->killDaemon();
        }
        stopped.wait();
        // Reported once, whichever is first.
        EXPECT_TRUE(waitUntil([&] { return lost.count(ClientLost) == 1; }));
        client.reset();
        EXPECT_EQ(lost.all().size(), 1U);
        if (i % 4 == 3) {
            m_bus->start();
        }
        m_host->startDaemon();
    }
}

TEST_F(AvahiLossTest, HandlesAreDroppedAtAnyMoment) {
    m_host->startDaemon();
    AvahiServiceDiscoveryClient client;
    client.setCallback(m_lost.clientCallback());
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(client.start());
        std::vector<Handle> handles;
        for (int i = 0; i < 20; ++i) {
            auto one = i % 3 == 0 ? client.resolver().browse(NetworkServiceType("capability"),
                                                             m_events.callback(), -1)
                                  : client.publisher().publish(service(std::to_string(i % 7)),
                                                               m_events.callback());
            handles.push_back(std::move(one));
        }
        auto dropping = std::async(std::launch::async, [&] {
            for (auto& handle : handles) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
                const Handle dropped = std::move(handle);
            }
        });
        waitForAMoment(milliseconds(4));
        switch (round % 3) {
            case 0:
                client.stop();
                break;
            case 1:
                m_host->killDaemon();
                break;
            default:
                break;
        }
        dropping.wait();
        if (round % 3 == 1) {
            ASSERT_TRUE(waitUntil([&] { return !client.isStarted(); }));
            m_host->startDaemon();
        }
    }
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
