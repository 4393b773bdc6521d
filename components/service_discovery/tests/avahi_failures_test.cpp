#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "daemon_stand_in.h"
#include "discovery_fixture.h"
#include "events.h"

// Failures that the real daemon reports only when its machine fails.

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr int groupEstablished = 2;
constexpr int groupCollided = 3;
constexpr int groupFailed = 4;

class AvahiFailuresTest : public DiscoveryTest {
protected:
    void startClient(const DaemonStandIn::Behaviour& behaviour) {
        m_daemon = std::make_unique<DaemonStandIn>(*m_bus, behaviour);
        m_client = startedClient();
    }

    std::vector<std::string> errors() const { return m_log.textsAt(spdlog::level::err); }

    std::string errorOfPublishing() {
        return errorOf(
            [this] { m_client->publisher().publish(service("a"), m_events.callback()); });
    }

    Events m_events;
    std::unique_ptr<DaemonStandIn> m_daemon;
    std::unique_ptr<AvahiServiceDiscoveryClient> m_client;
};

TEST_F(AvahiFailuresTest, AreToldByNobodyWhereThereIsNone) {
    startClient({});
    auto publication = m_client->publisher().publish(service("a"));
    EXPECT_EQ(publication.content().get().first, Published);
    EXPECT_EQ(m_client->publisher().status(publication), Published);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AvahiFailuresTest, GroupThatFailsIsToldWithTheDaemonsText) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.groupState = groupFailed;
    behaviour.groupStateError = "org.freedesktop.Avahi.NoMemoryError";
    startClient(behaviour);
    const auto publication = m_client->publisher().publish(service("a"), m_events.callback());
    ASSERT_TRUE(m_events.waitFor(PublishFailure, "a"));
    EXPECT_EQ(m_client->publisher().status(publication), PublishFailure);
    EXPECT_THAT(errors(), ElementsAre("Avahi: entry group failure Memory exhausted"));
    EXPECT_THAT(m_events.statuses(), ElementsAre(PublishFailure));
}

TEST_F(AvahiFailuresTest, GroupThatCollidesAndIsKeptHasCollided) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.groupState = groupCollided;
    startClient(behaviour);
    auto publication = m_client->publisher().publish(service("a"));
    EXPECT_EQ(publication.content().get().first, Collision);
    EXPECT_EQ(m_client->publisher().status(publication), Collision);
}

TEST_F(AvahiFailuresTest, GroupThatIsEmptyCannotBePublished) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.groupsAreEmpty = true;
    behaviour.groupState = groupEstablished;
    startClient(behaviour);
    EXPECT_THAT(errorOfPublishing(),
                StartsWith("Service Discovery Error: failed to publish service("));
    EXPECT_THAT(m_events.statuses(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AvahiFailuresTest, CommitThatFailsOutrightThrows) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.commitError = "org.freedesktop.Avahi.Failure";
    startClient(behaviour);
    EXPECT_THAT(errorOfPublishing(),
                StartsWith("Service Discovery Error: failed to publish service("));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AvahiFailuresTest, CommitThatIsRefusedIsAPublishFailure) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.commitError = "org.freedesktop.Avahi.BadStateError";
    startClient(behaviour);
    auto publication = m_client->publisher().publish(service("a"));
    EXPECT_EQ(publication.content().get().first, PublishFailure);
    EXPECT_THAT(errors(), ElementsAre("Avahi: failed to commit service: Bad state"));
}

TEST_F(AvahiFailuresTest, DaemonWithoutRoomForAGroupThrows) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.groupError = "org.freedesktop.Avahi.TooManyObjectsError";
    startClient(behaviour);
    EXPECT_THAT(errorOfPublishing(),
                StartsWith("Service Discovery Error: failed to allocate entrygroup (OOM)("));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_TRUE(m_client->isStarted());
}

TEST_F(AvahiFailuresTest, BrowsingThatFailsIsTold) {
    startClient({});
    EXPECT_EQ(m_client->resolver().browse(NetworkServiceType("any"), -1).content().get().first,
              BrowseFailure);
    const auto browsing =
        m_client->resolver().browse(NetworkServiceType("any"), m_events.callback(), -1);
    ASSERT_TRUE(m_events.waitFor(BrowseFailure));
    EXPECT_EQ(m_events.all().front().second.name, "");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AvahiFailuresTest, DaemonOfAnotherKindIsNoDaemon) {
    DaemonStandIn::Behaviour behaviour;
    behaviour.apiVersion = 1;
    m_daemon = std::make_unique<DaemonStandIn>(*m_bus, behaviour);
    EXPECT_THAT(errorOf([] { const AvahiServiceDiscoveryClient client; }),
                StartsWith("Service Discovery Error: Avahi: failed to create client instance("));
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
