#include "hox/observer_tree/observer_tree_handler_reg.h"

#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/path_error.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::onUpdate;
using TestKit::onUpdateWrite;
using TestKit::pattern;
using TestKit::StringValue;
using TestKit::thrownBy;
using TestKit::update;

constexpr const char* loggerName =
    "observer_tree_handler_reg.h::Hox::ObserverTree::ObserverTreeHandlerReg";

template <UnaryOps OpId>
void answerEmpty(ObserverTree& tree, const std::string& address) {
    tree.registerUnaryOpHandler<OpId, StringValue, StringValue>(
        address, [](const StringValue&, DataTree&) {
            return UnaryHandlerReturnType<StringValue>{std::make_unique<StringValue>(), Status()};
        });
}

void answerTaking(ObserverTree& tree, const std::string& address) {
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
        address, [](StringValue&&, DataTree&) {
            return UnaryHandlerReturnType<StringValue>{std::make_unique<StringValue>(), Status()};
        });
}

template <UnaryOps OpId>
bool isServed(ObserverTree& tree, const std::string& address) {
    return tree.getUnaryOpFuncNode<OpId>(address) != tree.getUnaryOpFuncNode<OpId>("/nowhere");
}

TEST(HandlerRegistration, TracesTheCreationOfANodeOnly) {
    const LogCapture log;
    ObserverTree tree;
    answerEmpty<UnaryOps::READ>(tree, "/a");
    answerEmpty<UnaryOps::UPDATE>(tree, "/a");
    tree.registerDefaultObserveHandler("/a");
    answerEmpty<UnaryOps::CREATE>(tree, "/b");
    answerEmpty<UnaryOps::REMOVE>(tree, "/c");
    EXPECT_THAT(log.textsOf(loggerName),
                ElementsAre("Registering unary handler READ for key /a",
                            "Registering unary handler CREATE for key /b",
                            "Registering unary handler REMOVE for key /c"));
    EXPECT_EQ(log.textsAt(spdlog::level::trace).size(), 3U);
    EXPECT_EQ(tree.getUnaryOpFuncNode<UnaryOps::READ>("/a"),
              tree.getUnaryOpFuncNode<UnaryOps::UPDATE>("/a"));
}

TEST(HandlerRegistration, IsSeenAtOnce) {
    ObserverTree tree;
    EXPECT_FALSE(isServed<UnaryOps::READ>(tree, "/a"));
    answerEmpty<UnaryOps::READ>(tree, "/a");
    EXPECT_TRUE(isServed<UnaryOps::READ>(tree, "/a"));
    EXPECT_FALSE(isServed<UnaryOps::UPDATE>(tree, "/a"));
    EXPECT_FALSE(isServed<UnaryOps::READ>(tree, "/a/b"));
    EXPECT_FALSE(isServed<UnaryOps::READ>(tree, "/"));
}

TEST(HandlerRegistration, RefusesMalformedAddressesAndChangesNothing) {
    const LogCapture log;
    ObserverTree tree;
    const auto hook = [](const ObserveReq&, const ObserverCallback&) {};
    const auto handler = [](const ChangeSetType&, const ObserverCallbackMap<ObserveReq>&) {};
    for (const std::string address : {"", "a", "/a/", "/a//b", "/*", "/a/**"}) {
        EXPECT_THROW(answerEmpty<UnaryOps::READ>(tree, address), PathError) << address;
        EXPECT_THROW(tree.registerObserveHandler<ObserveReq>(address, handler), PathError);
        EXPECT_THROW(tree.registerNewObserverHandler<ObserveReq>(address, hook), PathError);
        EXPECT_THROW(tree.registerObserverGoneHandler<ObserveReq>(address, hook), PathError);
        EXPECT_THROW(tree.registerDefaultObserveHandler(address), PathError);
        EXPECT_THROW(tree.registerDefaultRegExObserveHandler(address), PathError);
        EXPECT_THROW(answerTaking(tree, address), PathError);
        EXPECT_FALSE(isServed<UnaryOps::READ>(tree, address));
        EXPECT_THROW(tree.observe<ObserveReq>(address, pattern("/**"), {}, 0),
                     FuncNodeHandlerError);
    }
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(thrownBy<PathError>([&] { answerEmpty<UnaryOps::READ>(tree, "/a/*"); },
                                  "path_manipulation.cpp"),
              "PathError: Only key_pattern's may contain *; path = /a/*. ");
}

TEST(HandlerRegistration, TakesFunctionTreeOnlyComponents) {
    ObserverTree tree;
    answerEmpty<UnaryOps::READ>(tree, "/sys/conf/.data.");
    EXPECT_TRUE(isServed<UnaryOps::READ>(tree, "/sys/conf/.data."));
    EXPECT_FALSE(isServed<UnaryOps::READ>(tree, "/sys/conf/x"));
}

TEST(HandlerRegistration, KeepsTheFirstUnaryHandler) {
    ObserverTree tree;
    onUpdateWrite(tree, "/a", "/a/first");
    EXPECT_EQ(thrownBy<DoubleRegistrationError>([&] { onUpdateWrite(tree, "/a", "/a/second"); },
                                                "cruro_node.h"),
              "Only one registration is allowed: Only allowed to register one UPDATEoperation.\n");
    EXPECT_EQ(thrownBy<DoubleRegistrationError>([&] { answerTaking(tree, "/a"); }, "cruro_node.h"),
              "Only one registration is allowed: Only allowed to register one UPDATEoperation.\n");
    update(tree, "/a", "x");
    EXPECT_THAT(tree.dumpDataTree(), testing::StartsWith("key: \"/a/first\""));
    EXPECT_THAT(tree.dumpDataTree(), testing::Not(testing::HasSubstr("second")));
}

TEST(HandlerRegistration, KeepsATakingHandlerThatWasTheFirst) {
    ObserverTree tree;
    answerTaking(tree, "/a");
    for (const auto& second : {answerTaking, answerEmpty<UnaryOps::UPDATE>}) {
        EXPECT_EQ(
            thrownBy<DoubleRegistrationError>([&] { second(tree, "/a"); }, "cruro_node.h"),
            "Only one registration is allowed: Only allowed to register one UPDATEoperation.\n");
    }
}

TEST(HandlerRegistration, KeepsTheFirstObserveHandlerWithItsHooks) {
    ObserverTree tree;
    std::vector<std::string> events;
    tree.registerObserveHandler<RegExObserveReq>(
        "/a", [&](const ChangeSetType&, const ObserverCallbackMap<RegExObserveReq>&) {
            events.emplace_back("handler");
        });
    tree.registerNewObserverHandler<RegExObserveReq>(
        "/a",
        [&](const RegExObserveReq&, const ObserverCallback&) { events.emplace_back("hook"); });
    EXPECT_EQ(thrownBy<DoubleRegistrationError>([&] { tree.registerDefaultObserveHandler("/a"); },
                                                "cruro_node.h"),
              "Only one registration is allowed: Only allowed to register one observe handler "
              "function");
    onUpdateWrite(tree, "/k", "/k");
    const auto handle = tree.observe<RegExObserveReq>("/a", RegExObserveReq(), {}, 0);
    update(tree, "/k", "x");
    EXPECT_THAT(events, ElementsAre("hook", "handler"));
}

TEST(HandlerRegistration, KeepsTheFirstObserveHandlerAgainstTheDefaultOneForExpressions) {
    ObserverTree tree;
    std::vector<std::string> events;
    tree.registerObserveHandler<ObserveReq>(
        "/a", [&](const ChangeSetType&, const ObserverCallbackMap<ObserveReq>&) {
            events.emplace_back("handler");
        });
    tree.registerNewObserverHandler<ObserveReq>(
        "/a", [&](const ObserveReq&, const ObserverCallback&) { events.emplace_back("hook"); });
    EXPECT_EQ(
        thrownBy<DoubleRegistrationError>([&] { tree.registerDefaultRegExObserveHandler("/a"); },
                                          "cruro_node.h"),
        "Only one registration is allowed: Only allowed to register one observe handler function");
    onUpdateWrite(tree, "/k", "/k");
    const auto handle = tree.observe<ObserveReq>("/a", ObserveReq(), {}, 0);
    update(tree, "/k", "x");
    EXPECT_THAT(events, ElementsAre("hook", "handler"));
}

TEST(HandlerRegistration, WorksInsideAHandlerAndInsideADelivery) {
    ObserverTree tree;
    onUpdate(tree, "/a", [&](const std::string&, DataTree& data) {
        onUpdateWrite(tree, "/made/by/handler", "/made/by/handler");
        data.insert_or_assign("/a", TestKit::value("1"));
    });
    tree.registerDefaultObserveHandler("/observed");
    const auto handle = tree.observe<ObserveReq>(
        "/observed", pattern("/a"),
        [&](const ChangeSetType&, const Status&) {
            onUpdateWrite(tree, "/made/by/observer", "/made/by/observer");
        },
        0);
    update(tree, "/a");
    EXPECT_TRUE(isServed<UnaryOps::UPDATE>(tree, "/made/by/handler"));
    EXPECT_TRUE(isServed<UnaryOps::UPDATE>(tree, "/made/by/observer"));
}

TEST(HandlerRegistration, HooksOfANodeWithoutHandlerMakeANode) {
    const LogCapture log;
    ObserverTree tree;
    std::vector<std::string> events;
    tree.registerObserverGoneHandler<ObserveReq>(
        "/a", [&](const ObserveReq& request, const ObserverCallback&) {
            events.push_back("gone " + request.key_pattern());
        });
    tree.registerNewObserverHandler<ObserveReq>(
        "/a", [&](const ObserveReq& request, const ObserverCallback&) {
            events.push_back("new " + request.key_pattern());
        });
    EXPECT_EQ(log.textsOf(loggerName).size(), 1U);
    tree.observe<ObserveReq>("/a", pattern("/x"), {}, 0).reset();
    EXPECT_THAT(events, ElementsAre("new /x", "gone /x"));
}

}  // namespace
}  // namespace Hox::ObserverTree
