#include "hox/state_monitoring/state_monitor_cap_mngr.h"

#include <gmock/gmock.h>
#include <grpcpp/client_context.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cxxopts.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/testing/arguments.h"
#include "state_mon_fixture.h"
#include "state_monitor_service.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Hox::Service::LumServiceCtx;
using testing::ElementsAre;
using testing::HasSubstr;

using Service = Fixture::StateMonitorService;

TEST(StateMonitorCapMngr, HasItsPlaceInTheCatalogue) {
    EXPECT_EQ(StateMonitorCapMngr().id(), 14);
}

TEST(StateMonitorCapMngr, AddsItsOptions) {
    cxxopts::Options options("program");
    StateMonitorCapMngr().addOptions(options);
    std::vector<std::vector<std::string>> found;
    for (const auto& option : options.group_help("StateMonitoring").options) {
        found.push_back({option.s.empty() ? "" : "short", option.l.empty() ? "" : option.l.front(),
                         option.desc, option.is_boolean ? "bool" : "text"});
    }
    EXPECT_THAT(
        found,
        ElementsAre(
            ElementsAre(
                "", "sys_mon",
                "If this option is set the state monitor will also mDNS publish itself as a "
                "system monitor",
                "bool"),
            ElementsAre(
                "", "node_mon",
                "If this option is set the state monitor will also mDNS publish itself as a "
                "node monitor",
                "bool"),
            ElementsAre("", "statemon_services",
                        "Collection of services the system state monitor should subscribe to. The "
                        "format is <ip>:port1,port2,port3",
                        "text")));
}

TEST(StateMonitorCapMngr, DefaultsToNoServices) {
    LumServiceCtx ctx("program");
    StateMonitorCapMngr().addOptions(ctx.getOptions());
    Hox::Testing::Arguments line({});
    ctx.parseOptions(line.argc(), line.argv());
    EXPECT_EQ(ctx.optionCount("statemon_services"), 0U);
    EXPECT_EQ(ctx.optionValue("statemon_services"), "");
}

struct ConfCase {
    std::string name;
    std::vector<std::string> arguments;
    std::vector<std::string> urls;
};

class StateMonitorCapMngrConf : public testing::TestWithParam<ConfCase> {};

TEST_P(StateMonitorCapMngrConf, FollowsTheOptions) {
    Service service(GetParam().arguments);
    EXPECT_EQ(service.connectUrls(), GetParam().urls);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StateMonitorCapMngrConf,
    testing::Values(ConfCase{"NoOptions", {}, {}},
                    ConfCase{"SystemMonitorAlone", {"--sys_mon"}, {}},
                    ConfCase{"ServicesAlone", {"--statemon_services", "10.0.0.1:5000,5001"}, {}},
                    ConfCase{"Both",
                             {"--sys_mon", "--statemon_services", "10.0.0.1:5000,5001"},
                             {"10.0.0.1:5000", "10.0.0.1:5001"}},
                    // Only the presence of the option matters.
                    ConfCase{"BothWithAValue",
                             {"--sys_mon=false", "--statemon_services", "10.0.0.1:5000,5001"},
                             {"10.0.0.1:5000", "10.0.0.1:5001"}},
                    ConfCase{"OneService",
                             {"--sys_mon", "--statemon_services", "10.0.0.1:5000"},
                             {"10.0.0.1:5000"}}),
    [](const auto& test) { return test.param.name; });

TEST(StateMonitorCapMngr, ServesReportsOverGrpc) {
    Service service;
    EXPECT_EQ(service.currentState(), Api::StateSeverity::OK);
    EXPECT_TRUE(service.create(notification("head-1", "T", "a/b", Api::StateSeverity::WARN)).ok());
    EXPECT_TRUE(service.create(notification("head-1", "T", "c", Api::StateSeverity::ERROR)).ok());
    EXPECT_EQ(service.currentState(), Api::StateSeverity::ERROR);

    Api::GetStateNotificationsResp list;
    EXPECT_TRUE(service
                    .call(&Api::StateMonitoringService::Stub::getStateNotifications,
                          Api::GetStateNotificationsReq(), list)
                    .ok());
    ASSERT_EQ(list.statelist_size(), 2);
    EXPECT_EQ(list.statelist(0).index(), 1);

    Api::GetLatestStateNotificationsResp latest;
    EXPECT_TRUE(service
                    .call(&Api::StateMonitoringService::Stub::getLatestStateNotifications,
                          Api::GetLatestStateNotificationsReq(), latest)
                    .ok());
    EXPECT_EQ(latest.lateststatenotificationindex(), 2);
    EXPECT_EQ(latest.statelist_size(), 2);

    Api::GetStateMonitorStatusResp status;
    EXPECT_TRUE(service
                    .call(&Api::StateMonitoringService::Stub::getStatus,
                          Api::GetStateMonitorStatusReq(), status)
                    .ok());
    EXPECT_TRUE(status.has_monitorstatus());
}

TEST(StateMonitorCapMngr, AnswersUnderItsMutex) {
    Service service;
    {
        const std::lock_guard<std::mutex> lock(service.mutex());
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(200));
        Api::GetCurrentStateResp resp;
        EXPECT_EQ(service.stub().getCurrentState(&context, {}, &resp).error_code(),
                  grpc::StatusCode::DEADLINE_EXCEEDED);
    }
    EXPECT_EQ(service.currentState(), Api::StateSeverity::OK);
}

TEST(StateMonitorCapMngr, StreamsReportsOverGrpc) {
    Service service;
    EXPECT_TRUE(service.create(notification("head-1", "T", "a", Api::StateSeverity::WARN)).ok());
    Service::Stream stream(service, "/state/notifications/latest/**");
    const std::string key = "/state/notifications/latest/head-1/T/a";
    const auto snapshot = stream.read();
    ASSERT_EQ(snapshot.node_change_map().count(key), 1U);
    ASSERT_EQ(snapshot.node_change_map().at(key).nodepairlist_size(), 1);
    EXPECT_FALSE(snapshot.node_change_map().at(key).nodepairlist(0).has_prevmessage());

    EXPECT_TRUE(service.create(notification("head-1", "T", "a", Api::StateSeverity::OK)).ok());
    const auto change = stream.read();
    ASSERT_EQ(change.node_change_map().size(), 1U);
    ASSERT_EQ(change.node_change_map().count(key), 1U);
    ASSERT_EQ(change.node_change_map().at(key).nodepairlist_size(), 1);
    const auto& pair = change.node_change_map().at(key).nodepairlist(0);
    Api::StoredNotification current;
    Api::StoredNotification previous;
    ASSERT_TRUE(pair.currentmessage().UnpackTo(&current));
    ASSERT_TRUE(pair.prevmessage().UnpackTo(&previous));
    EXPECT_EQ(current.index(), 1);
    EXPECT_EQ(current.previousstateseverity().stateseverity(), Api::StateSeverity::WARN);
    EXPECT_EQ(previous.index(), 0);
}

TEST(StateMonitorCapMngr, AnswersFailuresOverGrpc) {
    Service service;
    const auto malformed = service.create(notification("", "T", "a"));
    EXPECT_EQ(malformed.error_code(), grpc::StatusCode::FAILED_PRECONDITION);
    EXPECT_THAT(malformed.error_message(), HasSubstr("PathError: Key must not contain //"));

    EXPECT_TRUE(service.create(notification("head-1", "T", "a")).ok());
    Api::GetStateNotificationsReq byFilter;
    byFilter.set_typeregex("(");
    Api::GetStateNotificationsResp list;
    EXPECT_EQ(
        service.call(&Api::StateMonitoringService::Stub::getStateNotifications, byFilter, list)
            .error_code(),
        grpc::StatusCode::FAILED_PRECONDITION);

    Api::GetLatestStateNotificationsReq changes;
    changes.set_changesetonly(true);
    Api::GetLatestStateNotificationsResp latest;
    const auto unimplemented = service.call(
        &Api::StateMonitoringService::Stub::getLatestStateNotifications, changes, latest);
    EXPECT_EQ(unimplemented.error_code(), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(unimplemented.error_message(), "Changeset is not supported");
}

TEST(StateMonitorCapMngrDeathTest, StartsOnlyWhatIsBuilt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LumServiceCtx ctx("program");
    StateMonitorCapMngr manager;
    EXPECT_DEATH(manager.serverStarted(ctx), "m_asyncGrpcServerHandler.get()");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
