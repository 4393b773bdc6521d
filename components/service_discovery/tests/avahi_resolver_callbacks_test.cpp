#include <avahi-common/address.h>
#include <avahi-common/strlst.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "avahi_resolver.h"
#include "fake_request.h"
#include "hox/testing/log_capture.h"

// The road from Avahi's callbacks to the user, without a daemon.

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr auto noFlags = AvahiLookupResultFlags(0);

/// In the order of the records.
using TxtList = std::unique_ptr<AvahiStringList, void (*)(AvahiStringList*)>;

TxtList txtList(const std::vector<std::string>& records) {
    AvahiStringList* list = nullptr;
    for (const auto& record : records) {
        list = avahi_string_list_add_arbitrary(
            list, reinterpret_cast<const std::uint8_t*>(record.data()), record.size());
    }
    return {avahi_string_list_reverse(list), avahi_string_list_free};
}

class AvahiResolverCallbacks : public ::testing::Test {
protected:
    AvahiResolverCallbacks()
        : m_userdata(m_request->bind(
              std::make_shared<RequestContext>(RequestContext{NetworkService(), m_request}))) {}

    void browse(AvahiBrowserEvent event, AvahiIfIndex interface = 2) {
        browse(event, interface, m_userdata);
    }

    static void browse(AvahiBrowserEvent event, AvahiIfIndex interface, void* userdata) {
        AvahiServiceResolver::avahiBrowseCallback(nullptr, interface, AVAHI_PROTO_INET, event,
                                                  "name", "_capability._tcp", "local", noFlags,
                                                  userdata);
    }

    void found(AvahiProtocol protocol, const std::vector<std::string>& records,
               AvahiIfIndex interface = 2) {
        AvahiAddress address;
        avahi_address_parse("10.0.0.7", AVAHI_PROTO_INET, &address);
        AvahiServiceResolver::avahiResolveCallback(
            nullptr, interface, protocol, AVAHI_RESOLVER_FOUND, "name", "_capability._tcp", "local",
            "host.local", &address, 5005, txtList(records).get(), noFlags, m_userdata);
    }

    static void resolveFails(AvahiIfIndex interface, void* userdata) {
        AvahiServiceResolver::avahiResolveCallback(
            nullptr, interface, AVAHI_PROTO_UNSPEC, AVAHI_RESOLVER_FAILURE, nullptr, nullptr,
            nullptr, nullptr, nullptr, 0, nullptr, noFlags, userdata);
    }

    std::vector<Status> statuses() const {
        std::vector<Status> result;
        for (const auto& [status, service] : m_request->delivered) {
            result.push_back(status);
        }
        return result;
    }

    /// The records of the one service that has been delivered.
    std::map<std::string, std::string> records() const {
        EXPECT_THAT(statuses(), ElementsAre(ServiceResolved));
        return m_request->delivered.empty() ? std::map<std::string, std::string>()
                                            : m_request->delivered.front().second.txtRecords;
    }

    std::vector<std::string> errors() const { return m_log.textsAt(spdlog::level::err); }

    Hox::Testing::LogCapture m_log;
    std::shared_ptr<FakeRequest> m_request = std::make_shared<FakeRequest>();
    void* m_userdata;
};

TEST_F(AvahiResolverCallbacks, BrowsingDeliversWhatComesAndGoes) {
    browse(AVAHI_BROWSER_NEW);
    browse(AVAHI_BROWSER_REMOVE);
    ASSERT_THAT(statuses(), ElementsAre(ServiceFound, ServiceRemoved));
    for (const auto& [status, service] : m_request->delivered) {
        EXPECT_EQ(service.name, "name");
        EXPECT_EQ(service.domain, "local");
        EXPECT_EQ(service.type.applicationProtocol, "capability");
        EXPECT_EQ(service.type.transport, TCP);
        EXPECT_EQ(service.interfaceIndex, 2);
        EXPECT_EQ(service.protocol, -1);
        EXPECT_EQ(service.port, 0);
        EXPECT_EQ(service.hostName, "");
        EXPECT_EQ(service.address, "");
    }
}

TEST_F(AvahiResolverCallbacks, BrowsingCompletesAList) {
    browse(AVAHI_BROWSER_CACHE_EXHAUSTED);
    EXPECT_EQ(m_request->completed, 0);
    browse(AVAHI_BROWSER_ALL_FOR_NOW);
    EXPECT_EQ(m_request->completed, 1);
    EXPECT_THAT(statuses(), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(AvahiResolverCallbacks, BrowsingDeliversAFailureWithoutAService) {
    browse(AVAHI_BROWSER_FAILURE);
    ASSERT_THAT(statuses(), ElementsAre(BrowseFailure));
    EXPECT_EQ(m_request->delivered.front().second.name, "");
}

TEST_F(AvahiResolverCallbacks, BrowsingRefusesAnInterfaceThatCannotBe) {
    browse(AVAHI_BROWSER_NEW, -2);
    EXPECT_THAT(statuses(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("avahiBrowseCallback: invalid interface index invalid"));
}

TEST_F(AvahiResolverCallbacks, BrowsingTellsWhereTheRequestIsGone) {
    std::weak_ptr<RequestContext> gone;
    for (auto* userdata : {static_cast<void*>(nullptr), static_cast<void*>(&gone)}) {
        for (const auto event : {AVAHI_BROWSER_NEW, AVAHI_BROWSER_REMOVE, AVAHI_BROWSER_FAILURE}) {
            m_log.clear();
            browse(event, 2, userdata);
            EXPECT_THAT(errors(), ElementsAre("context object not valid"));
        }
        m_log.clear();
        browse(AVAHI_BROWSER_ALL_FOR_NOW, 2, userdata);
        EXPECT_THAT(m_log.texts(), IsEmpty());
    }
}

TEST_F(AvahiResolverCallbacks, ResolvingDeliversAllThatWasFound) {
    found(AVAHI_PROTO_INET, {"a=1", "b=2"});
    ASSERT_THAT(statuses(), ElementsAre(ServiceResolved));
    const auto& service = m_request->delivered.front().second;
    EXPECT_EQ(service.name, "name");
    EXPECT_EQ(service.hostName, "host.local");
    EXPECT_EQ(service.domain, "local");
    EXPECT_EQ(service.type.text(), "_capability._tcp");
    EXPECT_EQ(service.protocol, 0);
    EXPECT_EQ(service.interfaceIndex, 2);
    EXPECT_EQ(service.port, 5005);
    EXPECT_EQ(service.address, "10.0.0.7");
    EXPECT_THAT(service.txtRecords, UnorderedElementsAre(Pair("a", "1"), Pair("b", "2")));
    EXPECT_THAT(service.subtypes, IsEmpty());
}

TEST_F(AvahiResolverCallbacks, ResolvingMapsTheProtocol) {
    const std::pair<int, int> rows[] = {{-1, -1}, {0, 0}, {1, 1}, {2, 0}, {-2, 0}};
    for (const auto& [reported, delivered] : rows) {
        m_request->delivered.clear();
        found(reported, {});
        ASSERT_THAT(statuses(), ElementsAre(ServiceResolved));
        EXPECT_EQ(m_request->delivered.front().second.protocol, delivered) << reported;
    }
}

TEST_F(AvahiResolverCallbacks, ResolvingSplitsRecordsAtTheFirstEqualsSign) {
    found(AVAHI_PROTO_INET, {"a=b=c", "empty=", "bytes=\xFF\x80", std::string("zero=\0x", 7)});
    EXPECT_THAT(records(),
                UnorderedElementsAre(Pair("a", "b=c"), Pair("empty", ""), Pair("bytes", "\xFF\x80"),
                                     Pair("zero", std::string("\0x", 2))));
}

TEST_F(AvahiResolverCallbacks, ResolvingTakesARecordWithoutEqualsSignForAnEmptyOne) {
    found(AVAHI_PROTO_INET, {"flag", "other flag", "a=1"});
    EXPECT_THAT(records(), UnorderedElementsAre(Pair("", ""), Pair("a", "1")));
}

TEST_F(AvahiResolverCallbacks, ResolvingTakesTheFirstOfSeveralRecordsWithOneKey) {
    found(AVAHI_PROTO_INET, {"a=1", "a=2", "=x", "flag"});
    EXPECT_THAT(records(), UnorderedElementsAre(Pair("a", "1"), Pair("", "x")));
}

TEST_F(AvahiResolverCallbacks, ResolvingDeliversAFailureWithoutAService) {
    resolveFails(AVAHI_IF_UNSPEC, m_userdata);
    ASSERT_THAT(statuses(), ElementsAre(ResolveFailure));
    EXPECT_EQ(m_request->delivered.front().second.name, "");
    EXPECT_EQ(m_request->delivered.front().second.interfaceIndex, -1);
}

TEST_F(AvahiResolverCallbacks, ResolvingIgnoresAnInterfaceThatCannotBe) {
    found(AVAHI_PROTO_INET, {}, -2);
    resolveFails(-2, m_userdata);
    resolveFails(-2, nullptr);
    EXPECT_THAT(statuses(), IsEmpty());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(AvahiResolverCallbacks, ResolvingTellsWhereTheRequestIsGone) {
    std::weak_ptr<RequestContext> gone;
    resolveFails(AVAHI_IF_UNSPEC, nullptr);
    resolveFails(AVAHI_IF_UNSPEC, &gone);
    EXPECT_THAT(errors(), ElementsAre("AvahiServiceResolver: request context not valid",
                                      "AvahiServiceResolver: request context not valid"));
}

TEST_F(AvahiResolverCallbacks, EventsForARequestThatIsGoneAreTold) {
    AvahiServiceResolver::handleCallbackEvent(nullptr, ServiceFound, NetworkService());
    std::weak_ptr<RequestContext> gone;
    AvahiServiceResolver::handleCallbackEvent(&gone, ServiceFound, NetworkService());
    EXPECT_THAT(
        m_log.textsOf("avahi_resolver.h::Hox::Service::Discovery::Avahi::AvahiServiceResolver"),
        ElementsAre("context object not valid", "context object not valid"));
}

/// The entries of the searches that are not implemented.
struct Entry {
    std::string function;
    std::string object;
    std::function<void(AvahiIfIndex, int event, void* userdata)> call;
    bool resolves;
};

std::vector<Entry> furtherEntries() {
    const auto address = [] {
        AvahiAddress result;
        avahi_address_parse("10.0.0.7", AVAHI_PROTO_INET, &result);
        return result;
    };
    return {
        {"avahiDomainBrowseCallback", "AvahiDomainBrowser",
         [](AvahiIfIndex interface, int event, void* userdata) {
             AvahiServiceResolver::avahiDomainBrowseCallback(nullptr, interface, AVAHI_PROTO_INET,
                                                             AvahiBrowserEvent(event), "local",
                                                             noFlags, userdata);
         },
         false},
        {"avahiRecordBrowseCallback", "AvahiRecordBrowser",
         [](AvahiIfIndex interface, int event, void* userdata) {
             AvahiServiceResolver::avahiRecordBrowseCallback(nullptr, interface, AVAHI_PROTO_INET,
                                                             AvahiBrowserEvent(event), "name", 1,
                                                             16, "x", 1, noFlags, userdata);
         },
         false},
        {"avahiAddressBrowseCallback", "AvahiAddressBrowser",
         [=](AvahiIfIndex interface, int event, void* userdata) {
             const auto found = address();
             AvahiServiceResolver::avahiAddressBrowseCallback(nullptr, interface, AVAHI_PROTO_INET,
                                                              AvahiResolverEvent(event), &found,
                                                              "host.local", noFlags, userdata);
         },
         true},
        {"avahiHostnameBrowseCallback", "AvahiHostNameBrowser",
         [=](AvahiIfIndex interface, int event, void* userdata) {
             const auto found = address();
             AvahiServiceResolver::avahiHostnameBrowseCallback(
                 nullptr, interface, AVAHI_PROTO_INET, AvahiResolverEvent(event), "host.local",
                 &found, noFlags, userdata);
         },
         true},
    };
}

TEST_F(AvahiResolverCallbacks, FurtherSearchesShareTheChecks) {
    for (const auto& entry : furtherEntries()) {
        SCOPED_TRACE(entry.function);
        m_log.clear();
        entry.call(-2, 0, m_userdata);
        EXPECT_THAT(errors(), ElementsAre(entry.function + ": invalid interface index invalid"));
        m_log.clear();
        std::weak_ptr<RequestContext> gone;
        entry.call(2, 0, nullptr);
        entry.call(2, 0, &gone);
        EXPECT_THAT(errors(), ElementsAre(entry.object + ": request context not valid",
                                          entry.object + ": request context not valid"));
        EXPECT_THAT(statuses(), IsEmpty());
    }
}

TEST_F(AvahiResolverCallbacks, FurtherSearchesDeliverTheirEvents) {
    for (const auto& entry : furtherEntries()) {
        SCOPED_TRACE(entry.function);
        m_request->delivered.clear();
        if (entry.resolves) {
            entry.call(2, AVAHI_RESOLVER_FOUND, m_userdata);
            entry.call(2, AVAHI_RESOLVER_FAILURE, m_userdata);
            ASSERT_THAT(statuses(), ElementsAre(ServiceResolved, ResolveFailure));
            EXPECT_EQ(m_request->delivered.front().second.hostName, "host.local");
            EXPECT_EQ(m_request->delivered.front().second.address, "10.0.0.7");
        } else {
            entry.call(2, AVAHI_BROWSER_NEW, m_userdata);
            entry.call(2, AVAHI_BROWSER_REMOVE, m_userdata);
            entry.call(2, AVAHI_BROWSER_FAILURE, m_userdata);
            ASSERT_THAT(statuses(), ElementsAre(ServiceFound, ServiceRemoved, BrowseFailure));
            const auto& service = m_request->delivered.front().second;
            EXPECT_EQ(service.name + service.domain,
                      entry.object == "AvahiDomainBrowser" ? "local" : "name");
        }
        EXPECT_EQ(m_request->delivered.front().second.interfaceIndex, 2);
    }
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
