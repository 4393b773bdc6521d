#include "hox/testing/proto_matchers.h"

#include <gmock/gmock.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/timestamp.pb.h>
#include <gtest/gtest.h>

#include <sstream>

namespace Hox::Testing {
namespace {

using google::protobuf::Duration;
using google::protobuf::Timestamp;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::Pointee;

const auto time = protoFromText<Timestamp>("seconds: 5 nanos: 7");

TEST(EqualsProto, MatchesEqualMessages) {
    EXPECT_THAT(time, EqualsProto(protoFromText<Timestamp>("nanos: 7 seconds: 5")));
    EXPECT_THAT(std::make_shared<Timestamp>(time), Pointee(EqualsProto(time)));
    EXPECT_THAT((std::vector<Timestamp>{time, Timestamp()}),
                ElementsAre(EqualsProto(time), EqualsProto(Timestamp())));
}

TEST(EqualsProto, TellsMessagesApart) {
    EXPECT_THAT(time, Not(EqualsProto(Timestamp())));
    EXPECT_THAT(Timestamp(), Not(EqualsProto(Duration())));
}

TEST(EqualsProto, KeepsItsOwnCopy) {
    Timestamp changing = time;
    const auto matcher = EqualsProto(changing);
    changing.Clear();
    EXPECT_THAT(time, matcher);
}

TEST(EqualsProto, SaysWhatDiffers) {
    ::testing::StringMatchResultListener listener;
    const auto other = protoFromText<Timestamp>("seconds: 6 nanos: 7");
    EXPECT_FALSE(EqualsProto(time).MatchAndExplain(other, &listener));
    EXPECT_EQ(listener.str(), "with these differences:\nmodified: seconds: 5 -> 6\n");
    std::ostringstream description;
    EqualsProto(time).DescribeTo(&description);
    EXPECT_EQ(description.str(), "equals google.protobuf.Timestamp { seconds: 5 nanos: 7 }");
}

TEST(ProtoFromText, RefusesABadText) {
    EXPECT_THROW(protoFromText<Timestamp>("minutes: 1"), std::invalid_argument);
}

}  // namespace
}  // namespace Hox::Testing
