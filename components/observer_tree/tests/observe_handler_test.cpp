#include "hox/observer_tree/iobserve_handler.h"
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
using TestKit::newKeys;
using TestKit::StringValue;

/// Records its calls by the node.
class NotingHandler final : public IObserveHandler<TreeNode, StringValue> {
public:
    void observerArrived(const Observer& observer) override {
        note("arrived " + observer.request->value());
        if (observer.request->value() == "refused") {
            throw std::runtime_error("boom");
        }
        m_lastArrived = &observer;
    }

    void observerLeft(const Observer& observer) override {
        EXPECT_EQ(&observer, m_lastArrived);
        note("left " + observer.request->value());
    }

    void deliver(const ChangeSetType& changes, const Observers& observers) override {
        note("deliver " + changes.begin()->first + " to " + std::to_string(observers.size()));
    }

    void deliverTo(const Observer& observer, const ChangeSetType& changes) override {
        EXPECT_EQ(&observer, m_lastArrived);
        note("deliver " + changes.begin()->first + " to " + observer.request->value());
    }

    ChangeSetType snapshotFor(const Observer& observer, const DataTree& tree) override {
        EXPECT_EQ(&observer, m_lastArrived);
        note("snapshot of " + std::to_string(tree.size()) + " for " + observer.request->value());
        return newKeys({"/snapshot"});
    }

    std::vector<std::string> takeNotes() { return std::exchange(m_notes, {}); }

private:
    void note(const std::string& text) { m_notes.push_back(text); }

    const Observer* m_lastArrived = nullptr;
    std::vector<std::string> m_notes;
};

class NodeWithHandler : public testing::Test {
protected:
    void SetUp() override { m_node->setObserveHandler<StringValue>(m_handler); }

    ObserveRaiiHandleType<StringValue> observe(const std::string& request) {
        return m_node->observe<StringValue>(message(request),
                                            [](const ChangeSetType&, const Status&) {});
    }

    std::shared_ptr<TreeNode> m_node = std::make_shared<TreeNode>();
    std::shared_ptr<NotingHandler> m_handler = std::make_shared<NotingHandler>();
};

TEST_F(NodeWithHandler, TellsItOfEachObserverFromItsArrivalToItsEnd) {
    auto handle = observe("1");
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("arrived 1"));
    m_node->callObserveHandler(newKeys({"/a"}), {});
    m_node->callObserveHandler(newKeys({"/b"}), std::any(handle));
    m_node->callObserveHandler({}, {});
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("deliver /a to 1", "deliver /b to 1"));
    handle.reset();
    m_node->callObserveHandler(newKeys({"/c"}), {});
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("left 1", "deliver /c to 0"));
}

TEST_F(NodeWithHandler, TellsItAheadOfTheHookAndAfterTheLastHook) {
    std::vector<std::string> notes;
    m_node->setNewObserverHandler<StringValue>([&](const StringValue&, const ObserverCallback&) {
        notes = m_handler->takeNotes();
        notes.emplace_back("new");
    });
    m_node->setObserverGoneHandler<StringValue>([&](const StringValue&, const ObserverCallback&) {
        EXPECT_THAT(m_handler->takeNotes(), IsEmpty());
        notes.emplace_back("gone");
    });
    observe("1").reset();
    EXPECT_THAT(notes, ElementsAre("arrived 1", "new", "gone"));
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("left 1"));
}

TEST_F(NodeWithHandler, ForgetsAnObserverThatItRefuses) {
    const LogCapture log;
    const AssertionReports reports;
    EXPECT_THROW(observe("refused"), std::runtime_error);
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                ElementsAre("It is forbidden to throw exceptions from observe handlers and "
                            "callbacks - boom",
                            "inMsg: value: \"refused\"\n"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    m_node->callObserveHandler(newKeys({"/a"}), {});
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("arrived refused", "deliver /a to 0"));
}

TEST_F(NodeWithHandler, AsksItForSnapshots) {
    const auto handle = observe("1");
    m_handler->takeNotes();
    DataTree tree;
    const auto snapshot = m_node->snapshotFor(std::any(handle), tree);
    EXPECT_THAT(TestKit::linesOf(snapshot), ElementsAre("/snapshot: null -> /snapshot"));
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("snapshot of 0 for 1"));
    EXPECT_THROW(m_node->snapshotFor(std::any(5), tree), std::bad_any_cast);
}

TEST(NodeWithoutHandler, HasNoSnapshots) {
    const auto node = std::make_shared<TreeNode>();
    DataTree tree;
    tree.setKeyPattern("/");
    tree.insert_or_assign("/a", TestKit::value("1"));
    const auto handle = node->observe<StringValue>(message(""), {});
    EXPECT_THAT(node->snapshotFor(std::any(handle), tree), IsEmpty());
}

TEST_F(NodeWithHandler, KeepsTheFirstOfTwo) {
    EXPECT_THROW(m_node->setObserveHandler<StringValue>(std::make_shared<NotingHandler>()),
                 DoubleRegistrationError);
    const auto handle = observe("1");
    EXPECT_THAT(m_handler->takeNotes(), ElementsAre("arrived 1"));
}

TEST(ObserverRecord, HasTwoMembers) {
    const auto node = std::make_shared<TreeNode>();
    const auto handle = node->observe<StringValue>(message("r"), {});
    const auto& [callback, request] = *handle;
    EXPECT_FALSE(*callback);
    EXPECT_EQ(request->value(), "r");
}

}  // namespace
}  // namespace Hox::ObserverTree
