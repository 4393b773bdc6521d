#include "avahi_publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "discovery_fixture.h"
#include "events.h"
#include "hox/testing/wait_until.h"

namespace Hox::Service::Discovery::Avahi {
namespace {

using Hox::Testing::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class AvahiPublisherTest : public SharedDaemonTest {
protected:
    IServicePublisher& publisher() { return m_client->publisher(); }

    /// A service of a type that no other test uses.
    static NetworkService serviceOf(const std::string& protocol, const std::string& name) {
        auto result = service(name);
        result.type = NetworkServiceType(protocol);
        return result;
    }

    Events m_events;
};

TEST_F(AvahiPublisherTest, PublishesLetterForLetter) {
    auto service = serviceOf("letters", "head-1");
    service.txtRecords = {{"visiblity", "public"}, {"id", "head-1"}, {"type", "configuration"}};
    service.subtypes = {"configuration", "other"};
    auto publication = publisher().publish(service);
    EXPECT_TRUE(publication.isValid());
    const auto [status, published] = publication.content().get();
    EXPECT_EQ(status, Published);
    EXPECT_EQ(published.name, "head-1");
    EXPECT_EQ(published.txtRecords, service.txtRecords);
    EXPECT_EQ(publisher().status(publication), Published);

    const std::string line =
        "=;lo;IPv4;head-1;_letters._tcp;local;head-end.local;127.0.0.1;5005;"
        "\"visiblity=public\" \"type=configuration\" \"id=head-1\" \"vendor=halvo\"\n";
    EXPECT_EQ(foreignBrowser("_letters._tcp"), line);
    EXPECT_EQ(foreignBrowser("_configuration._sub._letters._tcp"), line);
    EXPECT_EQ(foreignBrowser("_other._sub._letters._tcp"), line);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiPublisherTest, WithoutRecordsThereIsNoVendorMarkEither) {
    const auto publication = publisher().publish(serviceOf("bare", "bare"), m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Published, "bare"));
    EXPECT_EQ(foreignBrowser("_bare._tcp"),
              "=;lo;IPv4;bare;_bare._tcp;local;head-end.local;127.0.0.1;5005;\n");
    EXPECT_EQ(foreignBrowser("_configuration._sub._bare._tcp"), "");
}

TEST_F(AvahiPublisherTest, TakesManyRecordsAndNoPort) {
    auto many = serviceOf("many", "many");
    many.port = 0;
    for (int i = 0; i < 256; ++i) {
        many.txtRecords["k" + std::to_string(i)] = "v";
    }
    const auto publication = publisher().publish(many, m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Published, "many"));
    const auto found = foreignBrowser("_many._tcp");
    EXPECT_THAT(found, StartsWith("=;lo;IPv4;many;_many._tcp;local;head-end.local;127.0.0.1;0;"));
    for (const auto& [key, value] : many.txtRecords) {
        EXPECT_THAT(found, HasSubstr("\"" + key + "=" + value + "\""));
    }
}

TEST_F(AvahiPublisherTest, ExplicitDomainHoldsTheSubtypesToo) {
    auto explicitly = serviceOf("domain", "explicitly");
    explicitly.domain = "local";
    explicitly.subtypes = {"configuration"};
    const auto publication = publisher().publish(explicitly, m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Published, "explicitly"));
    EXPECT_THAT(foreignBrowser("_configuration._sub._domain._tcp"),
                StartsWith("=;lo;IPv4;explicitly;_domain._tcp;local;head-end.local;"));
}

TEST_F(AvahiPublisherTest, KeepsAnyRecordAsItIs) {
    auto service = serviceOf("records", "records");
    service.txtRecords = {
        {"equals", "a=b=c"}, {"bytes", "\xFF\x80"}, {"empty", ""}, {"full", std::string(250, 'x')}};
    auto publication = publisher().publish(service);
    ASSERT_EQ(publication.content().get().first, Published);
    auto resolving = m_client->resolver().resolve("records", service.type, -1);
    const auto [status, resolved] = resolving.content().get();
    EXPECT_EQ(status, ServiceResolved);
    auto expected = service.txtRecords;
    expected["vendor"] = "halvo";
    EXPECT_EQ(resolved.txtRecords, expected);
}

TEST_F(AvahiPublisherTest, TakesNamesOfAnyLetters) {
    const std::vector<std::string> names = {"a.b c", "K\xC3\xB6ln", std::string(63, 'n'),
                                            "back\\slash;semicolon"};
    std::vector<Handle> handles;
    for (const auto& name : names) {
        handles.push_back(publisher().publish(serviceOf("names", name), m_events.callback()));
    }
    for (const auto& name : names) {
        EXPECT_TRUE(m_events.waitFor(Published, name)) << name;
    }
    Events seen;
    const auto browsing =
        m_client->resolver().browse(NetworkServiceType("names"), seen.callback(), -1);
    for (const auto& name : names) {
        EXPECT_TRUE(seen.waitFor(ServiceFound, name)) << name;
    }
}

TEST_F(AvahiPublisherTest, TellsTheCallbackOnceAndOnAnotherThread) {
    std::promise<std::thread::id> thread;
    const auto publication = publisher().publish(
        serviceOf("once", "once"), [&](const Status& status, const NetworkService& service) {
            EXPECT_EQ(status, Published);
            EXPECT_EQ(service.name, "once");
            EXPECT_EQ(service.port, 5005);
            // A second call would end the process: the promise has its value.
            thread.set_value(std::this_thread::get_id());
        });
    EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
}

TEST_F(AvahiPublisherTest, TellsHowAPublicationIsDoing) {
    auto publication = publisher().publish(serviceOf("doing", "doing"));
    EXPECT_EQ(publisher().status(publication), Registering);
    EXPECT_EQ(publication.content().get().first, Published);
    EXPECT_EQ(publisher().status(publication), Published);
}

TEST_F(AvahiPublisherTest, KnowsItsOwnHandlesOnly) {
    const auto invalid = StartsWith("Service Discovery Error: invalid publish handle(");
    EXPECT_THAT(errorOf([&] { publisher().status(Handle()); }), invalid);
    EXPECT_THAT(errorOf([&] { publisher().status(Handle(4000000)); }), invalid);
    const auto browsing =
        m_client->resolver().browse(NetworkServiceType("own"), m_events.callback(), -1);
    EXPECT_THAT(errorOf([&] { publisher().status(browsing); }), invalid);
    const Handle moved = publisher().publish(serviceOf("own", "own"));
    EXPECT_NO_THROW(publisher().status(moved));
    m_client->stop();
    m_client->start();
    EXPECT_THAT(errorOf([&] { publisher().status(moved); }), invalid);
}

TEST_F(AvahiPublisherTest, NameThatTheDaemonHasAlreadyIsACollision) {
    auto first = publisher().publish(serviceOf("twice", "twice"));
    ASSERT_EQ(first.content().get().first, Published);
    auto other = serviceOf("twice", "twice");
    other.port = 5006;
    auto second = publisher().publish(other, m_events.callback());
    ASSERT_TRUE(m_events.waitFor(Collision, "twice"));
    EXPECT_EQ(publisher().status(second), Collision);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
    // Frees its group and nothing else.
    second = Handle();
    EXPECT_THAT(m_events.statuses(), ElementsAre(Collision));
    EXPECT_EQ(publisher().status(first), Published);
    EXPECT_THAT(foreignBrowser("_twice._tcp"), HasSubstr(";5005;"));
    auto third = publisher().publish(other);
    EXPECT_EQ(third.content().get().first, Collision);
}

struct Refusal {
    const char* what;
    void (*spoil)(NetworkService&);
    const char* text;
};

const Refusal refusals[] = {
    {"no name", [](NetworkService& s) { s.name = ""; }, "Invalid service name"},
    {"long name", [](NetworkService& s) { s.name = std::string(64, 'n'); }, "Invalid service name"},
    {"name that is no UTF-8", [](NetworkService& s) { s.name = "K\xF6ln"; },
     "Invalid service name"},
    {"name with a zero byte", [](NetworkService& s) { s.name = std::string("a\0b", 3); },
     "Invalid service name"},
    {"no protocol", [](NetworkService& s) { s.type.applicationProtocol = ""; },
     "Invalid service type"},
    {"protocol that is no UTF-8", [](NetworkService& s) { s.type.applicationProtocol = "\xFF"; },
     "Invalid service type"},
    {"unknown transport", [](NetworkService& s) { s.type.transport = static_cast<Transport>(2); },
     "Invalid service type"},
    {"domain that is no UTF-8", [](NetworkService& s) { s.domain = "\xFF"; },
     "Invalid domain name"},
    {"no domain", [](NetworkService& s) { s.domain = "a..b"; }, "Invalid domain name"},
    {"interface that cannot be", [](NetworkService& s) { s.interfaceIndex = -2; },
     "Invalid interface index"},
    {"record of 256 bytes", [](NetworkService& s) { s.txtRecords["k"] = std::string(254, 'x'); },
     "Invalid record"},
    {"no subtype", [](NetworkService& s) { s.subtypes = {""}; }, "Invalid service subtype"},
    {"subtype that is no UTF-8",
     [](NetworkService& s) {
         s.subtypes = {"good", "\xFF"};
     },
     "Invalid service subtype"},
};

TEST_F(AvahiPublisherTest, WhatTheDaemonRefusesIsAPublishFailure) {
    std::vector<Handle> handles;
    for (const auto& refusal : refusals) {
        SCOPED_TRACE(refusal.what);
        m_log.clear();
        auto service = serviceOf("refused", "refused");
        refusal.spoil(service);
        auto publication = publisher().publish(service);
        auto& outcome = publication.content();
        ASSERT_EQ(outcome.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_EQ(outcome.get().first, PublishFailure);
        EXPECT_EQ(publisher().status(publication), PublishFailure);
        EXPECT_THAT(m_log.textsOf("avahi_publisher.h::Hox::Service::Discovery::Avahi::"
                                  "AvahiServicePublisher"),
                    ElementsAre(std::string("Avahi: failed to add service: ") + refusal.text));
        EXPECT_EQ(m_log.textsAt(spdlog::level::err).size(), 1U);
        handles.push_back(std::move(publication));
    }
    EXPECT_EQ(foreignBrowser("_refused._tcp"), "");
}

TEST_F(AvahiPublisherTest, WithdrawsWithItsHandle) {
    Events seen;
    const auto browsing =
        m_client->resolver().browse(NetworkServiceType("leaving"), seen.callback(), -1);
    std::optional<Handle> handle =
        publisher().publish(serviceOf("leaving", "leaving"), m_events.callback());
    Handle moved = std::move(*handle);
    const Handle movedAgain = std::move(moved);
    handle.reset();
    ASSERT_TRUE(seen.waitFor(ServiceFound, "leaving"));
    ASSERT_TRUE(m_events.waitFor(Published));
    {
        const Handle last = publisher().publish(serviceOf("leaving", "other"), m_events.callback());
        ASSERT_TRUE(seen.waitFor(ServiceFound, "other"));
    }
    EXPECT_TRUE(seen.waitFor(ServiceRemoved, "other"));
    EXPECT_EQ(seen.count(ServiceRemoved, "leaving"), 0U);
}

TEST_F(AvahiPublisherTest, HandleThatIsDroppedEarlyBreaksThePromise) {
    std::future<std::pair<Status, NetworkService>> outcome;
    {
        auto publication = publisher().publish(serviceOf("early", "early"));
        outcome = std::move(publication.content());
    }
    EXPECT_THROW(outcome.get(), std::future_error);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiPublisherTest, HandleMayBeDroppedInsideItsCallback) {
    // Of each way that an outcome takes: the daemon's, and a refusal.
    for (const std::string name : {"inside", ""}) {
        Handle handle;
        std::promise<Handle*> ready;
        auto isReady = ready.get_future().share();
        std::promise<Status> told;
        handle = publisher().publish(serviceOf("inside", name),
                                     [&told, isReady](const Status& status, const NetworkService&) {
                                         *isReady.get() = Handle();
                                         told.set_value(status);
                                     });
        ready.set_value(&handle);
        EXPECT_EQ(told.get_future().get(), name.empty() ? PublishFailure : Published);
        EXPECT_FALSE(handle.isValid());
    }
    EXPECT_TRUE(waitUntil([] { return foreignBrowser("_inside._tcp").empty(); }));
}

TEST_F(AvahiPublisherTest, ManyThreadsPublishAndWithdraw) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int i = 0; i < 25; ++i) {
                const auto name = std::to_string(thread) + "-" + std::to_string(i);
                const auto handle =
                    publisher().publish(serviceOf("threads", name), m_events.callback());
                publisher().status(handle);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
    EXPECT_TRUE(waitUntil([] { return foreignBrowser("_threads._tcp").empty(); }));
}

TEST_F(AvahiPublisherTest, FiftyArePublishedBesideTwentySearches) {
    Events seen;
    std::vector<Handle> handles;
    for (int i = 0; i < 20; ++i) {
        handles.push_back(
            m_client->resolver().browse(NetworkServiceType("fifty"), seen.callback(), -1));
    }
    for (int i = 0; i < 50; ++i) {
        handles.push_back(
            publisher().publish(serviceOf("fifty", std::to_string(i)), m_events.callback()));
    }
    EXPECT_TRUE(m_events.waitFor(Published, "", 50));
    EXPECT_TRUE(seen.waitFor(ServiceFound, "", 20U * 50U));
    EXPECT_EQ(m_events.count(Published), 50U);
}

TEST_F(AvahiPublisherTest, PublishesNothingUnlessItsClientIsStarted) {
    auto& publisher = m_client->publisher();
    m_client->stop();
    const auto text =
        StartsWith("Service Discovery Error: service discovery client not connected(");
    EXPECT_THAT(errorOf([&] { publisher.publish(serviceOf("not", "not")); }), text);
    EXPECT_THAT(errorOf([&] { publisher.publish(serviceOf("not", "not"), m_events.callback()); }),
                text);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("error: service discovery client not connected",
                            "error: service discovery client not connected"));
}

TEST_F(AvahiPublisherTest, WantsACallbackWithATarget) {
    EXPECT_THAT(errorOf([&] { publisher().publish(serviceOf("not", "not"), nullptr); }),
                HasSubstr("callback has to contain a valid target.("));
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
