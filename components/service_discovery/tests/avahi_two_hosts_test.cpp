#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "discovery_fixture.h"
#include "events.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"

// What takes a second host: the client is on "one", and "two" is at the other end of a cable.

namespace Hox::Service::Discovery::Avahi {
namespace {

using Hox::Testing::ChildProcess;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class AvahiTwoHostsTest : public DiscoveryTest {
protected:
    void SetUp() override {
        DiscoveryTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_otherBus.emplace(m_folder.path());
        m_host = std::make_unique<MdnsHost>(*m_bus, MdnsHost::Settings{"one", "cable", true});
        m_other.emplace(*m_otherBus, MdnsHost::Settings{"two", "cable", true});
        MdnsHost::join(*m_host, *m_other);
    }

    void startDaemons() {
        m_host->startDaemon();
        m_other->startDaemon();
        m_client = startedClient();
        m_client->setCallback(m_lost.clientCallback());
    }

    static NetworkService anywhere(const std::string& name) {
        auto result = service(name);
        result.interfaceIndex = -1;
        return result;
    }

    /// What the other host sees of the services, once it sees something.
    std::string seenFromThere() const {
        ChildProcess browser(m_other->command({"avahi-browse", "-rpt", "_capability._tcp"}),
                             m_other->environment());
        browser.waitForEnd();
        return browser.output();
    }

    using MdnsHost = Hox::Testing::MdnsHost;

    Hox::Testing::TempDir m_folder;
    std::optional<Hox::Testing::PrivateBus> m_otherBus;
    std::optional<MdnsHost> m_other;
    Events m_events;
    Events m_lost;
    std::unique_ptr<AvahiServiceDiscoveryClient> m_client;
};

TEST_F(AvahiTwoHostsTest, NameThatAnotherHostHasIsACollision) {
    m_other->addServiceFile("taken", "_capability._tcp", 631);
    startDaemons();
    ASSERT_TRUE(waitUntil([&] { return seenFromThere().find(";631;") != std::string::npos; }));
    auto handle = m_client->publisher().publish(anywhere("taken"), m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Collision, "taken"));
    // The daemon has emptied the group.
    EXPECT_EQ(m_client->publisher().status(handle), Published);
    handle = Handle();
    EXPECT_THAT(m_events.statuses(), ElementsAre(Collision));
    // Whoever publishes decides what follows: here, another name.
    EXPECT_EQ(outcome(*m_client, anywhere("taken (2)")), Published);
    EXPECT_TRUE(m_client->isStarted());
}

TEST_F(AvahiTwoHostsTest, FindsAndLosesWhatAnotherHostPublishes) {
    m_other->addServiceFile("far", "_capability._tcp", 631);
    startDaemons();
    const auto browsing =
        m_client->resolver().browse(NetworkServiceType("capability"), m_events.callback(), -1);
    ASSERT_TRUE(m_events.waitFor(ServiceFound, "far"));
    auto resolving = m_client->resolver().resolve("far", NetworkServiceType("capability"), -1);
    const auto [status, far] = resolving.content().get();
    EXPECT_EQ(status, ServiceResolved);
    EXPECT_EQ(far.hostName, "two.local");
    EXPECT_EQ(far.address, "10.0.0.2");
    EXPECT_EQ(far.port, 631);
    m_other->stopDaemon();
    EXPECT_TRUE(m_events.waitFor(ServiceRemoved, "far"));
}

TEST_F(AvahiTwoHostsTest, SaysGoodbyeToOtherHosts) {
    startDaemons();
    {
        const auto handle = m_client->publisher().publish(anywhere("near"), m_events.callback());
        ASSERT_TRUE(m_events.waitFor(Published));
        EXPECT_TRUE(waitUntil([&] {
            return seenFromThere().find("near;_capability._tcp;local;one.local;10.0.0.1;5005;") !=
                   std::string::npos;
        })) << seenFromThere();
    }
    EXPECT_TRUE(waitUntil([&] { return seenFromThere().find("near") == std::string::npos; }));
}

TEST_F(AvahiTwoHostsTest, HostNameThatCollidesWithdrawsAllAndLeavesTheClientStarted) {
    startDaemons();
    auto pending = m_client->publisher().publish(anywhere("first"), m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Published));
    // The daemon takes the name, finds that it is another host's, and takes a further one.
    ChildProcess rename(m_host->command({"avahi-set-host-name", "two"}), m_host->environment());
    EXPECT_EQ(rename.waitForEnd(), 0) << rename.output();
    ASSERT_TRUE(m_lost.waitFor(ClientLost));
    EXPECT_TRUE(m_log.contains("Avahi server entered collision state"));
    EXPECT_THAT(errorOf([&] { m_client->publisher().status(pending); }),
                HasSubstr("invalid publish handle("));
    pending = Handle();
    EXPECT_TRUE(m_client->isStarted());
    EXPECT_TRUE(waitUntil([&] { return m_client->hostName() == "two-2"; })) << m_client->hostName();
    // The new name is a further loss.
    ASSERT_TRUE(m_lost.waitFor(ClientLost, "", 2));
    EXPECT_EQ(outcome(*m_client, anywhere("first")), Published);
}

TEST_F(AvahiTwoHostsTest, HostNameThatChangesWithdrawsAllAndLeavesTheClientStarted) {
    startDaemons();
    auto pending = m_client->publisher().publish(anywhere("first"), m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Published));
    ChildProcess rename(m_host->command({"avahi-set-host-name", "three"}), m_host->environment());
    EXPECT_EQ(rename.waitForEnd(), 0) << rename.output();
    ASSERT_TRUE(m_lost.waitFor(ClientLost));
    EXPECT_EQ(m_client->hostName(), "three");
    EXPECT_THAT(errorOf([&] { m_client->publisher().status(pending); }),
                HasSubstr("invalid publish handle("));
    EXPECT_TRUE(m_client->isStarted());
    EXPECT_EQ(outcome(*m_client, anywhere("first")), Published);
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
