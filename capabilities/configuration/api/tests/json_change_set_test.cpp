#include "json_change_set.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>

#include <stdexcept>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/observer_tree/utils.h"
#include "sample_values.h"

namespace Hox::Capability::Configuration {
namespace {

using Fixture::seconds;
using Fixture::twoSeconds;
using google::protobuf::Any;
using google::protobuf::StringValue;
using Hox::CppUtil::InvalidArgumentError;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ObsTreeDataNodePair;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

DataTreeValPtr text(const std::string& value) {
    StringValue message;
    message.set_value(value);
    return std::make_shared<const DataTreeVal>(std::move(message));
}

ChangeSetType change(const std::string& key, DataTreeValPtr current, DataTreeValPtr previous) {
    ChangeSetType changes;
    addToChangeSet(changes, key, std::move(current), std::move(previous), 0);
    return changes;
}

std::string textOf(const Any& packed) {
    StringValue message;
    EXPECT_TRUE(packed.UnpackTo(&message));
    return message.value();
}

/// The only pair of the only key.
ObsTreeDataNodePair onlyPair(const ChangeSetType& changes, const std::string& key) {
    const auto wire = changeSetToJson(changes);
    EXPECT_EQ(wire.node_change_map_size(), 1);
    const auto& pairs = wire.node_change_map().at(key).nodepairlist();
    EXPECT_EQ(pairs.size(), 1);
    return pairs.at(0);
}

TEST(ChangeSetToJson, HasBothValuesAsText) {
    const auto pair = onlyPair(change("/a", seconds(2), seconds(1)), "/a");
    EXPECT_EQ(textOf(pair.currentmessage()),
              R"({"@type":"type.googleapis.com/google.protobuf.Duration","value":"2s"})");
    EXPECT_EQ(textOf(pair.prevmessage()),
              R"({"@type":"type.googleapis.com/google.protobuf.Duration","value":"1s"})");
}

TEST(ChangeSetToJson, HasNoCurrentValueForARemoval) {
    const auto pair = onlyPair(change("/a", nullptr, seconds(1)), "/a");
    EXPECT_FALSE(pair.has_currentmessage());
    EXPECT_TRUE(pair.has_prevmessage());
}

TEST(ChangeSetToJson, HasNoPreviousValueForANewKey) {
    const auto pair = onlyPair(change("/a", seconds(1), nullptr), "/a");
    EXPECT_TRUE(pair.has_currentmessage());
    EXPECT_FALSE(pair.has_prevmessage());
}

TEST(ChangeSetToJson, LeavesTheStateIdOut) {
    EXPECT_TRUE(changeSetToJson(change("/__csid", text("7"), nullptr)).node_change_map().empty());
    auto changes = change("/__csid", text("7"), nullptr);
    addToChangeSet(changes, "/a", seconds(1), nullptr, 0);
    EXPECT_EQ(changeSetToJson(changes).node_change_map_size(), 1);
}

TEST(ChangeSetToJson, RefusesAKeyWithoutAChange) {
    ChangeSetType changes;
    changes["/a"];
    EXPECT_THROW(changeSetToJson(changes), std::out_of_range);
}

TEST(ChangeSetToJson, KeepsWhatJsonCannotRepresent) {
    Any unknown;
    unknown.set_type_url("type.googleapis.com/nobody.Knows");
    unknown.set_value("\x08\x01");
    const auto sent = change("/a", std::make_shared<const DataTreeVal>(unknown), nullptr);
    const auto received = changeSetFromJson(change(
        "/a", std::make_shared<const DataTreeVal>(onlyPair(sent, "/a").currentmessage()), nullptr));
    EXPECT_EQ(received.at("/a").at(0).current->toAny()->SerializeAsString(),
              unknown.SerializeAsString());
}

TEST(ChangeSetFromJson, HasTheMessagesOfTheTexts) {
    const auto changes = changeSetFromJson(change("/a", text(twoSeconds), text(twoSeconds)));
    ASSERT_EQ(changes.size(), 1U);
    const auto& only = changes.at("/a").at(0);
    EXPECT_EQ(only.current->get<google::protobuf::Duration>().seconds(), 2);
    EXPECT_EQ(only.previous->get<google::protobuf::Duration>().seconds(), 2);
}

TEST(ChangeSetFromJson, HasNoValueWhereTheStoreHasNone) {
    const auto changes = changeSetFromJson(change("/a", nullptr, nullptr));
    EXPECT_EQ(changes.at("/a").at(0).current, nullptr);
    EXPECT_EQ(changes.at("/a").at(0).previous, nullptr);
}

TEST(ChangeSetFromJson, RefusesAValueThatIsNoText) {
    EXPECT_THAT([] { changeSetFromJson(change("/a", seconds(1), nullptr)); },
                ThrowsMessage<InvalidArgumentError>(HasSubstr("The value of /a is no text")));
}

TEST(ChangeSetFromJson, LeavesAPreviousValueOutThatItCannotRead) {
    for (const auto& previous : {seconds(1), text("{broken")}) {
        for (const auto& current : {text(twoSeconds), DataTreeValPtr()}) {
            const auto changes = changeSetFromJson(change("/a", current, previous));
            EXPECT_EQ(changes.at("/a").at(0).current != nullptr, current != nullptr);
            EXPECT_EQ(changes.at("/a").at(0).previous, nullptr);
        }
    }
}

TEST(ChangeSetFromJson, RefusesATextThatIsNoKnownMessage) {
    for (const char* broken :
         {"", "{", "7", "[]", R"({"@type":"type.googleapis.com/nobody.Knows"})"}) {
        EXPECT_THAT([&] { changeSetFromJson(change("/a", text(broken), nullptr)); },
                    ThrowsMessage<InvalidArgumentError>(
                        HasSubstr("The text of /a is not the JSON form of a known message")))
            << broken;
    }
}

TEST(ChangeSetFromJson, RefusesAKeyThatNoTreeTakes) {
    for (const char* key : {"", "a", "/a/", "//a", "/*"}) {
        EXPECT_THAT([&] { changeSetFromJson(change(key, text(twoSeconds), nullptr)); },
                    ThrowsMessage<InvalidArgumentError>(HasSubstr("No key: ")))
            << key;
    }
}

TEST(ChangeSetFromJson, RefusesAKeyThatNoFileCanHold) {
    EXPECT_THAT([] { changeSetFromJson(change("/a/data", text(twoSeconds), nullptr)); },
                ThrowsMessage<InvalidArgumentError>(HasSubstr("Key has the reserved component")));
}

TEST(ChangeSetFromJsonDeathTest, AssertsThatEachKeyHasAChange) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ChangeSetType changes;
    changes["/a"];
    EXPECT_DEATH(changeSetFromJson(changes), "changeSetEntry.second.size\\(\\)");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
