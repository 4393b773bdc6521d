#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "persistence/persistence_kit.h"

namespace Hox::ObserverTree {
namespace {

using google::protobuf::StringValue;
using Hox::Testing::AssertionReports;
using Hox::Testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using TestKit::Observations;
using TestKit::value;

/// Tests how the handler of a persistent tree treats requests from other code.
class PersistenceRequests : public TestKit::Persistence {
protected:
    PersistenceRequests() { handler(); }

    /// A request that sets each of the keys to the text, "gone" to remove it.
    static UpdateDataTreeReq setting(const std::map<std::string, std::string>& texts) {
        UpdateDataTreeReq request;
        for (const auto& [key, text] : texts) {
            auto& pair = (*request.mutable_node_change_map())[key];
            if (text != "gone") {
                pair.mutable_currentmessage()->PackFrom(TestKit::message(text));
            }
        }
        return request;
    }

    std::vector<std::string> readTexts(const std::string& regex) {
        const auto response = read(regex);
        std::map<std::string, std::string> sorted;
        for (const auto& [key, changes] : response.changeset().node_change_map()) {
            EXPECT_EQ(changes.nodepairlist_size(), 1) << key;
            EXPECT_FALSE(changes.nodepairlist(0).has_prevmessage()) << key;
            StringValue text;
            EXPECT_TRUE(changes.nodepairlist(0).currentmessage().UnpackTo(&text)) << key;
            sorted[key] = text.value();
        }
        std::vector<std::string> lines;
        for (const auto& [key, text] : sorted) {
            lines.push_back(key + "=" + text);
        }
        return lines;
    }
};

TEST_F(PersistenceRequests, MergeReplaceOrCompareChanges) {
    auto& persistence = *m_handler;
    Observations seen;
    persistence.applyChangeSet(TestKit::newKeys({"/keep/a", "/keep/b", "/foreign"}), true, false);
    EXPECT_THAT(content(), ElementsAre("/keep/a=/keep/a", "/keep/b=/keep/b"));
    const auto handle = observe("/keep/.*|/__csid", seen);
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b", "/keep/c"}), true, false);
    EXPECT_THAT(seen.take(), ElementsAre("/keep/b: /keep/b -> /keep/b, /keep/c: null -> /keep/c"));
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b", "/keep/d"}), false, true);
    EXPECT_THAT(seen.take(), ElementsAre("/keep/a: /keep/a -> null, /keep/c: /keep/c -> null, "
                                         "/keep/d: null -> /keep/d"));
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b"}), false, false);
    EXPECT_THAT(seen.take(), ElementsAre("/keep/b: /keep/b -> /keep/b, /keep/d: /keep/d -> null"));
}

TEST_F(PersistenceRequests, RemoveAKeyWithoutCurrentMessage) {
    m_handler->applyChangeSet(TestKit::newKeys({"/keep/a", "/keep/b"}), true, false);
    ChangeSetType removal;
    removal["/keep/a"] = {ChangeSetMapVal{nullptr, value("x")}};
    removal["/keep/never"] = {ChangeSetMapVal{nullptr, nullptr}};
    m_handler->applyChangeSet(removal, true, false);
    EXPECT_THAT(content(), ElementsAre("/keep/b=/keep/b"));
}

TEST_F(PersistenceRequests, WantAChangeForEachKey) {
    ChangeSetType changes;
    changes["/keep/a"] = {};
    EXPECT_THROW(m_handler->applyChangeSet(changes, true, false), std::out_of_range);
}

TEST_F(PersistenceRequests, CompareOnlyWithWhatTheyWouldRemove) {
    set("/keep/a", "1");
    set("/keep/b", "2");
    Observations seen;
    const auto handle = observe(".*", seen);
    auto request = setting({{"/keep/a", "1"}, {"/keep/b", "3"}});
    request.set_do_compare(true);
    update(request);
    EXPECT_THAT(seen.take(), ElementsAre("/keep/a: 1 -> 1, /keep/b: 2 -> 3"));
    request.set_node_remove_regex("/keep/a");
    update(request);
    EXPECT_THAT(seen.take(), ElementsAre("/keep/b: 3 -> 3"));
    request.set_node_remove_regex("/keep/.*");
    update(request);
    EXPECT_THAT(seen.take(), IsEmpty());
}

TEST_F(PersistenceRequests, RemoveWhatTheirOwnExpressionSelects) {
    for (const char* key : {"/keep/a", "/keep/b", "/other/a", "/x/other/a"}) {
        set(key, "1");
    }
    auto request = setting({{"/keep/b", "2"}, {"/other/new", "ignored"}});
    request.set_node_remove_regex("/other/.*|/keep/b");
    update(request);
    EXPECT_THAT(content(), ElementsAre("/keep/a=1", "/keep/b=2", "/x/other/a=1"));
}

TEST_F(PersistenceRequests, ReplaceAllAndRemoveAKeyThatTheyName) {
    for (const char* key : {"/keep/a", "/keep/ab", "/keep/b"}) {
        set(key, "1");
    }
    Observations seen;
    const auto handle = observe(".*", seen);
    auto request = setting({{"/keep/a", "gone"}, {"/keep/ab", "2"}, {"/keep/never", "gone"}});
    request.set_node_remove_regex("/keep/.*");
    update(request);
    EXPECT_THAT(seen.calls(),
                ElementsAre("/keep/a: 1 -> null, /keep/ab: 1 -> 2, /keep/b: 1 -> null"));
    EXPECT_THAT(content(), ElementsAre("/keep/ab=2"));
}

TEST_F(PersistenceRequests, RemoveTheLastKeyOfAllByNameWhereAllAreReplaced) {
    for (const char* key : {"/keep/a", "/keep/b"}) {
        set(key, "1");
    }
    auto request = setting({{"/keep/b", "gone"}});
    request.set_node_remove_regex("/keep/.*");
    update(request);
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(PersistenceRequests, AnswerTheStateId) {
    EXPECT_EQ(update({}).conf_state_id(), "");
    set("/__csid", "9");
    EXPECT_EQ(update({}).conf_state_id(), "9");
    EXPECT_EQ(update(setting({{"/__csid", "10"}})).conf_state_id(), "10");
    EXPECT_EQ(update(setting({{"/__csid", "gone"}})).conf_state_id(), "");
}

TEST_F(PersistenceRequests, AnswerNoStateIdWhereItCannotBeRead) {
    google::protobuf::Any undecodable;
    undecodable.set_type_url("type.googleapis.com/google.protobuf.StringValue");
    undecodable.set_value("\xff\xff");
    google::protobuf::Int32Value number;
    number.set_value(7);
    google::protobuf::Any packedNumber;
    packedNumber.PackFrom(number);
    for (const auto& unreadable : {std::make_shared<const DataTreeVal>(number),
                                   std::make_shared<const DataTreeVal>(packedNumber),
                                   std::make_shared<const DataTreeVal>(google::protobuf::Any()),
                                   std::make_shared<const DataTreeVal>(undecodable)}) {
        set("/__csid", unreadable);
        EXPECT_EQ(update({}).conf_state_id(), "") << unreadable->toAny()->DebugString();
    }
}

TEST_F(PersistenceRequests, ReadByAnExpressionThatAKeyMatchesAsAWhole) {
    for (const char* key : {"/keep/a", "/keep/ab", "/other"}) {
        set(key, std::string("at ") + key);
    }
    EXPECT_THAT(readTexts("/keep/a"), ElementsAre("/keep/a=at /keep/a"));
    EXPECT_THAT(readTexts("/keep/.*|/other"),
                ElementsAre("/keep/a=at /keep/a", "/keep/ab=at /keep/ab", "/other=at /other"));
    EXPECT_THAT(readTexts("/keep"), IsEmpty());
}

TEST_F(PersistenceRequests, ReadTheValuesOfAnyType) {
    google::protobuf::Any packed;
    packed.set_type_url("type.googleapis.com/No.Such");
    packed.set_value("anything");
    set("/keep/typed", std::make_shared<const DataTreeVal>(TestKit::number(7)));
    set("/keep/unknown", std::make_shared<const DataTreeVal>(packed));
    const auto changes = read(".*").changeset().node_change_map();
    google::protobuf::Int64Value number;
    ASSERT_TRUE(changes.at("/keep/typed").nodepairlist(0).currentmessage().UnpackTo(&number));
    EXPECT_EQ(number.value(), 7);
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(
        changes.at("/keep/unknown").nodepairlist(0).currentmessage(), packed));
}

TEST_F(PersistenceRequests, OfAMalformedExpressionAreReported) {
    const LogCapture log;
    const AssertionReports reports;
    EXPECT_THROW(read("("), std::regex_error);
    UpdateDataTreeReq request;
    request.set_node_remove_regex("(");
    EXPECT_THROW(update(request), std::regex_error);
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "false"));
    const auto errors = log.textsAt(spdlog::level::err);
    ASSERT_EQ(errors.size(), 4U);
    EXPECT_THAT(errors[0],
                StartsWith("Caught exception in Observer Tree CRUR Callback:\nOperation READ: "));
    EXPECT_EQ(errors[1], "msg: regex: \"(\"\n");
    EXPECT_THAT(errors[2],
                StartsWith("Caught exception in Observer Tree CRUR Callback:\nOperation UPDATE: "));
    EXPECT_EQ(errors[3], "msg: node_remove_regex: \"(\"\n");
}

using PersistenceRequestsDeathTest = PersistenceRequests;

TEST_F(PersistenceRequestsDeathTest, OfAMalformedExpressionEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(read("("), "Assertion failed: \\[false\\]");
    UpdateDataTreeReq request;
    request.set_node_remove_regex("(");
    EXPECT_DEATH(update(request), "Assertion failed: \\[false\\]");
}

TEST_F(PersistenceRequests, OfAnObserverWithAMalformedExpressionAreRefusedOnce) {
    Observations told;
    const auto handle = m_tree.observe<RegExObserveReq>(
        TestKit::persistObserveAddress, TestKit::expression("/keep/("), told.callback(), 0);
    set("/keep/a", "1");
    EXPECT_THAT(told.calls(),
                ElementsAre(StartsWith(" !INVALID_ARGUMENT Regular expression error, regex "
                                       "\"/keep/(\" not valid - ")));
}

TEST_F(PersistenceRequests, OfSeveralObserversAreServedEachByItself) {
    Observations all;
    Observations some;
    Observations malformed;
    Observations none;
    const std::vector<ObserveRaiiHandleType<RegExObserveReq>> handles = {
        observe(".*", all), observe("(", malformed), observe("/keep/b|/other", some),
        observe("/nothing", none)};
    write([](DataTree& tree) {
        for (const char* key : {"/keep/a", "/keep/b", "/other"}) {
            tree.insert_or_assign(key, value("1"));
        }
    });
    EXPECT_THAT(all.calls(),
                ElementsAre("/keep/a: null -> 1, /keep/b: null -> 1, /other: null -> 1"));
    EXPECT_THAT(some.calls(), ElementsAre("/keep/b: null -> 1, /other: null -> 1"));
    EXPECT_THAT(malformed.calls(), IsEmpty());
    EXPECT_THAT(none.calls(), IsEmpty());
}

}  // namespace
}  // namespace Hox::ObserverTree
