#include "avahi/future/avahi_future.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "avahi/future/avahi_future_service.h"
#include "avahi/future/avahi_future_services.h"
#include "avahi/request/avahi_callback.h"
#include "avahi/request/avahi_request.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

NetworkService named(const std::string& name, int interfaceIndex = 1) {
    NetworkService service;
    service.name = name;
    service.interfaceIndex = interfaceIndex;
    return service;
}

std::vector<std::string> names(const std::vector<NetworkService>& services) {
    std::vector<std::string> result;
    for (const auto& service : services) {
        result.push_back(service.name);
    }
    return result;
}

template <typename Future>
bool isReady(const Future& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

TEST(AvahiFutureService, TakesTheFirstOutcomeAndDropsTheSecond) {
    AvahiFutureService delivery;
    auto future = delivery.future();
    EXPECT_FALSE(isReady(future));
    delivery.deliver(Published, named("a"));
    delivery.deliver(Collision, named("b"));
    delivery.complete();
    const auto outcome = future.get();
    EXPECT_EQ(outcome.first, Published);
    EXPECT_EQ(outcome.second.name, "a");
}

TEST(AvahiFutureService, BreaksItsPromiseWithoutAnOutcome) {
    std::future<AvahiFutureService::Outcome> future;
    {
        AvahiFutureService delivery;
        future = delivery.future();
        const AvahiRequest<AvahiFutureService> request(std::move(delivery));
        EXPECT_FALSE(isReady(future));
    }
    EXPECT_THROW(future.get(), std::future_error);
}

TEST(AvahiFutureServices, CollectsUntilAllForNow) {
    AvahiFutureServices delivery;
    auto future = delivery.future();
    delivery.deliver(ServiceFound, named("a"));
    delivery.deliver(ServiceFound, named("b"));
    EXPECT_FALSE(isReady(future));
    delivery.complete();
    delivery.deliver(ServiceFound, named("late"));
    delivery.complete();
    const auto outcome = future.get();
    EXPECT_EQ(outcome.first, ServiceFound);
    EXPECT_THAT(names(outcome.second), ElementsAre("a", "b"));
}

TEST(AvahiFutureServices, IsEmptyOnAnEmptyNetwork) {
    AvahiFutureServices delivery;
    auto future = delivery.future();
    delivery.complete();
    EXPECT_THAT(future.get().second, IsEmpty());
}

TEST(AvahiFutureServices, TakesWhatHasGoneOffTheList) {
    AvahiFutureServices delivery;
    auto future = delivery.future();
    delivery.deliver(ServiceFound, named("a", 1));
    delivery.deliver(ServiceFound, named("a", 2));
    delivery.deliver(ServiceFound, named("b", 1));
    delivery.deliver(ServiceRemoved, named("a", 2));
    delivery.deliver(ServiceRemoved, named("never seen"));
    delivery.complete();
    const auto services = future.get().second;
    ASSERT_THAT(names(services), ElementsAre("a", "b"));
    EXPECT_EQ(services[0].interfaceIndex, 1);
}

TEST(AvahiFutureServices, EndsWithAFailure) {
    AvahiFutureServices delivery;
    auto future = delivery.future();
    delivery.deliver(ServiceFound, named("a"));
    delivery.deliver(BrowseFailure, NetworkService());
    delivery.complete();
    EXPECT_EQ(future.get().first, BrowseFailure);
}

TEST(AvahiCallback, IsCalledForEachEvent) {
    std::vector<std::pair<Status, std::string>> events;
    AvahiRequest<AvahiCallback<NetworkService>> request(
        AvahiCallback<NetworkService>([&](const Status& status, const NetworkService& service) {
            events.emplace_back(status, service.name);
        }));
    request.deliver(ServiceFound, named("a"));
    request.complete();
    request.deliver(ServiceRemoved, named("a"));
    EXPECT_THAT(events, ElementsAre(std::pair<Status, std::string>(ServiceFound, "a"),
                                    std::pair<Status, std::string>(ServiceRemoved, "a")));
}

TEST(AvahiCallback, WantsATarget) {
    try {
        const AvahiCallback<NetworkService> callback(nullptr);
        FAIL() << "nothing was thrown";
    } catch (const ServiceDiscoveryError& error) {
        EXPECT_THAT(error.what(), HasSubstr("callback has to contain a valid target.("));
    }
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
