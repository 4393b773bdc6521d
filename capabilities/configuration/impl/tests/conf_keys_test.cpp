#include "conf_keys.h"

#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "state_id.h"

namespace Hox::Capability::Configuration {
namespace {

using ::testing::ElementsAre;

Api::ConfId confId(const std::string& type, const std::string& id, const std::string& capability) {
    Api::ConfId result;
    result.set_nodetype(type);
    result.set_nodeid(id);
    result.set_capabilityid(capability);
    return result;
}

TEST(ConfKeys, ComposeTheRootOfASlice) {
    EXPECT_EQ(capConfKey(confId("mb", "0", "tuner")), "/sys/conf/mb/0/tuner");
    EXPECT_EQ(uniqueConfId(confId("mb", "0", "tuner")), "mb/0/tuner");
}

TEST(ConfKeys, FindTheRootAgainByCountingSlashes) {
    EXPECT_EQ(sliceRootLength("/sys/conf/mb/0/tuner/a/b"),
              std::string("/sys/conf/mb/0/tuner").size());
    EXPECT_EQ(sliceRootLength("/sys/conf///x/y"), std::string("/sys/conf///x").size());
}

TEST(ConfKeysDeathTest, WantThreeSlashesBehindThePrefix) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* key : {"/sys/conf/mb/0/tuner", "/sys/conf/", "/sys", ""}) {
        EXPECT_DEATH(sliceRootLength(key), "Assertion failed: \\[iter != key.end\\(\\)\\]") << key;
    }
}

TEST(ConfKeys, SplitGivesLocalKeys) {
    Hox::ObserverTree::ObsTreeObserveChangeSet changeSet;
    for (const char* key :
         {"/sys/conf/mb/0/net/b", "/sys/conf/mb/0/net/a", "/sys/conf/mb/0/net/__csid"}) {
        (*changeSet.mutable_node_change_map())[key]
            .add_nodepairlist()
            ->mutable_currentmessage()
            ->set_value(key);
    }
    std::vector<std::string> keys;
    for (const auto& [key, changes] : splitCapConfKeys(std::move(changeSet))) {
        keys.push_back(key);
        EXPECT_EQ(changes.size(), 1U);
        EXPECT_EQ(changes.at(0).previous, nullptr);
        EXPECT_EQ(changes.at(0).current->toAny()->value(), "/sys/conf/mb/0/net" + key);
    }
    EXPECT_THAT(keys, ElementsAre("/__csid", "/a", "/b"));
    EXPECT_TRUE(splitCapConfKeys({}).empty());
}

TEST(ConfKeys, ThatNoServiceCouldWriteAreTold) {
    EXPECT_EQ(whyNotWritable("/sys/conf/mb/0/net/a"), "");
    EXPECT_EQ(whyNotWritable("/sys/conf/mb/0/net/data"),
              "Key has the reserved component data: /sys/conf/mb/0/net/data");
    for (const std::string key : {"/sys/conf/mb/0/net", "/sys/conf/mb", "/sys/conf/x"}) {
        EXPECT_EQ(whyNotWritable(key), "Key is in no slice: " + key);
    }
}

TEST(ConfKeys, OfAStateIdLieRightBelowTheirSlice) {
    EXPECT_TRUE(isStateIdKey("/sys/conf/mb/0/net/__csid"));
    for (const char* key :
         {"/sys/conf/mb/0/net/a/__csid", "/sys/conf/mb/0/net/__csid/a", "/sys/conf/mb/0/__csid",
          "/sys/conf/mb/0/net/x__csid", "/sys/conf/mb/0/net", "/__csid", "/x/y/mb/0/net/__csid"}) {
        EXPECT_FALSE(isStateIdKey(key)) << key;
    }
}

TEST(ConfKeys, AreLoadedFromBelowTheRootAlone) {
    EXPECT_TRUE(isLoaded("/sys/conf/a"));
    for (const char* key : {"/__csid", "/sys/conf", "/sys/configuration/a", "/sys/conf/a\nb"}) {
        EXPECT_FALSE(isLoaded(key)) << key;
    }
}

TEST(ConfKeys, WithLineEndsOrZerosAreToldInOneLine) {
    constexpr const char* start = "Key has a line end or a zero byte: ";
    EXPECT_EQ(whyNotStorable("/a/x\ny"), start + std::string("/a/x\\ny"));
    EXPECT_EQ(whyNotStorable("/a\r/b"), start + std::string("/a\\r/b"));
    EXPECT_EQ(whyNotStorable(std::string("/a\0b\n", 5)), start + std::string("/a\\0b\\n"));
    EXPECT_EQ(whyNotStorable("/a\t\\n/ \xc3\xa4"), "");
}

TEST(ConfKeys, HaveThreeThousandBytesAtMost) {
    const std::string longest = "/" + std::string(199, 'x');
    std::string key;
    for (int count = 0; count < 15; ++count) {
        key += longest;
    }
    EXPECT_EQ(whyNotStorable(key), "");
    EXPECT_EQ(whyNotStorable(key + "x"), "Key is longer than 3000 bytes: " + key + "x");
}

TEST(StateId, IsStoredInItsOddForm) {
    const auto value = stateIdToValue("17");
    EXPECT_EQ(value->get<google::protobuf::StringValue>().value(),
              R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":"17"})");
    EXPECT_TRUE(holdsStateId(*value, "17"));
    EXPECT_FALSE(holdsStateId(*value, "18"));
    EXPECT_TRUE(isStateId(*value));
}

TEST(StateId, IsStoredAsTheConversionToJsonWritesIt) {
    for (const std::string stateId : {"1763700000000000000", "0", "", "a \"b\"", "12 ", "<1>"}) {
        google::protobuf::StringValue text;
        text.set_value(stateId);
        google::protobuf::Any packed;
        packed.PackFrom(text);
        std::string json;
        ASSERT_TRUE(google::protobuf::util::MessageToJsonString(packed, &json).ok());
        const auto value = stateIdToValue(stateId);
        EXPECT_EQ(value->get<google::protobuf::StringValue>().value(), json);
        EXPECT_TRUE(holdsStateId(*value, stateId)) << stateId;
        EXPECT_FALSE(holdsStateId(*value, stateId + "1")) << stateId;
    }
}

TEST(StateId, IsReadFromAnyFormOfItsJson) {
    google::protobuf::StringValue text;
    text.set_value(
        R"({ "value": "17", "@type": "type.googleapis.com/google.protobuf.StringValue" })");
    EXPECT_TRUE(holdsStateId(Hox::ObserverTree::DataTreeVal(text), "17"));
    text.set_value(
        R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":"\u0031"})");
    EXPECT_TRUE(holdsStateId(Hox::ObserverTree::DataTreeVal(text), "1"));
}

TEST(StateId, ThatCannotBeReadMatchesNothing) {
    google::protobuf::StringValue text;
    for (const char* broken :
         {"", "17", "{",
          R"({"@type":"type.googleapis.com/google.protobuf.Int32Value","value":17})"}) {
        text.set_value(broken);
        EXPECT_FALSE(holdsStateId(Hox::ObserverTree::DataTreeVal(text), broken)) << broken;
        EXPECT_FALSE(holdsStateId(Hox::ObserverTree::DataTreeVal(text), "")) << broken;
        EXPECT_FALSE(isStateId(Hox::ObserverTree::DataTreeVal(text))) << broken;
    }
    google::protobuf::Any foreign;
    foreign.set_type_url("type.googleapis.com/No.Such");
    EXPECT_FALSE(holdsStateId(Hox::ObserverTree::DataTreeVal(foreign), ""));
    google::protobuf::Any undecodable;
    undecodable.set_type_url("type.googleapis.com/google.protobuf.StringValue");
    undecodable.set_value("\xff\xff");
    EXPECT_FALSE(holdsStateId(Hox::ObserverTree::DataTreeVal(undecodable), ""));
}

TEST(StateId, IsTheSystemClocksCount) {
    const auto id = newStateId();
    EXPECT_EQ(id.size(), 19U) << id;
    EXPECT_EQ(id.find_first_not_of("0123456789"), std::string::npos) << id;
    EXPECT_LE(id, newStateId());
}

}  // namespace
}  // namespace Hox::Capability::Configuration
