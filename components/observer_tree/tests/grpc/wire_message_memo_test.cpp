#include "grpc/wire_message_memo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hox/observer_tree/change_set_conversion.h"
#include "test_service.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

DataTreeValPtr value(int count) {
    Item item;
    item.set_count(count);
    return std::make_shared<const DataTreeVal>(item);
}

ChangeSetType changesOf(std::size_t keys, const DataTreeValPtr& current) {
    ChangeSetType changes;
    for (std::size_t index = 0; index < keys; ++index) {
        changes["/key/" + std::to_string(index)] = {{current, nullptr}};
    }
    return changes;
}

TEST(WireMessageMemo, BuildsChangesAndStatus) {
    WireMessageMemo memo;
    const ChangeSetType changes{{"/a", {{value(1), value(2)}}}};
    const auto message = memo.element(changes, Status(ProtoStatus::ABORTED, "stop")).message;
    EXPECT_EQ(message->observestatus().statuscode(), ProtoStatus::ABORTED);
    EXPECT_EQ(message->observestatus().errormessage(), "stop");
    const auto received = fromWire(*message);
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received.at("/a").at(0).current->get<Item>().count(), 1);
    EXPECT_EQ(received.at("/a").at(0).previous->get<Item>().count(), 2);
}

TEST(WireMessageMemo, StatusIsSetAlsoWhenAllIsWell) {
    WireMessageMemo memo;
    EXPECT_TRUE(memo.element(changesOf(1, value(1)), Status()).message->has_observestatus());
}

TEST(WireMessageMemo, SharesTheMessageOfEqualSelections) {
    WireMessageMemo memo;
    const auto current = value(1);
    const auto first = memo.element(changesOf(WireMessageMemo::maxKeys, current), Status()).message;
    EXPECT_EQ(memo.element(changesOf(WireMessageMemo::maxKeys, current), Status()).message, first);
    EXPECT_EQ(memo.element({}, Status(ProtoStatus::ABORTED, "a")).message,
              memo.element({}, Status(ProtoStatus::ABORTED, "a")).message);
}

TEST(WireMessageMemo, BuildsAnewWhatDiffers) {
    const auto current = value(1);
    const auto other = value(1);
    const ChangeSetType base{{"/a", {{current, nullptr}}}};
    const std::vector<ChangeSetType> different = {
        {{"/b", {{current, nullptr}}}},
        {{"/a", {{other, nullptr}}}},
        {{"/a", {{current, other}}}},
        {{"/a", {{nullptr, current}}}},
        {{"/a", {{current, nullptr}, {current, nullptr}}}},
        {{"/a", {{current, nullptr}}}, {"/b", {{current, nullptr}}}},
        {},
    };
    for (const auto& changes : different) {
        WireMessageMemo memo;
        const auto first = memo.element(base, Status()).message;
        EXPECT_NE(memo.element(changes, Status()).message, first);
    }
    WireMessageMemo memo;
    const auto first = memo.element(base, Status()).message;
    const auto aborted = memo.element(base, Status(ProtoStatus::ABORTED, "a")).message;
    EXPECT_NE(aborted, first);
    EXPECT_NE(memo.element(base, Status(ProtoStatus::ABORTED, "b")).message, aborted);
}

TEST(WireMessageMemo, KeepsNoLargeSelection) {
    WireMessageMemo memo;
    auto current = value(1);
    const auto large = changesOf(WireMessageMemo::maxKeys + 1, current);
    const auto small = memo.element({{"/a", {{current, nullptr}}}}, Status()).message;
    const auto first = memo.element(large, Status()).message;
    EXPECT_EQ(first->node_change_map_size(), static_cast<int>(WireMessageMemo::maxKeys) + 1);
    EXPECT_NE(memo.element(large, Status()).message, first);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(memo.element({{"/a", {{current, nullptr}}}}, Status()).message, small);
}

TEST(WireMessageMemo, ClearLetsGoOfTheValues) {
    WireMessageMemo memo;
    auto current = value(1);
    const std::weak_ptr<const DataTreeVal> watched = current;
    memo.element({{"/a", {{current, nullptr}}}}, Status());
    current.reset();
    EXPECT_FALSE(watched.expired());
    memo.clear();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(memo.element({}, Status()).message->node_change_map_size(), 0);
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
