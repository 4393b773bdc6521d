#include "hox/observer_tree/cruro_node.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using Hox::Testing::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::Int64Value;
using TestKit::message;
using TestKit::newKeys;
using TestKit::number;
using TestKit::Observations;
using TestKit::StringValue;
using TestKit::thrownBy;

/// A node whose observe handler passes every change set to every observer.
class ObservedNode : public testing::Test {
protected:
    using Handle = ObserveRaiiHandleType<StringValue>;

    void SetUp() override {
        m_node->setObserveHandler<StringValue>(
            [this](const ChangeSetType& changes, const ObserverCallbackMap<StringValue>& map) {
                m_lastObservers = map;
                for (const auto& [address, observer] : map) {
                    (*observer.observeCallback)(changes, Status());
                }
            });
    }

    Handle observe(Observations& observations, const std::string& request = "") {
        return m_node->observe<StringValue>(message(request), observations.callback());
    }

    void deliver(const std::string& key, const std::any& single = {}) {
        m_node->callObserveHandler(newKeys({key}), single);
        m_lastRequests.clear();
        for (const auto& [address, observer] : std::exchange(m_lastObservers, {})) {
            EXPECT_EQ(address, observer.observeCallback.get());
            m_lastRequests.push_back(observer.request->value());
        }
    }

    std::vector<std::string> errors() const { return m_log.textsAt(spdlog::level::err); }

    LogCapture m_log;
    std::shared_ptr<TreeNode> m_node = std::make_shared<TreeNode>();
    ObserverCallbackMap<StringValue> m_lastObservers;
    std::vector<std::string> m_lastRequests;
};

TEST_F(ObservedNode, DeliversToAllObservers) {
    Observations first;
    Observations second;
    [[maybe_unused]] const auto handles = {observe(first, "1"), observe(second, "2")};
    deliver("/a");
    EXPECT_THAT(first.calls(), ElementsAre("/a: null -> /a"));
    EXPECT_THAT(second.calls(), ElementsAre("/a: null -> /a"));
    EXPECT_THAT(m_lastRequests, testing::UnorderedElementsAre("1", "2"));
}

TEST_F(ObservedNode, DeliversNoEmptyChangeSet) {
    Observations observations;
    const auto handle = observe(observations);
    m_node->callObserveHandler({}, {});
    m_node->callObserveHandler({}, std::any(handle));
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(ObservedNode, DeliversToASingleObserver) {
    Observations first;
    Observations second;
    const auto firstHandle = observe(first, "1");
    const auto secondHandle = observe(second, "2");
    deliver("/a", std::any(secondHandle));
    EXPECT_THAT(m_lastRequests, ElementsAre("2"));
    deliver("/b");
    EXPECT_THAT(first.calls(), ElementsAre("/b: null -> /b"));
    EXPECT_THAT(second.calls(), ElementsAre("/a: null -> /a", "/b: null -> /b"));
}

TEST_F(ObservedNode, KeepsAnObserverAsLongAsACopyOfItsHandle) {
    Observations observations;
    auto handle = observe(observations);
    auto copy = handle;
    handle.reset();
    deliver("/a");
    copy.reset();
    deliver("/b");
    EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> /a"));
    EXPECT_THAT(m_lastRequests, IsEmpty());
}

TEST_F(ObservedNode, KeepsItsOwnCopyOfTheRequest) {
    Observations observations;
    auto request = message("before");
    const auto handle = m_node->observe<StringValue>(request, observations.callback());
    request.set_value("after");
    deliver("/a");
    EXPECT_THAT(m_lastRequests, ElementsAre("before"));
    EXPECT_EQ(handle->request->value(), "before");
    EXPECT_NE(handle->observeCallback, nullptr);
}

TEST_F(ObservedNode, FreesCallbackAndRequestWithTheHandle) {
    const auto token = std::make_shared<int>(0);
    auto handle =
        m_node->observe<StringValue>(message(""), [token](const ChangeSetType&, const Status&) {});
    const std::weak_ptr<StringValue> request = handle->request;
    EXPECT_GT(token.use_count(), 1);
    handle.reset();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_TRUE(request.expired());
}

TEST_F(ObservedNode, ServesObserversByDescriptor) {
    Observations observations;
    auto handle = m_node->observeCast(message("cast"), observations.callback());
    EXPECT_NO_THROW(std::any_cast<Handle>(handle));
    deliver("/a");
    EXPECT_THAT(m_lastRequests, ElementsAre("cast"));
    handle.reset();
    deliver("/b");
    EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> /a"));
    EXPECT_THROW(m_node->observeCast(number(1), observations.callback()), std::bad_cast);
}

TEST_F(ObservedNode, RefusesASecondObserveHandler) {
    EXPECT_EQ(
        thrownBy<DoubleRegistrationError>(
            [this] { m_node->setObserveHandler<Int64Value>([](const auto&, const auto&) {}); },
            "cruro_node.h"),
        "Only one registration is allowed: Only allowed to register one observe handler "
        "function");
    Observations observations;
    const auto handle = observe(observations);
    deliver("/a");
    EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> /a"));
}

TEST_F(ObservedNode, RefusesAnObserverWithAnotherRequestType) {
    const AssertionReports reports;
    EXPECT_THROW(m_node->observe<Int64Value>(number(4), {}), std::bad_any_cast);
    EXPECT_THAT(errors(), ElementsAre("It is forbidden to throw exceptions from observe handlers "
                                      "and callbacks - bad any_cast",
                                      "inMsg: value: 4\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(ObservedNode, LogsAndAssertsAnExceptionOfAnObserverAndGoesOn) {
    const AssertionReports reports;
    const auto handle = m_node->observe<StringValue>(
        message(""), [](const ChangeSetType&, const Status&) { throw std::runtime_error("boom"); });
    EXPECT_NO_THROW(deliver("/a"));
    EXPECT_THAT(errors(), ElementsAre("Caught exception in Observer Tree observe Callback:\nboom"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    EXPECT_NO_THROW(deliver("/b"));
}

TEST_F(ObservedNode, AssertsThatTheSingleObserverHasTheRightType) {
    const AssertionReports reports;
    deliver("/a", std::any(5));
    EXPECT_THAT(errors(),
                ElementsAre("Caught exception in Observer Tree observe Callback:\nbad any_cast"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(ObservedNode, TellsTheHookOfANewObserverThatIsInTheMap) {
    std::vector<std::string> told;
    m_node->setNewObserverHandler<StringValue>(
        [&](const StringValue& request, const ObserverCallback& callback) {
            told.push_back(request.value());
            callback(newKeys({"/hook"}), Status());
            deliver("/map");
        });
    Observations observations;
    const auto handle = observe(observations, "request");
    EXPECT_THAT(told, ElementsAre("request"));
    EXPECT_THAT(observations.calls(), ElementsAre("/hook: null -> /hook", "/map: null -> /map"));
    EXPECT_THAT(m_lastRequests, ElementsAre("request"));
}

TEST_F(ObservedNode, TellsTheHookOfALeavingObserverThatIsStillInTheMap) {
    std::vector<std::string> told;
    m_node->setObserverGoneHandler<StringValue>(
        [&](const StringValue& request, const ObserverCallback& callback) {
            told.push_back(request.value());
            callback(newKeys({"/hook"}), Status());
            deliver("/map");
        });
    Observations observations;
    auto handle = observe(observations, "request");
    EXPECT_THAT(told, IsEmpty());
    handle.reset();
    EXPECT_THAT(told, ElementsAre("request"));
    EXPECT_THAT(observations.take(), ElementsAre("/hook: null -> /hook", "/map: null -> /map"));
    deliver("/after");
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(ObservedNode, TellsOnlyTheLastHookWhateverItsMessageType) {
    std::vector<std::string> told;
    const auto typed = [&](const char* name) {
        return [&told, name](const StringValue& request, const ObserverCallback&) {
            told.push_back(std::string(name) + request.value());
        };
    };
    const auto cast = [&](const char* name) {
        return [&told, name](const BaseMsgType& request, const ObserverCallback&) {
            told.push_back(name + dynamic_cast<const StringValue&>(request).value());
        };
    };
    m_node->setNewObserverHandler<StringValue>(typed("new "));
    m_node->setObserverGoneHandler<StringValue>(typed("gone "));
    Observations observations;
    observe(observations, "1").reset();
    EXPECT_THAT(std::exchange(told, {}), ElementsAre("new 1", "gone 1"));
    m_node->observeCast(message("2"), observations.callback()).reset();
    EXPECT_THAT(std::exchange(told, {}), ElementsAre("new 2", "gone 2"));

    m_node->setNewObserverHandler<BaseMsgType>(cast("cast new "));
    m_node->setObserverGoneHandler<BaseMsgType>(cast("cast gone "));
    observe(observations, "3").reset();
    EXPECT_THAT(std::exchange(told, {}), ElementsAre("cast new 3", "cast gone 3"));

    m_node->setNewObserverHandler<StringValue>(typed("new "));
    m_node->setObserverGoneHandler<StringValue>(typed("gone "));
    observe(observations, "4").reset();
    EXPECT_THAT(told, ElementsAre("new 4", "gone 4"));
}

TEST_F(ObservedNode, ReplacesAHookWithoutComplaint) {
    std::vector<std::string> told;
    for (const char* name : {"first", "second"}) {
        const auto hook = [&told, name](const StringValue&, const ObserverCallback&) {
            told.emplace_back(name);
        };
        m_node->setNewObserverHandler<StringValue>(hook);
        m_node->setObserverGoneHandler<StringValue>(hook);
    }
    Observations observations;
    observe(observations).reset();
    EXPECT_THAT(told, ElementsAre("second", "second"));
}

TEST_F(ObservedNode, RefusesAnObserverWithAnotherRequestTypeThanItsHook) {
    const AssertionReports reports;
    m_node->setNewObserverHandler<Int64Value>([](const Int64Value&, const ObserverCallback&) {});
    Observations observations;
    EXPECT_THROW(observe(observations), std::bad_cast);
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(ObservedNode, ForgetsAnObserverWhoseHookThrows) {
    const AssertionReports reports;
    m_node->setNewObserverHandler<StringValue>(
        [](const StringValue&, const ObserverCallback&) { throw std::runtime_error("boom"); });
    Observations observations;
    EXPECT_EQ(thrownBy<std::runtime_error>([&] { observe(observations, "r"); }), "boom");
    EXPECT_THAT(errors(), ElementsAre("It is forbidden to throw exceptions from observe handlers "
                                      "and callbacks - boom",
                                      "inMsg: value: \"r\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    deliver("/a");
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(ObservedNode, IsNotNeededByAHandleThatOutlivesIt) {
    int gone = 0;
    m_node->setObserverGoneHandler<StringValue>(
        [&](const StringValue&, const ObserverCallback&) { ++gone; });
    Observations observations;
    auto handle = observe(observations);
    m_node.reset();
    handle.reset();
    EXPECT_EQ(gone, 0);
}

TEST(UnobservedNode, AcceptsAnObserverThatNeverGetsACall) {
    const auto node = std::make_shared<TreeNode>();
    Observations observations;
    auto handle = node->observe<StringValue>(message(""), observations.callback());
    node->callObserveHandler(newKeys({"/a"}), {});
    node->callObserveHandler(newKeys({"/a"}), std::any(handle));
    handle.reset();
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST(UnobservedNode, RunsItsHooksAllTheSame) {
    const auto node = std::make_shared<TreeNode>();
    std::vector<std::string> told;
    node->setNewObserverHandler<StringValue>(
        [&](const StringValue& request, const ObserverCallback&) {
            told.push_back("new " + request.value());
        });
    node->setObserverGoneHandler<StringValue>(
        [&](const StringValue& request, const ObserverCallback&) {
            told.push_back("gone " + request.value());
        });
    node->observeCast(message("1"), [](const ChangeSetType&, const Status&) {}).reset();
    EXPECT_THAT(told, ElementsAre("new 1", "gone 1"));
}

TEST(UnobservedNode, AssertsThatSomebodyTakesObserversByDescriptor) {
    const LogCapture log;
    const AssertionReports reports;
    const auto node = std::make_shared<TreeNode>();
    EXPECT_THROW(node->observeCast(message(""), {}), std::bad_function_call);
    EXPECT_THAT(reports.conditions(), ElementsAre("static_cast<bool>(m_observeCastHandler)"));
}

TEST(UnobservedNode, LetsTheObserveHandlerDecideTheRequestType) {
    const auto node = std::make_shared<TreeNode>();
    int told = 0;
    node->setNewObserverHandler<BaseMsgType>(
        [&](const BaseMsgType&, const ObserverCallback&) { ++told; });
    node->setObserveHandler<StringValue>([](const auto&, const auto&) {});
    const auto handle = node->observeCast(message(""), [](const ChangeSetType&, const Status&) {});
    EXPECT_NO_THROW(std::any_cast<ObserveRaiiHandleType<StringValue>>(handle));
    EXPECT_EQ(told, 1);
}

TEST(UnobservedNode, DoesNotKnowObserversFromBeforeItsObserveHandler) {
    const AssertionReports reports;
    const LogCapture log;
    const auto node = std::make_shared<TreeNode>();
    Observations observations;
    auto early = node->observe<StringValue>(message(""), observations.callback());
    int handled = 0;
    node->setObserveHandler<StringValue>([&](const auto&, const auto&) { ++handled; });
    node->callObserveHandler(newKeys({"/a"}), std::any(early));
    EXPECT_EQ(handled, 0);
    early.reset();
    EXPECT_THAT(reports.conditions(),
                ElementsAre("callbackIter != observeMap.end()",
                            "std::any_cast<ObserverCallbackMap<InMsgType>&>(m_observerCallbackMap) "
                            ".erase((*storedTypeObserverCallback).observeCallback.get())"));
    EXPECT_THAT(observations.calls(), IsEmpty());
}

class ObservedNodeDeathTest : public ObservedNode {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ObservedNode::SetUp();
    }
};

TEST_F(ObservedNodeDeathTest, EndsTheProcessForAnExceptionOfAnObserver) {
    const auto handle = m_node->observe<StringValue>(
        message(""), [](const ChangeSetType&, const Status&) { throw std::runtime_error("boom"); });
    EXPECT_DEATH(deliver("/a"), testing::HasSubstr("Assertion failed: [false] \nat:"));
}

TEST_F(ObservedNodeDeathTest, EndsTheProcessForAnotherRequestType) {
    EXPECT_DEATH(m_node->observe<Int64Value>(number(4), {}),
                 testing::HasSubstr("Assertion failed: [false] \nat:"));
}

TEST_F(ObservedNodeDeathTest, EndsTheProcessWhereNobodyTakesObserversByDescriptor) {
    const auto node = std::make_shared<TreeNode>();
    EXPECT_DEATH(
        node->observeCast(message(""), {}),
        testing::HasSubstr("Assertion failed: [static_cast<bool>(m_observeCastHandler)] \nat:"));
}

}  // namespace
}  // namespace Hox::ObserverTree
