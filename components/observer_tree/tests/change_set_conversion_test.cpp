#include "hox/observer_tree/change_set_conversion.h"

#include <google/protobuf/util/message_differencer.h>

#include "hox/observer_tree/message_ptr.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using google::protobuf::util::MessageDifferencer;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::linesOf;
using TestKit::message;
using TestKit::StringValue;
using TestKit::value;

ObsTreeObserveChangeSet wireOf(const ChangeSetType& changes) {
    ObsTreeObserveChangeSet wire;
    toWire(changes, wire);
    return wire;
}

/// The message as another process gets it, directly from the parser.
ObsTreeObserveChangeSet sent(const ObsTreeObserveChangeSet& wire) {
    ObsTreeObserveChangeSet received;
    EXPECT_TRUE(received.ParseFromString(wire.SerializeAsString()));
    return received;
}

const ObsTreeDataNodePair& onlyPair(const ObsTreeObserveChangeSet& wire, const std::string& key) {
    EXPECT_EQ(wire.node_change_map().at(key).nodepairlist_size(), 1);
    return wire.node_change_map().at(key).nodepairlist(0);
}

TEST(ChangeSetToWire, PacksBothValues) {
    const auto wire = wireOf({{"/a", {{value("new"), value("old")}}}});
    ASSERT_EQ(wire.node_change_map().size(), 1U);
    const auto& pair = onlyPair(wire, "/a");
    StringValue current;
    StringValue previous;
    EXPECT_TRUE(pair.currentmessage().UnpackTo(&current));
    EXPECT_TRUE(pair.prevmessage().UnpackTo(&previous));
    EXPECT_EQ(current.value(), "new");
    EXPECT_EQ(previous.value(), "old");
    EXPECT_EQ(pair.modifiedindex(), 0U);
    EXPECT_EQ(pair.createdindex(), 0U);
}

TEST(ChangeSetToWire, LeavesOutWhatIsNull) {
    const auto wire = wireOf({{"/created", {{value("new"), nullptr}}},
                              {"/removed", {{nullptr, value("old")}}},
                              {"/neither", {{nullptr, nullptr}}}});
    EXPECT_TRUE(onlyPair(wire, "/created").has_currentmessage());
    EXPECT_FALSE(onlyPair(wire, "/created").has_prevmessage());
    EXPECT_FALSE(onlyPair(wire, "/removed").has_currentmessage());
    EXPECT_TRUE(onlyPair(wire, "/removed").has_prevmessage());
    EXPECT_EQ(onlyPair(wire, "/neither").SerializeAsString(), "");
}

TEST(ChangeSetToWire, KeepsTheOrderOfAKeysChanges) {
    const auto wire =
        wireOf({{"/a", {{value("1"), nullptr}, {value("2"), value("1")}, {nullptr, value("2")}}}});
    ASSERT_EQ(wire.node_change_map().at("/a").nodepairlist_size(), 3);
    EXPECT_THAT(linesOf(fromWire(sent(wire))),
                ElementsAre("/a: null -> 1", "/a: 1 -> 2", "/a: 2 -> null"));
}

TEST(ChangeSetToWire, KeepsAKeyWithoutChanges) {
    const auto wire = wireOf({{"/a", {}}});
    EXPECT_EQ(wire.node_change_map().at("/a").nodepairlist_size(), 0);
    const auto changes = fromWire(sent(wire));
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_THAT(changes.at("/a"), IsEmpty());
}

TEST(ChangeSetToWire, LeavesTheStatusAlone) {
    ObsTreeObserveChangeSet wire;
    toWire({{"/a", {{value("1"), nullptr}}}}, wire);
    EXPECT_FALSE(wire.has_observestatus());
    wire.mutable_observestatus()->set_statuscode(ProtoStatus::INTERNAL);
    toWire({{"/b", {{value("2"), nullptr}}}}, wire);
    EXPECT_EQ(wire.observestatus().statuscode(), ProtoStatus::INTERNAL);
    EXPECT_EQ(wire.node_change_map().size(), 2U);
}

TEST(ChangeSetFromWire, LeavesValuesPacked) {
    ObsTreeObserveChangeSet wire;
    auto& pair = *(*wire.mutable_node_change_map())["/a"].add_nodepairlist();
    pair.mutable_currentmessage()->set_type_url("elsewhere.example/No.Such.Message");
    pair.mutable_currentmessage()->set_value("\xff not decodable");
    pair.mutable_prevmessage()->PackFrom(message("old"));
    const auto changes = fromWire(sent(wire));
    const auto& change = changes.at("/a").front();
    EXPECT_TRUE(MessageDifferencer::Equals(*change.current->toAny(), pair.currentmessage()));
    EXPECT_EQ(change.previous->get<StringValue>().value(), "old");
    EXPECT_EQ(TestKit::thrownBy<CppUtil::BadCast>([&] { change.current->get<StringValue>(); },
                                                  "data_tree_val.cpp"),
              "Bad Cast Error: Expected google::protobuf::StringValue but found "
              "google::protobuf::Any");
}

TEST(ChangeSetFromWire, TakesAPresentButEmptyMessageForAValue) {
    ObsTreeObserveChangeSet wire;
    auto& pair = *(*wire.mutable_node_change_map())["/a"].add_nodepairlist();
    pair.mutable_currentmessage();
    const auto changes = fromWire(sent(wire));
    ASSERT_NE(changes.at("/a").front().current, nullptr);
    EXPECT_EQ(changes.at("/a").front().current->toAny()->SerializeAsString(), "");
    EXPECT_EQ(changes.at("/a").front().previous, nullptr);
}

TEST(ChangeSetFromWire, DoesNotReadTheCounters) {
    ObsTreeObserveChangeSet wire;
    auto& pair = *(*wire.mutable_node_change_map())["/a"].add_nodepairlist();
    pair.set_modifiedindex(7);
    pair.set_createdindex(8);
    const auto changes = fromWire(sent(wire));
    EXPECT_EQ(changes.at("/a").front().current, nullptr);
    EXPECT_EQ(changes.at("/a").front().previous, nullptr);
    EXPECT_EQ(onlyPair(wireOf(changes), "/a").SerializeAsString(), "");
}

TEST(ChangeSetFromWire, OrdersTheKeys) {
    ObsTreeObserveChangeSet wire;
    toWire(TestKit::newKeys({"/c", "/a0", "/a/b", "/a"}), wire);
    EXPECT_THAT(linesOf(fromWire(sent(wire))), ElementsAre("/a: null -> /a", "/a/b: null -> /a/b",
                                                           "/a0: null -> /a0", "/c: null -> /c"));
}

TEST(ChangeSetFromWire, HasNothingInAnElementThatTellsOfAnError) {
    ObsTreeObserveChangeSet wire;
    wire.mutable_observestatus()->set_statuscode(ProtoStatus::UNAVAILABLE);
    EXPECT_THAT(fromWire(sent(wire)), IsEmpty());
}

TEST(ChangeSetFromWire, ReadsAnAbsentStatusAsOk) {
    const auto received = sent(wireOf({}));
    EXPECT_FALSE(received.has_observestatus());
    EXPECT_EQ(received.observestatus().statuscode(), ProtoStatus::OK);
    EXPECT_EQ(received.observestatus().errormessage(), "");
}

ObsTreeObserveChangeSet mixedWire() {
    ObsTreeObserveChangeSet wire;
    toWire({{"/c", {{value(std::string(100, 'n')), nullptr}}},
            {"/a", {{value("2"), value(std::string(100, 'o'))}, {nullptr, value("3")}}},
            {"/b", {{nullptr, nullptr}}},
            {"/a/b", {}}},
           wire);
    wire.mutable_observestatus()->set_errormessage("kept");
    return wire;
}

TEST(ChangeSetFromWire, GivesTheSameOfAMessageThatIsGivenOver) {
    const auto received = sent(mixedWire());
    const auto expected = fromWire(received);
    EXPECT_EQ(linesOf(fromWire(sent(mixedWire()))), linesOf(expected));
    auto inArena = makeArenaMessage<ObsTreeObserveChangeSet>();
    *inArena = mixedWire();
    const auto left = fromWire(std::move(*inArena));
    inArena = nullptr;
    EXPECT_EQ(linesOf(left), linesOf(expected));
    ASSERT_EQ(expected.size(), 4U);
    EXPECT_EQ(expected.at("/a").size(), 2U);
}

TEST(ChangeSetFromWire, MovesTheValuesOutOfAMessageThatIsGivenOver) {
    auto wire = mixedWire();
    const auto* bytes = onlyPair(wire, "/c").currentmessage().value().data();
    const auto copied = fromWire(std::as_const(wire));
    EXPECT_NE(copied.at("/c").at(0).current->toAny()->value().data(), bytes);
    const auto taken = fromWire(std::move(wire));
    EXPECT_EQ(taken.at("/c").at(0).current->toAny()->value().data(), bytes);
    EXPECT_EQ(linesOf(taken), linesOf(copied));
    EXPECT_EQ(wire.observestatus().errormessage(), "kept");  // NOLINT(bugprone-use-after-move)
}

TEST(ChangeSetConversion, LosesNothingBothWays) {
    const ChangeSetType changes = {{"/created", {{value("new"), nullptr}}},
                                   {"/removed", {{nullptr, value("old")}}},
                                   {"/changed", {{value("2"), value("1")}}},
                                   {"/neither", {{nullptr, nullptr}}}};
    const auto back = fromWire(sent(wireOf(changes)));
    EXPECT_EQ(linesOf(back), linesOf(changes));
    EXPECT_TRUE(MessageDifferencer::Equals(wireOf(back), wireOf(changes)));
}

}  // namespace
}  // namespace Hox::ObserverTree
