#include "hox/state_monitoring/state_mon_obs_helper.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <google/protobuf/util/time_util.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <map>
#include <random>

#include "hox/observer_tree/double_registration_error.h"
#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/testing/proto_matchers.h"
#include "state_mon_fixture.h"
#include "state_monitoring_internals.pb.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Fixture::ObservedChange;
using Fixture::StateMon;
using Fixture::UnaryOps;
using Hox::ObserverTree::ProtoStatus;
using Hox::Testing::EqualsProto;
using Hox::Testing::protoFromText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr auto OK = Api::StateSeverity::OK;
constexpr auto WARN = Api::StateSeverity::WARN;
constexpr auto ERROR = Api::StateSeverity::ERROR;
constexpr auto BOOTING = Api::StateSeverity::BOOTING;

Api::StateNotification withMsg(Api::StateNotification notification, const std::string& msg) {
    notification.set_msg(msg);
    return notification;
}

std::string pathErrorOf(const std::string& key) {
    try {
        Hox::ObserverTree::PathManipulation().parsePath(Hox::ObserverTree::PathType::Key, key);
    } catch (const Hox::ObserverTree::PathError& error) {
        return error.what();
    }
    return "none";
}

TEST(StateMonObsHelperDeathTest, WantsAnArchive) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(StateMon(0), "m_archiveSize > 0");
    EXPECT_DEATH(StateMon(-1), "m_archiveSize > 0");
}

TEST(StateMonObsHelper, KeepsAReportUnderItsOriginAndItsIndex) {
    StateMon monitor;
    const auto result = monitor.create(notification("head-1", "Cap_Conf", "sys/conf/update"));
    EXPECT_TRUE(result.status.isOk());
    ASSERT_NE(result.message, nullptr);
    EXPECT_THAT(monitor.keys(), ElementsAre("/state/notifications/archive/0000000000",
                                            "/state/notifications/latest/head-1/Cap_Conf/"
                                            "sys/conf/update"));
}

TEST(StateMonObsHelper, KeepsAReportAsItWasSent) {
    StateMon monitor;
    const auto sent = protoFromText<Api::StateNotification>(
        "timeStamp { seconds: 7 nanos: 8 } severity: WARN service_id: 'head-1' type: 'T' "
        "source: 'a/b' msg: 'text' extendedInfo: 'more'");
    monitor.create(notification("x", "y", "z"));
    monitor.create(sent);
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 2);
    Api::StoredNotification expected;
    expected.set_index(1);
    *expected.mutable_statenotification() = sent;
    EXPECT_THAT(result.message->statelist(0), EqualsProto(expected));
}

TEST(StateMonObsHelper, SetsNoTimeStamp) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c"));
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 1);
    EXPECT_FALSE(result.message->statelist(0).statenotification().has_timestamp());
}

TEST(StateMonObsHelper, TellsTheFormerSeverityOfAnOrigin) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c", ERROR));
    monitor.create(notification("a", "b", "other", WARN));
    monitor.create(notification("a", "b", "c", OK));
    monitor.create(notification("a", "b", "c", OK));
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 4);
    EXPECT_FALSE(result.message->statelist(3).has_previousstateseverity());
    EXPECT_FALSE(result.message->statelist(2).has_previousstateseverity());
    EXPECT_EQ(result.message->statelist(1).previousstateseverity().stateseverity(), ERROR);
    ASSERT_TRUE(result.message->statelist(0).has_previousstateseverity());
    EXPECT_EQ(result.message->statelist(0).previousstateseverity().stateseverity(), OK);
}

TEST(StateMonObsHelper, TakesOriginsWithOneKeyForOneOrigin) {
    StateMon monitor;
    monitor.create(notification("a", "b/c", "d", ERROR));
    monitor.create(notification("a", "b", "c/d", WARN));
    const auto latest = monitor.latest();
    ASSERT_EQ(latest.message->statelist_size(), 1);
    EXPECT_EQ(latest.message->statelist(0).index(), 1);
    EXPECT_EQ(latest.message->statelist(0).statenotification().type(), "b");
    ASSERT_TRUE(latest.message->statelist(0).has_previousstateseverity());
    EXPECT_EQ(latest.message->statelist(0).previousstateseverity().stateseverity(), ERROR);
    EXPECT_EQ(monitor.currentState(), WARN);
    monitor.create(notification("a/b", "c", "d", OK));
    EXPECT_EQ(monitor.currentState(), OK);
}

TEST(StateMonObsHelper, TellsAFormerSeverityThatHasLeftTheArchive) {
    StateMon monitor(1);
    monitor.create(notification("a", "b", "x", ERROR));
    monitor.create(notification("a", "b", "other", OK));
    monitor.create(notification("a", "b", "x", OK));
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 1);
    ASSERT_TRUE(result.message->statelist(0).has_previousstateseverity());
    EXPECT_EQ(result.message->statelist(0).previousstateseverity().stateseverity(), ERROR);
    EXPECT_EQ(monitor.currentState(), OK);
}

TEST(StateMonObsHelper, TellsAFormerSeverityThatItDoesNotKnow) {
    StateMon monitor;
    const auto unknown = static_cast<Api::StateSeverity>(77);
    monitor.create(notification("a", "b", "c", unknown));
    monitor.create(notification("a", "b", "c", WARN));
    monitor.create(notification("a", "b", "c", unknown));
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 3);
    EXPECT_EQ(result.message->statelist(1).previousstateseverity().stateseverity(), unknown);
    EXPECT_EQ(result.message->statelist(0).previousstateseverity().stateseverity(), WARN);
    EXPECT_EQ(monitor.currentState(), OK);
}

TEST(StateMonObsHelper, DeliversOneReportInOneChangeSet) {
    StateMon monitor(2);
    const auto observed = monitor.observe("/state", "/state/**");
    EXPECT_THAT(*observed, IsEmpty());
    const std::string latest = "/state/notifications/latest/a/b/c";
    const std::string archive = "/state/notifications/archive/000000000";
    monitor.create(withMsg(notification("a", "b", "c"), "first"));
    monitor.create(withMsg(notification("a", "b", "c"), "second"));
    monitor.create(withMsg(notification("a", "b", "c"), "third"));
    ASSERT_EQ(observed->size(), 3U);
    EXPECT_THAT(observed->at(0), ElementsAre(ObservedChange{archive + "0", true, false, "first", 0},
                                             ObservedChange{latest, true, false, "first", 0}));
    EXPECT_THAT(observed->at(1),
                ElementsAre(ObservedChange{archive + "1", true, false, "second", 1},
                            ObservedChange{latest, true, true, "second", 1}));
    EXPECT_THAT(observed->at(2), ElementsAre(ObservedChange{archive + "0", false, true, "", -1},
                                             ObservedChange{archive + "2", true, false, "third", 2},
                                             ObservedChange{latest, true, true, "third", 2}));
}

TEST(StateMonObsHelper, SharesOneValueBetweenBothKeys) {
    StateMon monitor;
    std::vector<const Hox::ObserverTree::DataTreeVal*> values;
    Hox::ObserverTree::ObserveReq req;
    req.set_key_pattern("/**");
    monitor.create(notification("a", "b", "c"));
    const auto handle = monitor.tree().observe<Hox::ObserverTree::ObserveReq>(
        "/", req,
        [&values](const auto& changes, const auto&) {
            for (const auto& change : changes) {
                values.push_back(change.second.at(0).current.get());
            }
        },
        0);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values.at(0), values.at(1));
}

TEST(StateMonObsHelper, ShowsANewObserverWhatIsThere) {
    StateMon monitor;
    monitor.create(withMsg(notification("a", "b", "c"), "text"));
    const auto observed = monitor.observe("/state", "/state/notifications/archive/*");
    ASSERT_EQ(observed->size(), 1U);
    EXPECT_THAT(observed->at(0),
                ElementsAre(ObservedChange{"/state/notifications/archive/0000000000", true, false,
                                           "text", 0}));
}

TEST(StateMonObsHelper, KeepsTheLastThousandReports) {
    StateMon monitor;
    const auto observed = monitor.observe("/state", "/state/notifications/archive/*");
    for (int i = 0; i < 1000; ++i) {
        monitor.create(notification("a", "b", "c"));
    }
    EXPECT_EQ(monitor.indicesFrom(0).size(), 1000U);
    ASSERT_FALSE(observed->empty());
    EXPECT_EQ(observed->back().size(), 1U);
    monitor.create(notification("a", "b", "c"));
    const auto indices = monitor.indicesFrom(0);
    ASSERT_EQ(indices.size(), 1000U);
    EXPECT_EQ(indices.front(), 1000);
    EXPECT_EQ(indices.back(), 1);
    EXPECT_THAT(
        observed->back(),
        ElementsAre(
            ObservedChange{"/state/notifications/archive/0000000000", false, true, "", -1},
            ObservedChange{"/state/notifications/archive/0000001000", true, false, "", 1000}));
    monitor.create(notification("a", "b", "c"));
    const auto later = monitor.indicesFrom(0);
    ASSERT_EQ(later.size(), 1000U);
    EXPECT_EQ(later.back(), 2);
}

TEST(StateMonObsHelper, KeepsOneReportWithAnArchiveOfOne) {
    StateMon monitor(1);
    monitor.create(notification("a", "b", "c"));
    EXPECT_THAT(monitor.indicesFrom(0), ElementsAre(0));
    monitor.create(notification("a", "b", "c"));
    EXPECT_THAT(monitor.indicesFrom(0), ElementsAre(1));
}

struct BadOrigin {
    std::string serviceId;
    std::string type;
    std::string source;
};

class StateMonObsHelperBadOrigin : public testing::TestWithParam<BadOrigin> {};

TEST_P(StateMonObsHelperBadOrigin, IsRefusedAndChangesNothing) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c", WARN));
    const auto& [serviceId, type, source] = GetParam();
    const auto keysBefore = monitor.keys();
    const auto observed = monitor.observe("/", "/**");
    observed->clear();

    const auto result = monitor.create(notification(serviceId, type, source, ERROR));
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    const auto key = "/state/notifications/latest/" + serviceId + "/" + type + "/" + source;
    const auto expected = pathErrorOf(key);
    ASSERT_THAT(expected, StartsWith("PathError: "));
    EXPECT_EQ(result.status.errorMessage(), expected);

    EXPECT_EQ(monitor.keys(), keysBefore);
    EXPECT_THAT(*observed, IsEmpty());
    EXPECT_EQ(monitor.currentState(), WARN);
    monitor.create(notification("a", "b", "c"));
    EXPECT_THAT(monitor.indicesFrom(0), ElementsAre(1, 0));
}

INSTANTIATE_TEST_SUITE_P(Cases, StateMonObsHelperBadOrigin,
                         testing::Values(BadOrigin{"", "b", "c"}, BadOrigin{"a", "", "c"},
                                         BadOrigin{"a", "b", ""}, BadOrigin{"", "", ""},
                                         BadOrigin{"a", "b", "c/"}, BadOrigin{"a", "b", "/c"},
                                         BadOrigin{"a", "b", "c//d"}, BadOrigin{"a", "*", "c"},
                                         BadOrigin{"a*", "b", "c"}, BadOrigin{"a", "b", ".c."},
                                         BadOrigin{".", "b", "c"}));

struct LatestCase {
    std::string name;
    int32_t fromIndex;
    std::vector<int32_t> indices;
};

class StateMonObsHelperLatest : public testing::TestWithParam<LatestCase> {};

TEST_P(StateMonObsHelperLatest, AnswersWithTheWholeTableOrNothing) {
    StateMon monitor;
    monitor.create(notification("b", "x", "1"));
    monitor.create(notification("a", "x", "2"));
    monitor.create(notification("a", "x", "1/2"));
    monitor.create(notification("b", "x", "1"));
    Api::GetLatestStateNotificationsReq req;
    req.set_fromindex(GetParam().fromIndex);
    const auto result = monitor.latest(req);
    EXPECT_TRUE(result.status.isOk());
    EXPECT_EQ(result.message->lateststatenotificationindex(), 4);
    std::vector<int32_t> indices;
    for (const auto& stored : result.message->statelist()) {
        indices.push_back(stored.index());
    }
    EXPECT_EQ(indices, GetParam().indices);
}

INSTANTIATE_TEST_SUITE_P(Cases, StateMonObsHelperLatest,
                         testing::Values(LatestCase{"All", 0, {2, 1, 3}},
                                         LatestCase{"Negative", -1, {2, 1, 3}},
                                         LatestCase{"OneNewer", 3, {2, 1, 3}},
                                         LatestCase{"NothingNewer", 4, {}},
                                         LatestCase{"Ahead", 5, {}}),
                         [](const auto& test) { return test.param.name; });

TEST(StateMonObsHelper, HasNoLatestReportAtFirst) {
    StateMon monitor;
    const auto result = monitor.latest();
    EXPECT_TRUE(result.status.isOk());
    EXPECT_EQ(result.message->lateststatenotificationindex(), 0);
    EXPECT_EQ(result.message->statelist_size(), 0);
}

TEST(StateMonObsHelper, KeepsLatestReportsThatHaveLeftTheArchive) {
    StateMon monitor(1);
    monitor.create(notification("a", "b", "old"));
    monitor.create(notification("a", "b", "new"));
    const auto result = monitor.latest();
    ASSERT_EQ(result.message->statelist_size(), 2);
    EXPECT_EQ(result.message->statelist(0).statenotification().source(), "new");
    EXPECT_EQ(result.message->statelist(1).statenotification().source(), "old");
}

TEST(StateMonObsHelper, DoesNotSupportChangeSets) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c"));
    Api::GetLatestStateNotificationsReq req;
    req.set_changesetonly(true);
    const auto result = monitor.latest(req);
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::UNIMPLEMENTED);
    EXPECT_EQ(result.status.errorMessage(), "Changeset is not supported");
    ASSERT_NE(result.message, nullptr);
    EXPECT_THAT(*result.message, EqualsProto(Api::GetLatestStateNotificationsResp()));
}

struct SeverityCase {
    std::string name;
    std::string machine;  // as its service manager calls its state
    std::vector<Api::StateSeverity> severities;
    Api::StateSeverity expected;
};

class StateMonObsHelperSeverity : public testing::TestWithParam<SeverityCase> {};

TEST_P(StateMonObsHelperSeverity, FollowsThePrecedence) {
    StateMon monitor;
    monitor.machineIs(GetParam().machine);
    int origin = 0;
    for (const auto severity : GetParam().severities) {
        monitor.create(notification("a", "b", std::to_string(origin++), severity));
    }
    EXPECT_EQ(monitor.currentState(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StateMonObsHelperSeverity,
    testing::Values(SeverityCase{"Empty", "", {}, OK},
                    SeverityCase{"EmptyRunning", "running", {}, OK},
                    SeverityCase{"EmptyStarting", "starting", {}, BOOTING},
                    SeverityCase{"EmptyMaintenance", "maintenance", {}, OK},
                    SeverityCase{"EmptyDegraded", "degraded", {}, ERROR},
                    SeverityCase{"Ok", "", {OK}, OK}, SeverityCase{"Warn", "", {OK, WARN}, WARN},
                    SeverityCase{"WarnRunning", "running", {WARN}, WARN},
                    SeverityCase{"WarnStarting", "starting", {WARN}, BOOTING},
                    SeverityCase{"ErrorAndWarn", "", {WARN, ERROR, OK}, ERROR},
                    SeverityCase{"ErrorAndWarnStarting", "starting", {WARN, ERROR}, ERROR},
                    SeverityCase{"BootingReport", "", {BOOTING}, OK},
                    SeverityCase{"BootingReportAndWarn", "running", {BOOTING, WARN}, WARN},
                    SeverityCase{"UnknownSeverity", "", {static_cast<Api::StateSeverity>(9)}, OK}),
    [](const auto& test) { return test.param.name; });

TEST(StateMonObsHelper, ReturnsToOkWithTheOrigin) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c", ERROR));
    EXPECT_EQ(monitor.currentState(), ERROR);
    monitor.create(notification("a", "b", "c", ERROR));
    monitor.create(notification("a", "b", "c", OK));
    EXPECT_EQ(monitor.currentState(), OK);
}

TEST(StateMonObsHelper, CountsReportsThatHaveLeftTheArchive) {
    StateMon monitor(1);
    monitor.create(notification("a", "b", "bad", ERROR));
    monitor.create(notification("a", "b", "good", OK));
    EXPECT_EQ(monitor.currentState(), ERROR);
}

TEST(StateMonObsHelper, DerivesTheSeverityOfTheLatestTable) {
    StateMon monitor(20);
    std::mt19937 random(7);
    std::uniform_int_distribution<int> severityOf(0, 9);
    std::uniform_int_distribution<int> originOf(0, 11);
    std::map<int, Api::StateSeverity> table;
    for (int i = 0; i < 3000; ++i) {
        const auto drawn = severityOf(random);
        // Mostly OK, so that the result changes often.
        const auto severity = drawn < 4 ? static_cast<Api::StateSeverity>(drawn) : OK;
        const auto origin = originOf(random);
        monitor.create(notification("a", "b", std::to_string(origin), severity));
        table[origin] = severity;
        const bool isStarting = severityOf(random) < 3;
        monitor.machineIs(isStarting ? "starting" : "running");

        bool warn = false;
        bool error = false;
        for (const auto& entry : table) {
            warn = warn || entry.second == WARN;
            error = error || entry.second == ERROR;
        }
        const auto expected = error ? ERROR : isStarting ? BOOTING : warn ? WARN : OK;
        ASSERT_EQ(monitor.currentState(), expected) << "after report " << i;
    }
}

TEST(StateMonObsHelper, AnswersWithAnEmptyStatusAtFirst) {
    StateMon monitor;
    const auto result = monitor.tree()
                            .callApiOp<UnaryOps::READ, Api::GetStateMonitorStatusReq,
                                       Api::GetStateMonitorStatusResp>("/status", {});
    EXPECT_TRUE(result.status.isOk());
    EXPECT_TRUE(result.message->has_monitorstatus());
    EXPECT_EQ(result.message->monitorstatus().statemonitorconnectionstatus_size(), 0);
}

TEST(StateMonObsHelper, AnswersWithTheStatusThatWasSet) {
    StateMon monitor;
    const auto update = protoFromText<UpdateStateMonitorStatusReq>(
        "monitorStatus { stateMonitorConnectionStatus { connectStatus: CONNECTING "
        "connectionUrl: '10.0.0.1:5000' } }");
    const auto updated =
        monitor.tree()
            .callApiOp<UnaryOps::UPDATE, UpdateStateMonitorStatusReq, UpdateStateMonitorStatusResp>(
                "/status", update);
    EXPECT_TRUE(updated.status.isOk());
    EXPECT_NE(updated.message, nullptr);
    const auto result = monitor.tree()
                            .callApiOp<UnaryOps::READ, Api::GetStateMonitorStatusReq,
                                       Api::GetStateMonitorStatusResp>("/status", {});
    EXPECT_THAT(result.message->monitorstatus(), EqualsProto(update.monitorstatus()));
}

TEST(StateMonObsHelper, KeepsTheConfiguration) {
    StateMon monitor;
    const auto update = protoFromText<UpdateStateMonitorConfReq>(
        "stateMonitorConf { stateMonitorConnectUrls: ['10.0.0.1:5000', '10.0.0.1:5001'] }");
    std::vector<StateMonitorConf> observed;
    Hox::ObserverTree::ObserveReq req;
    req.set_key_pattern("/conf");
    const auto handle = monitor.tree().observe<Hox::ObserverTree::ObserveReq>(
        "/", req,
        [&observed](const auto& changes, const auto&) {
            observed.push_back(changes.at("/conf").at(0).current->template get<StateMonitorConf>());
        },
        0);
    const auto updated =
        monitor.tree()
            .callApiOp<UnaryOps::UPDATE, UpdateStateMonitorConfReq, UpdateStateMonitorConfResp>(
                "/conf", update);
    EXPECT_TRUE(updated.status.isOk());
    EXPECT_NE(updated.message, nullptr);
    ASSERT_EQ(observed.size(), 1U);
    EXPECT_THAT(observed.front(), EqualsProto(update.statemonitorconf()));
    EXPECT_THAT(monitor.keys(), ElementsAre("/conf"));
}

/// The stored reports, newest first, without their times.
std::vector<Api::StateNotification> storedReports(StateMon& monitor) {
    const auto result = monitor.get({});
    std::vector<Api::StateNotification> reports;
    for (const auto& stored : result.message->statelist()) {
        reports.push_back(stored.statenotification());
        reports.back().clear_timestamp();
    }
    return reports;
}

TEST(StateMonObsHelper, ReportsTheStateOfAllConnectionsWhenItChanges) {
    StateMon monitor;
    const auto set = [&](Api::StateSeverity severity) {
        monitor.helper().reportConnectState(severity, monitor.tree());
    };
    const auto report = [](Api::StateSeverity severity, const std::string& msg) {
        return EqualsProto(withMsg(
            notification("head-1", "Cap_StateMonitoring_StateMonConnects", "status", severity),
            msg));
    };
    const auto good = report(OK, "All external connections are successfully established");
    const auto bad = report(ERROR, "Error connection to one or more external state monitors");

    // Nothing is connected at the start: that is no news.
    set(ERROR);
    EXPECT_THAT(storedReports(monitor), IsEmpty());
    set(OK);
    set(OK);
    EXPECT_THAT(storedReports(monitor), ElementsAre(good));
    EXPECT_EQ(monitor.currentState(), OK);
    set(ERROR);
    set(ERROR);
    EXPECT_THAT(storedReports(monitor), ElementsAre(bad, good));
    EXPECT_EQ(monitor.currentState(), ERROR);
    set(OK);
    EXPECT_THAT(storedReports(monitor), ElementsAre(good, bad, good));
    EXPECT_EQ(monitor.currentState(), OK);
    EXPECT_EQ(monitor.latest().message->statelist_size(), 1);
}

TEST(StateMonObsHelper, ReportsTheStateOfAllConnectionsWithTheTime) {
    using google::protobuf::util::TimeUtil;
    StateMon monitor;
    const auto before = std::chrono::system_clock::now();
    monitor.helper().reportConnectState(OK, monitor.tree());
    const auto result = monitor.get({});
    ASSERT_EQ(result.message->statelist_size(), 1);
    const std::chrono::nanoseconds time(TimeUtil::TimestampToNanoseconds(
        result.message->statelist(0).statenotification().timestamp()));
    EXPECT_GE(time, before.time_since_epoch());
    EXPECT_LE(time, std::chrono::system_clock::now().time_since_epoch());
}

TEST(StateMonObsHelper, RegistersOncePerTree) {
    StateMon monitor;
    EXPECT_THROW(monitor.helper().registerObsTreeHandlers(monitor.tree()),
                 Hox::ObserverTree::DoubleRegistrationError);
}

TEST(StateMonObsHelper, DeliversToTheStateAddressBeforeTheRoot) {
    StateMon monitor;
    std::vector<std::string> order;
    Hox::ObserverTree::ObserveReq req;
    req.set_key_pattern("/**");
    const auto observe = [&](const std::string& address) {
        return monitor.tree().observe<Hox::ObserverTree::ObserveReq>(
            address, req, [&order, address](const auto&, const auto&) { order.push_back(address); },
            0);
    };
    const auto root = observe("/");
    const auto state = observe("/state");
    monitor.create(notification("a", "b", "c"));
    EXPECT_THAT(order, ElementsAre("/state", "/"));
}

TEST(StateMonObsHelper, LogsUnderItsName) {
    StateMon monitor;
    EXPECT_NE(spdlog::get("StateMonObsHelper"), nullptr);
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
