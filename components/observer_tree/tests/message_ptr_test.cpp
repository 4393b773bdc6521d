#include "hox/observer_tree/message_ptr.h"

#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using TestKit::message;
using TestKit::StringValue;

const std::string longText(100, 'x');

TEST(MessagePtr, TakesAnOrdinaryMessageOver) {
    MessagePtr<StringValue> owned = std::make_unique<StringValue>(message(longText));
    EXPECT_EQ(owned->GetArena(), nullptr);
    const MessagePtr<google::protobuf::Message> base = std::move(owned);
    EXPECT_EQ(owned, nullptr);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(dynamic_cast<const StringValue&>(*base).value(), longText);
}

TEST(MessagePtr, GivesItsMessageAwayAsTheUsualPointer) {
    MessagePtr<StringValue> ordinary = std::make_unique<StringValue>(message(longText));
    const auto* const address = ordinary.get();
    const std::unique_ptr<StringValue> given = std::move(ordinary);
    EXPECT_EQ(given.get(), address);
    EXPECT_EQ(ordinary, nullptr);  // NOLINT(bugprone-use-after-move)

    MessagePtr<StringValue> inArena = makeArenaMessage<StringValue>();
    inArena->set_value(longText);
    MessagePtr<google::protobuf::Message> base = std::move(inArena);
    std::unique_ptr<google::protobuf::Message> copy;
    copy = std::move(base);
    EXPECT_EQ(base, nullptr);  // NOLINT(bugprone-use-after-move)
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetArena(), nullptr);
    EXPECT_EQ(dynamic_cast<const StringValue&>(*copy).value(), longText);
}

TEST(MessagePtr, MayBeEmpty) {
    const std::unique_ptr<StringValue> nothing = MessagePtr<StringValue>();
    EXPECT_EQ(nothing, nullptr);

    MessagePtr<StringValue> empty = nullptr;
    empty = std::unique_ptr<StringValue>();
    EXPECT_EQ(empty, nullptr);
}

TEST(MessagePtr, KeepsTheArenaOfAMessageWithTheMessage) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "no message lies in an arena under ThreadSanitizer";
#endif
    auto observeReply = makeArenaMessage<ObsTreeObserveChangeSet>();
    ASSERT_NE(observeReply->GetArena(), nullptr);
    for (int key = 0; key < 1000; ++key) {
        auto& pair = *(*observeReply->mutable_node_change_map())[std::to_string(key) + longText]
                          .add_nodepairlist();
        pair.mutable_currentmessage()->PackFrom(message(longText));
        EXPECT_EQ(pair.GetArena(), observeReply->GetArena());
    }
    const MessagePtr<google::protobuf::Message> base = std::move(observeReply);
    const std::shared_ptr<const google::protobuf::Message> shared = makeArenaMessage<StringValue>();
    EXPECT_NE(base->GetArena(), shared->GetArena());
}

}  // namespace
}  // namespace Hox::ObserverTree
