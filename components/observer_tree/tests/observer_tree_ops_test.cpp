#include "hox/observer_tree/observer_tree_ops.h"

#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using Hox::Testing::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::message;
using TestKit::number;
using TestKit::Observations;
using TestKit::onUpdate;
using TestKit::onUpdateWrite;
using TestKit::pattern;
using TestKit::StringValue;
using TestKit::textOf;
using TestKit::thrownBy;
using TestKit::update;
using TestKit::value;

constexpr const char* loggerName = "observer_tree_ops.h::Hox::ObserverTree::ObserverTreeOps";

class TreeOps : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/obs");
        m_log.clear();
    }

    ObserveRaiiHandleType<ObserveReq> observeAll(Observations& observations,
                                                 uint64_t startIndex = 0) {
        return m_tree.observe<ObserveReq>("/obs", pattern("/**"), observations.callback(),
                                          startIndex);
    }

    LogCapture m_log;
    ObserverTree m_tree;
};

TEST_F(TreeOps, ReturnWhatTheHandlerReturns) {
    m_tree.registerUnaryOpHandler<UnaryOps::READ, StringValue, StringValue>(
        "/a", [](const StringValue& request, DataTree&) {
            return UnaryHandlerReturnType<StringValue>{
                std::make_unique<StringValue>(message("re: " + request.value())),
                Status(ProtoStatus::OUT_OF_RANGE, "far")};
        });
    const auto typed =
        m_tree.callApiOp<UnaryOps::READ, StringValue, StringValue>("/a", message("1"));
    EXPECT_EQ(typed.message->value(), "re: 1");
    EXPECT_EQ(typed.status.statusCode(), ProtoStatus::OUT_OF_RANGE);
    EXPECT_EQ(typed.status.errorMessage(), "far");
    const auto cast = m_tree.unaryOpCast<UnaryOps::READ>("/a", message("2"));
    EXPECT_EQ(dynamic_cast<const StringValue&>(*cast.message).value(), "re: 2");
    EXPECT_EQ(cast.status.statusCode(), ProtoStatus::OUT_OF_RANGE);
}

template <UnaryOps OpId>
std::string missing(ObserverTree& tree, const std::string& address) {
    auto typed = thrownBy<FuncNodeHandlerError>(
        [&] { tree.callApiOp<OpId, StringValue, StringValue>(address, message("")); },
        "observer_tree_ops.cpp");
    const auto cast = thrownBy<FuncNodeHandlerError>(
        [&] { tree.unaryOpCast<OpId>(address, message("")); }, "observer_tree_ops.cpp");
    EXPECT_EQ(typed, cast);
    return typed;
}

TEST_F(TreeOps, RefuseAnOperationWithoutAHandler) {
    EXPECT_EQ(missing<UnaryOps::CREATE>(m_tree, "/x"),
              "FuncNodeHandlerError: No handler for CRUR operation CREATE registered under /x\n");
    EXPECT_EQ(missing<UnaryOps::READ>(m_tree, "/obs"),
              "FuncNodeHandlerError: No handler for CRUR operation READ registered under /obs\n");
    EXPECT_EQ(missing<UnaryOps::UPDATE>(m_tree, "no/path"),
              "FuncNodeHandlerError: No handler for CRUR operation UPDATE registered under "
              "no/path\n");
    EXPECT_EQ(missing<UnaryOps::REMOVE>(m_tree, ""),
              "FuncNodeHandlerError: No handler for CRUR operation REMOVE registered under \n");
    const std::string start = "No handler for CRUR operation ";
    EXPECT_THAT(
        m_log.textsAt(spdlog::level::err),
        ElementsAre(start + "CREATE registered under /x\n", start + "CREATE registered under /x\n",
                    start + "READ registered under /obs\n", start + "READ registered under /obs\n",
                    start + "UPDATE registered under no/path\n",
                    start + "UPDATE registered under no/path\n",
                    start + "REMOVE registered under \n", start + "REMOVE registered under \n"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::trace), IsEmpty());
}

TEST_F(TreeOps, FindHandlersByTheExactAddressOnly) {
    onUpdateWrite(m_tree, "/a/b", "/a/b");
    onUpdateWrite(m_tree, "/sys/conf/.data.", "/sys/conf/x");
    EXPECT_NE(missing<UnaryOps::UPDATE>(m_tree, "/a"), "nothing thrown");
    EXPECT_NE(missing<UnaryOps::READ>(m_tree, "/a/b"), "nothing thrown");
    EXPECT_NE(missing<UnaryOps::UPDATE>(m_tree, "/sys/conf/data"), "nothing thrown");
    EXPECT_NO_THROW(update(m_tree, "/a/b", "x"));
    EXPECT_NO_THROW(update(m_tree, "/sys/conf/.data.", "x"));
}

TEST_F(TreeOps, TraceTheirSteps) {
    onUpdateWrite(m_tree, "/a", "/a");
    m_log.clear();
    update(m_tree, "/a", "1");
    update(m_tree, "/a", "2");
    const auto one = value("1")->toAny()->DebugString();
    const auto two = value("2")->toAny()->DebugString();
    const std::string call =
        "Calling API Func UPDATE: \ngoogle::protobuf::StringValue -> google::protobuf::StringValue";
    EXPECT_THAT(
        m_log.textsOf(loggerName),
        ElementsAre(call, "Calling Observers - callbacksBeingProcessed False",
                    "Node Change Key /a Current Value \"" + one + "\" previous \"NONE\" ",
                    "Done Calling Observers", call,
                    "Calling Observers - callbacksBeingProcessed False",
                    "Node Change Key /a Current Value \"" + two + "\" previous \"" + one + "\" ",
                    "Done Calling Observers"));
    for (const auto& record : m_log.records()) {
        EXPECT_EQ(record.level, spdlog::level::trace) << record;
    }
}

TEST_F(TreeOps, TraceTheMessageClassByDescriptor) {
    onUpdateWrite(m_tree, "/a", "/a");
    m_log.clear();
    m_tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("1"));
    EXPECT_EQ(m_log.textsOf(loggerName).front(),
              "Calling API Func UPDATE: \ngoogle::protobuf::Message -> google::protobuf::Message");
}

TEST_F(TreeOps, TraceAllKeysOfAChangeSetInOrder) {
    onUpdate(m_tree, "/", [](const std::string& text, DataTree& data) {
        if (text == "erase") {
            data.erase("/b");
        } else {
            data.insert_or_assign("/b", value("1"));
            data.insert_or_assign("/a", value("2"));
        }
    });
    update(m_tree, "/");
    m_log.clear();
    update(m_tree, "/", "erase");
    EXPECT_TRUE(m_log.contains("Node Change Key /b Current Value \"NONE\" previous \"" +
                               value("1")->toAny()->DebugString() + "\" "));
    m_log.clear();
    update(m_tree, "/");
    EXPECT_THAT(m_log.textsOf(loggerName),
                ElementsAre(testing::_, testing::_, testing::StartsWith("Node Change Key /a "),
                            testing::StartsWith("Node Change Key /b "), testing::_));
}

TEST_F(TreeOps, TraceTheLoopAlsoWhereNothingWasWritten) {
    onUpdate(m_tree, "/a", [](const std::string&, DataTree&) {});
    Observations observations;
    const auto handle = observeAll(observations);
    m_log.clear();
    update(m_tree, "/a");
    EXPECT_THAT(
        m_log.textsOf(loggerName),
        ElementsAre(testing::StartsWith("Calling API Func UPDATE"),
                    "Calling Observers - callbacksBeingProcessed False", "Done Calling Observers"));
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(TreeOps, LimitTheHandlerToItsAddress) {
    const AssertionReports reports;
    onUpdateWrite(m_tree, "/a", "/b");
    onUpdateWrite(m_tree, "/c", "/c/d");
    EXPECT_EQ(
        thrownBy<AccessViolationError>([&] { update(m_tree, "/a"); }, "restricted_data_tree.h"),
        "AccessViolationError: Not allowed to access \"/b\" with key pattern \"a/**\" in "
        "effect");
    EXPECT_THROW(m_tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("")), AccessViolationError);
    EXPECT_NO_THROW(update(m_tree, "/c"));
    EXPECT_NO_THROW(m_tree.unaryOpCast<UnaryOps::UPDATE>("/c", message("")));
    EXPECT_THAT(m_tree.dumpDataTree(), testing::StartsWith("key: \"/c/d\""));
}

TEST_F(TreeOps, LetAHandlerReadEverything) {
    onUpdateWrite(m_tree, "/a", "/a");
    std::string read;
    onUpdate(m_tree, "/b",
             [&](const std::string&, DataTree& data) { read = textOf(data.find("/a")->second); });
    update(m_tree, "/a", "seen");
    update(m_tree, "/b");
    EXPECT_EQ(read, "seen");
}

TEST_F(TreeOps, LeaveTheLimitOfANestedCallInForce) {
    const AssertionReports reports;
    onUpdateWrite(m_tree, "/inner", "/inner");
    onUpdate(m_tree, "/outer", [this](const std::string& key, DataTree& data) {
        data.insert_or_assign("/outer/before", value("1"));
        update(m_tree, "/inner", "2");
        data.insert_or_assign(key, value("3"));
    });
    EXPECT_NO_THROW(update(m_tree, "/outer", "/inner/after"));
    EXPECT_EQ(thrownBy<AccessViolationError>([&] { update(m_tree, "/outer", "/outer/after"); },
                                             "restricted_data_tree.h"),
              "AccessViolationError: Not allowed to access \"/outer/after\" with key pattern "
              "\"inner/**\" in effect");
}

TEST_F(TreeOps, SetTheLimitAnewForEachCall) {
    onUpdateWrite(m_tree, "/inner", "/inner");
    onUpdate(m_tree, "/outer", [this](const std::string&, DataTree& data) {
        data.insert_or_assign("/outer", value("1"));
        update(m_tree, "/inner");
    });
    update(m_tree, "/outer");
    EXPECT_NO_THROW(update(m_tree, "/outer"));
}

TEST_F(TreeOps, RefuseToObserveWhereThereIsNoNode) {
    const auto text = [](const std::string& address) {
        return "FuncNodeHandlerError: No observe handler registered under \"" + address + "\"";
    };
    for (const std::string address : {"/x", "/obs/x", "/", "", "no path"}) {
        EXPECT_EQ(thrownBy<FuncNodeHandlerError>(
                      [&] { m_tree.observe<ObserveReq>(address, pattern("/**"), {}, 0); },
                      "observer_tree_ops.cpp"),
                  text(address));
        EXPECT_EQ(thrownBy<FuncNodeHandlerError>(
                      [&] { m_tree.observeCast(address, pattern("/**"), {}, 0); },
                      "observer_tree_ops.cpp"),
                  text(address));
    }
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(TreeOps, AcceptAnObserverAtANodeWithoutObserveHandler) {
    const AssertionReports reports;
    onUpdateWrite(m_tree, "/a", "/a");
    update(m_tree, "/a", "1");
    Observations observations;
    auto handle = m_tree.observe<ObserveReq>("/a", pattern("/**"), observations.callback(), 0);
    EXPECT_NE(handle, nullptr);
    update(m_tree, "/a", "2");
    handle.reset();
    EXPECT_THAT(observations.calls(), IsEmpty());
    EXPECT_THAT(reports.conditions(), IsEmpty());
    EXPECT_THROW(m_tree.observeCast("/a", pattern("/**"), observations.callback(), 0),
                 std::bad_function_call);
    EXPECT_THAT(reports.conditions(), ElementsAre("static_cast<bool>(m_observeCastHandler)"));
}

TEST_F(TreeOps, DoNotUseTheStartIndex) {
    onUpdateWrite(m_tree, "/a", "/a");
    update(m_tree, "/a", "1");
    for (const uint64_t startIndex : {uint64_t{0}, uint64_t{7}, ~uint64_t{0}}) {
        Observations observations;
        const auto handle = observeAll(observations, startIndex);
        EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> 1"));
        const auto cast =
            m_tree.observeCast("/obs", pattern("/a"), observations.callback(), startIndex);
        EXPECT_EQ(observations.calls().size(), 2U);
    }
}

TEST_F(TreeOps, HandOutTypedHandlesByDescriptor) {
    Observations observations;
    auto handle = m_tree.observeCast("/obs", pattern("/**"), observations.callback(), 0);
    EXPECT_NE(std::any_cast<ObserveRaiiHandleType<ObserveReq>>(handle), nullptr);
    onUpdateWrite(m_tree, "/a", "/a");
    update(m_tree, "/a", "1");
    handle.reset();
    update(m_tree, "/a", "2");
    EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> 1"));
    EXPECT_THROW(m_tree.observeCast("/obs", number(1), observations.callback(), 0), std::bad_cast);
}

TEST_F(TreeOps, PassOnWhatTheHandlerThrows) {
    const AssertionReports reports;
    onUpdate(m_tree, "/a", [](const std::string&, DataTree&) { throw std::runtime_error("boom"); });
    onUpdateWrite(m_tree, "/b", "/b");
    EXPECT_EQ(thrownBy<std::runtime_error>([&] { update(m_tree, "/a"); }), "boom");
    EXPECT_EQ(thrownBy<std::runtime_error>(
                  [&] { m_tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("")); }),
              "boom");
    EXPECT_THROW(m_tree.unaryOpCast<UnaryOps::UPDATE>("/b", number(1)), std::bad_cast);
    EXPECT_THROW(
        (m_tree.callApiOp<UnaryOps::UPDATE, StringValue, TestKit::Int64Value>("/b", message(""))),
        std::bad_any_cast);
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "false", "false", "false"));
}

class TreeOpsDeathTest : public TreeOps {};

TEST_F(TreeOpsDeathTest, EndTheProcessForAHandlerThatWritesElsewhere) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    onUpdateWrite(m_tree, "/a", "/b");
    EXPECT_DEATH(update(m_tree, "/a"), testing::HasSubstr("Assertion failed: [false] \nat:"));
}

}  // namespace
}  // namespace Hox::ObserverTree
