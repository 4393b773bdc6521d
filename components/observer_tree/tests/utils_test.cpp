#include "hox/observer_tree/utils.h"

#include "hox/observer_tree/unary_ops.h"
#include "hox/testing/assertion_reports.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using testing::ElementsAre;
using TestKit::Int64Value;
using TestKit::linesOf;
using TestKit::StringValue;
using TestKit::thrownBy;
using TestKit::value;

TEST(AddToChangeSet, StoresOneChangeUnderTheKey) {
    ChangeSetType changes;
    addToChangeSet(changes, "/b", value("new"), value("old"), 0);
    addToChangeSet(changes, "/a", value("only"), nullptr, 0);
    addToChangeSet(changes, "/c", nullptr, value("gone"), 0);
    EXPECT_THAT(linesOf(changes),
                ElementsAre("/a: null -> only", "/b: old -> new", "/c: gone -> null"));
}

TEST(AddToChangeSet, ReplacesWhateverTheKeyHeld) {
    ChangeSetType changes;
    changes["/a"] = {ChangeSetMapVal{value("1"), nullptr}, ChangeSetMapVal{value("2"), nullptr}};
    addToChangeSet(changes, "/a", value("3"), value("x"), 0);
    EXPECT_THAT(linesOf(changes), ElementsAre("/a: x -> 3"));
}

TEST(AddToChangeSet, AssertsThatTheIndexIsZero) {
    const AssertionReports reports;
    ChangeSetType changes;
    addToChangeSet(changes, "/a", value("1"), nullptr, 1);
    addToChangeSet(changes, "/a", value("2"), nullptr, -1);
    EXPECT_THAT(reports.conditions(), ElementsAre("index == 0", "index == 0"));
}

TEST(AddToChangeSetDeathTest, EndsTheProcessForAnotherIndex) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ChangeSetType changes;
    EXPECT_DEATH(addToChangeSet(changes, "/a", value("1"), nullptr, 1),
                 testing::HasSubstr("Assertion failed: [index == 0] "));
}

std::vector<std::string> typedCalls(const ChangeSetType& changes) {
    std::vector<std::string> calls;
    callTypedObserver<StringValue>(
        changes, [&](const StringValue& current, const StringValue& previous) {
            calls.push_back("'" + previous.value() + "' -> '" + current.value() + "'");
        });
    return calls;
}

ChangeSetType change(DataTreeValPtr current, DataTreeValPtr previous) {
    ChangeSetType changes;
    addToChangeSet(changes, "/k", std::move(current), std::move(previous), 0);
    return changes;
}

TEST(CallTypedObserver, HandsOutBothMessages) {
    EXPECT_THAT(typedCalls(change(value("new"), value("old"))), ElementsAre("'old' -> 'new'"));
}

TEST(CallTypedObserver, HandsOutADefaultMessageForAnAbsentOne) {
    EXPECT_THAT(typedCalls(change(value("new"), nullptr)), ElementsAre("'' -> 'new'"));
    EXPECT_THAT(typedCalls(change(nullptr, value("old"))), ElementsAre("'old' -> ''"));
    EXPECT_THAT(typedCalls(change(nullptr, nullptr)), ElementsAre("'' -> ''"));
}

TEST(CallTypedObserver, TakesTheFirstChangeOfTheFirstKeyOnly) {
    auto changes = change(value("other"), nullptr);
    changes["/a"] = {ChangeSetMapVal{value("1"), nullptr}, ChangeSetMapVal{value("2"), value("1")}};
    EXPECT_THAT(typedCalls(changes), ElementsAre("'' -> '1'"));
}

TEST(CallTypedObserver, RefusesAKeyWithoutChanges) {
    ChangeSetType changes;
    changes["/k"] = {};
    EXPECT_EQ(thrownBy<std::out_of_range>([&] { typedCalls(changes); }),
              "vector::_M_range_check: __n (which is 0) >= this->size() (which is 0)");
}

TEST(CallTypedObserver, RefusesAMessageOfAnotherType) {
    const auto number = std::make_shared<const DataTreeVal>(Int64Value());
    EXPECT_THROW(typedCalls(change(number, nullptr)), CppUtil::BadCast);
    EXPECT_THROW(typedCalls(change(value("x"), number)), CppUtil::BadCast);
}

TEST(CallTypedObserver, NamesTheSideOfAPointerThatIsNullAfterAll) {
    EXPECT_EQ(
        thrownBy<DataTreeValError>([] { Detail::dereference(nullptr, "current"); }, "utils.cpp"),
        "DataTreeValError Error: No valid DataTreeVal reference for current");
    EXPECT_EQ(
        thrownBy<DataTreeValError>([] { Detail::dereference(nullptr, "previous"); }, "utils.cpp"),
        "DataTreeValError Error: No valid DataTreeVal reference for previous");
}

TEST(UnaryOps, HaveNumbersAndNames) {
    EXPECT_EQ(static_cast<int>(UnaryOps::CREATE), 0);
    EXPECT_EQ(static_cast<int>(UnaryOps::READ), 1);
    EXPECT_EQ(static_cast<int>(UnaryOps::UPDATE), 2);
    EXPECT_EQ(static_cast<int>(UnaryOps::REMOVE), 3);
    EXPECT_STREQ(toString(UnaryOps::CREATE), "CREATE");
    EXPECT_STREQ(toString(UnaryOps::READ), "READ");
    EXPECT_STREQ(toString(UnaryOps::UPDATE), "UPDATE");
    EXPECT_STREQ(toString(UnaryOps::REMOVE), "REMOVE");
    EXPECT_STREQ(toString(static_cast<UnaryOps>(4)), "INVALID_OPERATION");
    EXPECT_STREQ(toString(static_cast<UnaryOps>(-1)), "INVALID_OPERATION");
}

TEST(UnaryOps, AreTheWireNumbersMinusOne) {
    EXPECT_EQ(static_cast<int>(UnaryOps::CREATE), ObsTreeOptions::CREATE - 1);
    EXPECT_EQ(static_cast<int>(UnaryOps::READ), ObsTreeOptions::READ - 1);
    EXPECT_EQ(static_cast<int>(UnaryOps::UPDATE), ObsTreeOptions::UPDATE - 1);
    EXPECT_EQ(static_cast<int>(UnaryOps::REMOVE), ObsTreeOptions::REMOVE - 1);
}

}  // namespace
}  // namespace Hox::ObserverTree
