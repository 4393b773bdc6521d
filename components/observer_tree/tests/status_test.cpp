#include "hox/observer_tree/status.h"

#include "hox/testing/assertion_reports.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* rule = "statusCode != ProtoStatus::OK || errorMessage.size() == 0";

TEST(Status, IsOkWithoutATextByDefault) {
    const Status status;
    EXPECT_TRUE(status.isOk());
    EXPECT_EQ(status.statusCode(), ProtoStatus::OK);
    EXPECT_EQ(status.errorMessage(), "");
    EXPECT_EQ(status.proto().SerializeAsString(), "");
}

TEST(Status, HoldsCodeAndText) {
    const AssertionReports reports;
    const Status status(ProtoStatus::NOT_FOUND, "no such thing");
    EXPECT_FALSE(status.isOk());
    EXPECT_EQ(status.proto().statuscode(), ProtoStatus::NOT_FOUND);
    EXPECT_EQ(status.proto().errormessage(), "no such thing");
    EXPECT_FALSE(Status(ProtoStatus::INTERNAL, "").isOk());
    EXPECT_TRUE(Status(ProtoStatus::OK, "").isOk());
    EXPECT_THAT(reports.conditions(), IsEmpty());
}

TEST(Status, AssertsThatOkHasNoText) {
    const AssertionReports reports;
    EXPECT_TRUE(Status(ProtoStatus::OK, "fine").isOk());
    EXPECT_THAT(reports.conditions(), ElementsAre(rule));
}

TEST(StatusDeathTest, EndsTheProcessForAnOkWithAText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Status(ProtoStatus::OK, "fine"),
                 testing::HasSubstr(std::string("Assertion failed: [") + rule + "] "));
}

TEST(Status, HasTheNumbersOfTheWire) {
    const std::vector<std::pair<ProtoStatus::StatusCode, int>> numbers = {
        {ProtoStatus::OK, 0},
        {ProtoStatus::CANCELLED, 1},
        {ProtoStatus::UNKNOWN, 2},
        {ProtoStatus::INVALID_ARGUMENT, 3},
        {ProtoStatus::DEADLINE_EXCEEDED, 4},
        {ProtoStatus::NOT_FOUND, 5},
        {ProtoStatus::ALREADY_EXISTS, 6},
        {ProtoStatus::PERMISSION_DENIED, 7},
        {ProtoStatus::RESOURCE_EXHAUSTED, 8},
        {ProtoStatus::FAILED_PRECONDITION, 9},
        {ProtoStatus::ABORTED, 10},
        {ProtoStatus::OUT_OF_RANGE, 11},
        {ProtoStatus::UNIMPLEMENTED, 12},
        {ProtoStatus::INTERNAL, 13},
        {ProtoStatus::UNAVAILABLE, 14},
        {ProtoStatus::DATA_LOSS, 15},
        {ProtoStatus::UNAUTHENTICATED, 16}};
    for (const auto& [code, expected] : numbers) {
        EXPECT_EQ(static_cast<int>(code), expected);
    }
    const auto* declared = ProtoStatus::StatusCode_descriptor();
    ASSERT_EQ(declared->value_count(), 17);
    EXPECT_EQ(declared->value(7)->name(), "PERMISSION_DENIED");
    EXPECT_EQ(declared->value(8)->name(), "UNAUTHENTICATED");
    EXPECT_EQ(declared->value(9)->name(), "RESOURCE_EXHAUSTED");
}

}  // namespace
}  // namespace Hox::ObserverTree
