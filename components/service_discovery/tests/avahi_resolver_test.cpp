#include "avahi_resolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "discovery_fixture.h"
#include "events.h"
#include "hox/cpputil/error/not_implemented_error.h"

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

using Records = std::map<std::string, std::string>;

class AvahiResolverTest : public SharedDaemonTest {
protected:
    IServiceResolver& resolver() { return m_client->resolver(); }

    Events m_events;
};

TEST_F(AvahiResolverTest, BrowsingFollowsWhatComesAndGoes) {
    const auto browsing =
        resolver().browse(NetworkServiceType("coming"), m_events.callback(), loopback());
    auto foreign = foreignService({"comes and goes", "_coming._tcp", "4711", "a=b"});
    ASSERT_TRUE(m_events.waitFor(ServiceFound));
    foreign.reset();
    ASSERT_TRUE(m_events.waitFor(ServiceRemoved));
    ASSERT_THAT(m_events.statuses(), ElementsAre(ServiceFound, ServiceRemoved));
    for (const auto& [status, service] : m_events.all()) {
        EXPECT_EQ(service.name, "comes and goes");
        EXPECT_EQ(service.type.text(), "_coming._tcp");
        EXPECT_EQ(service.domain, "local");
        EXPECT_EQ(service.interfaceIndex, loopback());
        EXPECT_EQ(service.port, 0);
        EXPECT_THAT(service.txtRecords, IsEmpty());
    }
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiResolverTest, BrowsingAnEmptyNetworkGivesAnEmptyList) {
    auto browsing = resolver().browse(NetworkServiceType("nobody"), -1);
    const auto [status, services] = browsing.content().get();
    EXPECT_EQ(status, ServiceFound);
    EXPECT_THAT(services, IsEmpty());
}

TEST_F(AvahiResolverTest, BrowsingListsAllThatThereIs) {
    const auto first = foreignService({"first", "_list._tcp", "1"});
    const auto second = foreignService({"second", "_list._tcp", "2"});
    auto browsing = resolver().browse(NetworkServiceType("list"), loopback());
    const auto [status, services] = browsing.content().get();
    EXPECT_EQ(status, ServiceFound);
    std::vector<std::string> names;
    for (const auto& service : services) {
        names.push_back(service.name);
    }
    EXPECT_THAT(names, UnorderedElementsAre("first", "second"));
}

TEST_F(AvahiResolverTest, BrowsingFollowsTwoHundredInstances) {
    Handle browsing =
        resolver().browse(NetworkServiceType("crowd"), m_events.callback(), loopback());
    Events published;
    std::vector<Handle> handles;
    for (int i = 0; i < 200; ++i) {
        auto one = service("crowd " + std::to_string(i));
        one.type = NetworkServiceType("crowd");
        handles.push_back(m_client->publisher().publish(one, published.callback()));
    }
    EXPECT_TRUE(m_events.waitFor(ServiceFound, "", 200));
    handles.clear();
    EXPECT_TRUE(m_events.waitFor(ServiceRemoved, "", 200));
    EXPECT_EQ(m_events.all().size(), 400U);
}

TEST_F(AvahiResolverTest, ResolvesWhatAForeignProgramPublishes) {
    const auto foreign = foreignService({"foreign service", "_resolved._tcp", "4711", "a=b=c",
                                         "flag", "umlaut=\xC3\xB6", "empty="});
    auto resolving =
        resolver().resolve("foreign service", NetworkServiceType("resolved"), loopback());
    const auto [status, service] = resolving.content().get();
    EXPECT_EQ(status, ServiceResolved);
    EXPECT_EQ(service.name, "foreign service");
    EXPECT_EQ(service.hostName, "head-end.local");
    EXPECT_EQ(service.domain, "local");
    EXPECT_EQ(service.type.text(), "_resolved._tcp");
    EXPECT_EQ(service.protocol, 0);
    EXPECT_EQ(service.interfaceIndex, loopback());
    EXPECT_EQ(service.port, 4711);
    EXPECT_EQ(service.address, "127.0.0.1");
    EXPECT_EQ(service.txtRecords,
              (Records{{"", ""}, {"a", "b=c"}, {"empty", ""}, {"umlaut", "\xC3\xB6"}}));
}

TEST_F(AvahiResolverTest, ResolvesForACallback) {
    const auto foreign = foreignService({"called", "_resolved._tcp", "4711"});
    const auto resolving =
        resolver().resolve("called", NetworkServiceType("resolved"), m_events.callback(), -1);
    ASSERT_TRUE(m_events.waitFor(ServiceResolved, "called"));
    EXPECT_EQ(m_events.all().front().second.port, 4711);
}

TEST_F(AvahiResolverTest, WaitsNotOnlyForTheOneThatIsThere) {
    // Resolving begins before the service is there.
    const auto resolving =
        resolver().resolve("later", NetworkServiceType("resolved"), m_events.callback(), -1);
    const auto foreign = foreignService({"later", "_resolved._tcp", "4711"});
    EXPECT_TRUE(m_events.waitFor(ServiceResolved, "later"));
}

TEST_F(AvahiResolverTest, FollowsTheRecordsForACallback) {
    auto changing = service("changing");
    changing.type = NetworkServiceType("changing");
    Handle published = m_client->publisher().publish(changing, m_events.callback());
    Events seen;
    const auto resolving =
        resolver().resolve("changing", changing.type, seen.callback(), loopback());
    ASSERT_TRUE(seen.waitFor(ServiceResolved));
    published = Handle();
    changing.port = 5006;
    published = m_client->publisher().publish(changing, m_events.callback());
    ASSERT_TRUE(seen.waitFor(ServiceResolved, "changing", 2));
    EXPECT_EQ(seen.all().back().second.port, 5006);
}

TEST_F(AvahiResolverTest, TellsWhatCannotBeResolved) {
    // One that is not there, and one whose host is not; both take the daemon five seconds.
    const auto foreign =
        foreignService({"-H", "nowhere.local", "homeless", "_resolved._tcp", "4711"});
    std::vector<FutureOutcome<NetworkService>> resolving;
    for (const auto* name : {"nobody", "homeless"}) {
        resolving.push_back(resolver().resolve(name, NetworkServiceType("resolved"), loopback()));
    }
    const auto withCallback =
        resolver().resolve("nobody", NetworkServiceType("resolved"), m_events.callback(), -1);
    for (auto& one : resolving) {
        const auto [status, service] = one.content().get();
        EXPECT_EQ(status, ResolveFailure);
        EXPECT_EQ(service.name, "");
        EXPECT_EQ(service.port, 0);
    }
    EXPECT_TRUE(m_events.waitFor(ResolveFailure));
    EXPECT_EQ(m_log.textsAt(spdlog::level::err), std::vector<std::string>());
}

TEST_F(AvahiResolverTest, DroppedHandleEndsTheCallbacks) {
    Events seen;
    Handle browsing = resolver().browse(NetworkServiceType("dropped"), m_events.callback(), -1);
    const auto other = resolver().browse(NetworkServiceType("dropped"), seen.callback(), -1);
    browsing = Handle();
    const auto foreign = foreignService({"one", "_dropped._tcp", "1"});
    ASSERT_TRUE(seen.waitFor(ServiceFound, "one"));
    EXPECT_THAT(m_events.statuses(), IsEmpty());
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiResolverTest, HandleMayBeDroppedInsideItsCallback) {
    const auto foreign = foreignService({"one", "_inside._tcp", "1"});
    const auto other = foreignService({"two", "_inside._tcp", "2"});
    // Told of one of two, then no more.
    Handle browsing;
    Handle resolving;
    Events seen;
    std::promise<void> ready;
    auto isReady = ready.get_future().share();
    const auto dropping = [&seen, isReady](Handle& handle) {
        return [&seen, isReady, &handle](const Status& status, const NetworkService& service) {
            isReady.wait();
            handle = Handle();
            seen.callback()(status, service);
        };
    };
    browsing = resolver().browse(NetworkServiceType("inside"), dropping(browsing), -1);
    resolving = resolver().resolve("one", NetworkServiceType("inside"), dropping(resolving), -1);
    ready.set_value();
    EXPECT_TRUE(seen.waitFor(ServiceFound));
    EXPECT_TRUE(seen.waitFor(ServiceResolved));
    auto list = resolver().browse(NetworkServiceType("inside"), -1);
    EXPECT_EQ(list.content().get().second.size(), 2U);
    EXPECT_EQ(seen.all().size(), 2U);
}

TEST_F(AvahiResolverTest, SeveralSearchesShareAClient) {
    const auto foreign = foreignService({"shared", "_shared._tcp", "1"});
    std::vector<FutureOutcome<NetworkService>> resolving;
    for (int i = 0; i < 20; ++i) {
        resolving.push_back(resolver().resolve("shared", NetworkServiceType("shared"), -1));
    }
    std::vector<Status> statuses;
    for (auto& one : resolving) {
        statuses.push_back(one.content().get().first);
    }
    EXPECT_THAT(statuses, Each(ServiceResolved));
}

TEST_F(AvahiResolverTest, RefusesWrongArgumentsBeforeAnythingIsAsked) {
    const NetworkServiceType type("any");
    const NetworkServiceType noType;
    const auto both = HasSubstr("Error: service name requires both name and servicetype.(");
    EXPECT_THAT(errorOf([&] { resolver().resolve("", type, m_events.callback(), -1); }), both);
    EXPECT_THAT(errorOf([&] { resolver().resolve("a", noType, m_events.callback(), -1); }), both);
    EXPECT_THAT(errorOf([&] { resolver().resolve("", noType, nullptr, -1); }), both);
    EXPECT_THAT(errorOf([&] { resolver().resolve("a", type, nullptr, -1); }),
                HasSubstr("Error: callback has to contain a valid target.("));
    EXPECT_THAT(errorOf([&] { resolver().resolve("", type, -1); }),
                HasSubstr("Error: service name is required to resolve a service.("));
    EXPECT_THAT(errorOf([&] { resolver().browse(type, nullptr, -1); }),
                HasSubstr("Error: callback has to contain a valid target.("));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiResolverTest, TellsWhatTheDaemonRefuses) {
    const auto invalid = StartsWith("Service Discovery Error: request invalid pointer(");
    const NetworkServiceType type("any");
    EXPECT_THAT(errorOf([&] { resolver().browse(type, -2); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().browse(NetworkServiceType(""), -1); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().browse(NetworkServiceType("\xFF"), -1); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().resolve("a", type, -2); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().resolve("a", NetworkServiceType("."), -1); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().resolve("K\xF6ln", type, -1); }), invalid);
    EXPECT_THAT(errorOf([&] { resolver().resolve(std::string(64, 'n'), type, -1); }), invalid);
}

TEST_F(AvahiResolverTest, FindsNothingUnlessItsClientIsStarted) {
    auto& resolver = m_client->resolver();
    m_client->stop();
    const NetworkServiceType type("any");
    const auto text =
        StartsWith("Service Discovery Error: service discovery client not connected(");
    EXPECT_THAT(errorOf([&] { resolver.browse(type, -1); }), text);
    EXPECT_THAT(errorOf([&] { resolver.browse(type, m_events.callback(), -1); }), text);
    EXPECT_THAT(errorOf([&] { resolver.resolve("", type, nullptr, -1); }), text);
    EXPECT_THAT(errorOf([&] { resolver.resolve("", type, -1); }),
                StartsWith("Service Discovery Error: service discovery client not started("));
    EXPECT_THAT(
        m_log.textsOf("avahi_resolver.h::Hox::Service::Discovery::Avahi::AvahiServiceResolver"),
        ElementsAre("error: client not connected", "error: client not connected",
                    "error: client not connected", "error: client not connected"));
    EXPECT_EQ(m_log.textsAt(spdlog::level::err).size(), 4U);
}

TEST_F(AvahiResolverTest, OffersMoreThanItDoesYet) {
    const std::vector<std::function<void()>> operations = {
        [&] { resolver().resolveAddress("127.0.0.1", -1); },
        [&] { resolver().resolveHostName("head-end.local", -1); },
        [&] { resolver().browseDomains(-1); }};
    for (const auto& operation : operations) {
        try {
            operation();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const Hox::CppUtil::NotImplementedError& error) {
            EXPECT_THAT(error.what(),
                        StartsWith("Not Implemented Error: functionality not yet implemented"));
        }
    }
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
