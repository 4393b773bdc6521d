#include "hox/observer_tree/data_tree_val.h"

#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using TestKit::Int64Value;
using TestKit::message;
using TestKit::StringValue;
using TestKit::thrownBy;

google::protobuf::Any packed(const google::protobuf::Message& content) {
    google::protobuf::Any any;
    any.PackFrom(content);
    return any;
}

TEST(DataTreeVal, KeepsACopyOfATypedMessage) {
    auto original = message("first");
    const DataTreeVal value(original);
    original.set_value("second");
    EXPECT_EQ(value.get<StringValue>().value(), "first");
    EXPECT_EQ(&value.get<StringValue>(), &value.get<StringValue>());
}

TEST(DataTreeVal, TakesConstAndTemporaryMessages) {
    const auto constant = message("constant");
    EXPECT_EQ(DataTreeVal(constant).get<StringValue>().value(), "constant");
    EXPECT_EQ(DataTreeVal(std::move(constant)).get<StringValue>().value(), "constant");
    EXPECT_EQ(DataTreeVal(message("temporary")).get<StringValue>().value(), "temporary");
}

TEST(DataTreeVal, PacksATypedMessageOnce) {
    const DataTreeVal value(message("text"));
    const auto* any = value.toAny();
    ASSERT_NE(any, nullptr);
    EXPECT_EQ(any->type_url(), "type.googleapis.com/google.protobuf.StringValue");
    EXPECT_EQ(any->value(), message("text").SerializeAsString());
    EXPECT_EQ(value.toAny(), any);
    EXPECT_EQ(value.get<StringValue>().value(), "text");
}

TEST(DataTreeVal, KeepsAPackedMessageAsItStands) {
    google::protobuf::Any unknown;
    unknown.set_type_url("elsewhere.example/No.Such.Message");
    unknown.set_value("not a message \xff");
    const DataTreeVal value(unknown);
    EXPECT_EQ(value.toAny()->SerializeAsString(), unknown.SerializeAsString());
    unknown.set_value("changed");
    EXPECT_EQ(value.toAny()->value(), "not a message \xff");
    EXPECT_EQ(value.toAny(), value.toAny());
}

TEST(DataTreeVal, DecodesAPackedMessageOnce) {
    const DataTreeVal value(packed(message("text")));
    const auto& decoded = value.get<StringValue>();
    EXPECT_EQ(decoded.value(), "text");
    EXPECT_EQ(&value.get<StringValue>(), &decoded);
}

TEST(DataTreeVal, KnowsTheTypeByItsNameBehindTheLastSlash) {
    auto any = packed(message("text"));
    any.set_type_url("other.example/path/google.protobuf.StringValue");
    EXPECT_EQ(DataTreeVal(any).get<StringValue>().value(), "text");
}

TEST(DataTreeVal, RefusesATypedMessageOfAnotherType) {
    const DataTreeVal value(message("text"));
    EXPECT_EQ(thrownBy<CppUtil::BadCast>([&] { value.get<Int64Value>(); }, "data_tree_val.cpp"),
              "Bad Cast Error: Unable to cast DataTreeVal from google::protobuf::StringValue to "
              "google::protobuf::Int64Value");
    EXPECT_EQ(value.get<StringValue>().value(), "text");
}

TEST(DataTreeVal, RefusesAPackedMessageOfAnotherTypeNamingTheEnvelope) {
    const DataTreeVal value(packed(message("text")));
    EXPECT_EQ(
        thrownBy<CppUtil::BadCast>([&] { value.get<Int64Value>(); }, "data_tree_val.cpp"),
        "Bad Cast Error: Expected google::protobuf::Int64Value but found google::protobuf::Any");
    EXPECT_EQ(value.get<StringValue>().value(), "text");
}

TEST(DataTreeVal, HoldsTheTypedFormOnceAPackedMessageIsDecoded) {
    const DataTreeVal value(packed(message("text")));
    value.get<StringValue>();
    EXPECT_EQ(thrownBy<CppUtil::BadCast>([&] { value.get<Int64Value>(); }, "data_tree_val.cpp"),
              "Bad Cast Error: Unable to cast DataTreeVal from google::protobuf::StringValue to "
              "google::protobuf::Int64Value");
}

TEST(DataTreeVal, RefusesAPackedMessageThatCannotBeDecoded) {
    auto any = packed(message("text"));
    any.set_value("\xff");
    const DataTreeVal value(any);
    EXPECT_EQ(thrownBy<DataTreeValError>([&] { value.get<StringValue>(); }, "data_tree_val.cpp"),
              "DataTreeValError Error: Unable to decode the packed google::protobuf::StringValue");
}

TEST(DataTreeVal, IsMeantForPersistence) {
    EXPECT_FALSE(DataTreeVal(message("text")).notPersisted());
    EXPECT_FALSE(DataTreeVal(packed(message("text"))).notPersisted());
}

}  // namespace
}  // namespace Hox::ObserverTree
