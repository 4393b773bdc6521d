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

TEST(MessagePtr, MayBeEmpty) {
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
