#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <regex>

#include "hox/cpputil/timer/thread_cpu_time.h"
#include "hox/testing/proto_matchers.h"
#include "state_mon_fixture.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Fixture::StateMon;
using Fixture::timeStamp;
using Hox::ObserverTree::ProtoStatus;
using Hox::Testing::EqualsProto;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct IndexCase {
    std::string name;
    int32_t index;
    std::string typeRegEx;
    std::vector<int32_t> indices;
};

// Indices 0 to 9, of which an archive of eight keeps 2 to 9. Even ones are of type "Even", odd ones
// of type "Odd_x".
class SelectByIndex : public testing::TestWithParam<IndexCase> {
protected:
    SelectByIndex() {
        for (int i = 0; i < 10; ++i) {
            m_monitor.create(notification("a", i % 2 == 0 ? "Even" : "Odd_x", "c"));
        }
    }

    StateMon m_monitor{8};
};

TEST_P(SelectByIndex, AnswersNewestFirst) {
    EXPECT_EQ(m_monitor.indicesFrom(GetParam().index, GetParam().typeRegEx), GetParam().indices);
}

constexpr auto lowest = std::numeric_limits<int32_t>::min();
constexpr auto highest = std::numeric_limits<int32_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Cases, SelectByIndex,
    testing::Values(IndexCase{"Zero", 0, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"BelowTheOldest", 1, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"TheOldest", 2, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"Middle", 7, "", {9, 8, 7}}, IndexCase{"TheNewest", 9, "", {9}},
                    IndexCase{"AboveTheNewest", 10, "", {}}, IndexCase{"Highest", highest, "", {}},
                    IndexCase{"LastOne", -1, "", {9}}, IndexCase{"LastThree", -3, "", {9, 8, 7}},
                    IndexCase{"LastOfAll", -8, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"MoreThanThereAre", -9, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"Lowest", lowest, "", {9, 8, 7, 6, 5, 4, 3, 2}},
                    IndexCase{"Filtered", 4, "Even", {8, 6, 4}},
                    IndexCase{"FilteredPart", 0, "d_", {9, 7, 5, 3}},
                    IndexCase{"FilteredAnchored", 0, "^dd", {}},
                    IndexCase{"FilteredCase", 0, "even", {}},
                    IndexCase{"FilteredTwice", 0, "^(.)(.)\\2", {9, 7, 5, 3}},
                    IndexCase{"FilteredChoice", 7, "^(Even|Odd_[xy])$", {9, 8, 7}},
                    IndexCase{"LastTwoFiltered", -2, "Even", {8, 6}},
                    IndexCase{"LastFiveFiltered", -5, "Even", {8, 6, 4, 2}},
                    IndexCase{"LastFiltered", -1, "Even", {8}}),
    [](const auto& test) { return test.param.name; });

TEST(GetStateNotifications, TakesAnAbsentSelectionForIndexZero) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c"));
    monitor.create(notification("a", "b", "c"));
    EXPECT_THAT(monitor.indices({}), ElementsAre(1, 0));
}

TEST(GetStateNotifications, AnswersAnEmptyStoreWithAnEmptyList) {
    StateMon monitor;
    for (const auto index : {0, 1, -1, lowest, highest}) {
        EXPECT_THAT(monitor.indicesFrom(index), IsEmpty());
    }
    EXPECT_THAT(monitor.indicesSince(timeStamp(0)), IsEmpty());
    EXPECT_TRUE(monitor.get({}).status.isOk());
}

struct TimeCase {
    std::string name;
    google::protobuf::Timestamp from;
    std::string typeRegEx;
    std::vector<int32_t> indices;
};

class SelectByTime : public testing::TestWithParam<TimeCase> {
protected:
    SelectByTime() {
        create("A", timeStamp(10, 5));
        create("B", timeStamp(12, 0));
        create("A", timeStamp(10, 4));
        m_monitor.create(notification("a", "B", "c"));
        create("B", timeStamp(11, 999999999));
        create("A", timeStamp(-1, 0));
    }

    void create(const std::string& type, const google::protobuf::Timestamp& time) {
        auto created = notification("a", type, "c");
        *created.mutable_timestamp() = time;
        m_monitor.create(created);
    }

    StateMon m_monitor;
};

TEST_P(SelectByTime, AnswersInOrderOfArrival) {
    EXPECT_EQ(m_monitor.indicesSince(GetParam().from, GetParam().typeRegEx), GetParam().indices);
}

INSTANTIATE_TEST_SUITE_P(Cases, SelectByTime,
                         testing::Values(TimeCase{"Zero", timeStamp(0), "", {0, 1, 2, 3, 4}},
                                         TimeCase{
                                             "Negative", timeStamp(-2), "", {0, 1, 2, 3, 4, 5}},
                                         TimeCase{"OneNano", timeStamp(0, 1), "", {0, 1, 2, 4}},
                                         TimeCase{"Equal", timeStamp(10, 5), "", {0, 1, 4}},
                                         TimeCase{"Nanos", timeStamp(10, 6), "", {1, 4}},
                                         TimeCase{"Seconds", timeStamp(11, 0), "", {1, 4}},
                                         TimeCase{"Late", timeStamp(12, 0), "", {1}},
                                         TimeCase{"TooLate", timeStamp(12, 1), "", {}},
                                         TimeCase{"Filtered", timeStamp(0), "B", {1, 3, 4}}),
                         [](const auto& test) { return test.param.name; });

TEST(GetStateNotifications, SelectsByTimeWithoutALimit) {
    StateMon monitor;
    for (int i = 0; i < 1001; ++i) {
        monitor.create(notification("a", "b", "c"));
    }
    const auto indices = monitor.indicesSince(timeStamp(0));
    ASSERT_EQ(indices.size(), 1000U);
    EXPECT_EQ(indices.front(), 1);
    EXPECT_EQ(indices.back(), 1000);
}

Api::GetStateNotificationsReq byIndex(const std::string& typeRegEx) {
    Api::GetStateNotificationsReq req;
    req.set_typeregex(typeRegEx);
    return req;
}

Api::GetStateNotificationsReq byTime(const std::string& typeRegEx, int64_t seconds = 0) {
    auto req = byIndex(typeRegEx);
    *req.mutable_timestamp() = timeStamp(seconds);
    return req;
}

std::string regexErrorOf(const std::string& expression) {
    try {
        const std::regex regex(expression);
    } catch (const std::regex_error& error) {
        return error.what();
    }
    return "none";
}

TEST(GetStateNotifications, RefusesAMalformedFilter) {
    StateMon monitor;
    monitor.create(notification("a", "b", "c"));
    for (const std::string expression : {"(", "[", "*", "a{2", "\\"}) {
        for (const auto& req : {byIndex(expression), byTime(expression)}) {
            const auto result = monitor.get(req);
            EXPECT_EQ(result.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
            EXPECT_EQ(result.status.errorMessage(), regexErrorOf(expression));
        }
    }
}

TEST(GetStateNotifications, CompilesTheFilterWhenTheFirstEntryIsMet) {
    StateMon monitor;
    EXPECT_TRUE(monitor.get(byIndex("(")).status.isOk());
    EXPECT_TRUE(monitor.get(byTime("(")).status.isOk());
    auto created = notification("a", "b", "c");
    *created.mutable_timestamp() = timeStamp(5);
    monitor.create(created);
    EXPECT_TRUE(monitor.get(byTime("(", 6)).status.isOk());
    EXPECT_FALSE(monitor.get(byTime("(", 5)).status.isOk());
    auto above = byIndex("(");
    above.set_index(1);
    EXPECT_TRUE(monitor.get(above).status.isOk());
}

TEST(GetStateNotifications, AnswersAFailureWithoutEntries) {
    StateMon monitor;
    monitor.create(notification("a", std::string(4097, 'x'), "c"));
    monitor.create(notification("a", "x", "c"));
    const auto result = monitor.get(byIndex("x"));
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    ASSERT_NE(result.message, nullptr);
    EXPECT_THAT(*result.message, EqualsProto(Api::GetStateNotificationsResp()));
}

TEST(GetStateNotifications, LimitsTheFilterAndTheType) {
    StateMon monitor;
    monitor.create(notification("a", std::string(4096, 'x'), "c"));
    EXPECT_THAT(monitor.indicesFrom(0, std::string(1000, 'x')), ElementsAre(0));
    const auto tooLong = monitor.get(byIndex(std::string(1001, 'x')));
    EXPECT_EQ(tooLong.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_THAT(tooLong.status.errorMessage(),
                HasSubstr("Regular expression has 1001 bytes, only 1000 are allowed"));

    monitor.create(notification("a", std::string(4097, 'x'), "c"));
    const auto longType = monitor.get(byIndex("x"));
    EXPECT_EQ(longType.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_THAT(longType.status.errorMessage(),
                HasSubstr("Subject of a regular expression has 4097 bytes, only 4096 are allowed"));
    EXPECT_THAT(monitor.indicesFrom(0), ElementsAre(1, 0));
    EXPECT_THAT(monitor.indicesFrom(-1, ""), ElementsAre(1));
}

TEST(GetStateNotifications, RefusesAFilterThatTakesTooLongOnOneType) {
    StateMon monitor;
    monitor.create(notification("a", std::string(4000, 'x') + "y", "c"));
    const auto result = monitor.get(byIndex("(x+)+$"));
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_THAT(result.status.errorMessage(),
                HasSubstr("Regular expression needs too much time or memory: "));
}

// Takes a third of a millisecond with a type of 800 bytes; the time grows with the square of the
// size.
constexpr const char* slowFilter = "[wx]*[yz]";

TEST(GetStateNotifications, GivesUpAFilterThatTakesTooLong) {
    StateMon monitor;
    for (int i = 0; i < 1000; ++i) {
        monitor.create(notification("a", std::to_string(i) + std::string(800, 'x'), "c"));
    }
    const auto start = Hox::CppUtil::threadCpuTime();
    const auto result = monitor.get(byIndex(slowFilter));
    EXPECT_LT(Hox::CppUtil::threadCpuTime() - start, std::chrono::milliseconds(200));
    EXPECT_EQ(result.status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_THAT(result.status.errorMessage(),
                HasSubstr("Regular expression takes too long on the stored types"));
}

TEST(GetStateNotifications, JudgesEachTypeOnce) {
    StateMon monitor;
    for (int i = 0; i < 1000; ++i) {
        monitor.create(notification("a", std::string(800, 'x'), "c"));
    }
    EXPECT_TRUE(monitor.get(byIndex(slowFilter)).status.isOk());
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
