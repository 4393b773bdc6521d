#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::linesOf;
using TestKit::message;
using TestKit::Observations;
using TestKit::onUpdate;
using TestKit::onUpdateWrite;
using TestKit::pattern;
using TestKit::StringValue;
using TestKit::update;
using TestKit::value;

using Handle = ObserveRaiiHandleType<ObserveReq>;

/// A tree with two observe nodes, /z registered before /y, and a list of the events.
class Delivery : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/z");
        m_tree.registerDefaultObserveHandler("/y");
        onUpdateWrite(m_tree, "/a", "/a");
        onUpdateWrite(m_tree, "/b", "/b");
    }

    /// Observes all keys; each call becomes an event "name: changes", then `act` runs.
    Handle observe(const std::string& address, const std::string& name,
                   std::function<void()> act = {}) {
        return m_tree.observe<ObserveReq>(
            address, pattern("/**"),
            [this, name, act = std::move(act)](const ChangeSetType& changes, const Status&) {
                note(name, changes);
                if (act) {
                    act();
                }
            },
            0);
    }

    void note(const std::string& name, const ChangeSetType& changes) {
        std::string event = name + ":";
        for (const auto& line : linesOf(changes)) {
            event += " [" + line + "]";
        }
        m_events.push_back(event);
    }

    std::vector<std::string> takeEvents() { return std::exchange(m_events, {}); }

    Hox::Testing::LogCapture m_log;
    std::vector<std::string> m_events;
    ObserverTree m_tree;
};

TEST_F(Delivery, EndsBeforeTheOperationReturns) {
    const auto handle = observe("/z", "z");
    update(m_tree, "/a", "1");
    m_events.emplace_back("returned");
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> 1]", "returned"));
    m_tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("2"));
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> 1]", "returned", "z: [/a: 1 -> 2]"));
}

TEST_F(Delivery, MakesOneChangeSetOfAllWritesOfAHandler) {
    onUpdate(m_tree, "/w", [](const std::string&, DataTree& data) {
        data.insert_or_assign("/w/2", value("x"));
        data.insert_or_assign("/w/1", value("y"));
        data.insert_or_assign("/w/2", value("z"));
    });
    [[maybe_unused]] const auto handles = {observe("/z", "z"), observe("/y", "y")};
    update(m_tree, "/w");
    EXPECT_THAT(m_events, ElementsAre("z: [/w/1: null -> y] [/w/2: x -> z]",
                                      "y: [/w/1: null -> y] [/w/2: x -> z]"));
}

TEST_F(Delivery, FollowsTheOrderInWhichObserveNodesWereRegistered) {
    m_tree.registerDefaultObserveHandler("/m");
    [[maybe_unused]] const auto handles = {observe("/m", "m"), observe("/y", "y"),
                                           observe("/z", "z")};
    update(m_tree, "/a", "1");
    EXPECT_THAT(m_events,
                ElementsAre("z: [/a: null -> 1]", "y: [/a: null -> 1]", "m: [/a: null -> 1]"));
}

TEST_F(Delivery, IncludesTheWritesOfAHandlerThatReportsAFailure) {
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
        "/w", [](const StringValue&, DataTree& data) {
            data.insert_or_assign("/w", value("1"));
            return UnaryHandlerReturnType<StringValue>{nullptr, Status(ProtoStatus::ABORTED, "no")};
        });
    const auto handle = observe("/z", "z");
    EXPECT_EQ(update(m_tree, "/w").status.statusCode(), ProtoStatus::ABORTED);
    EXPECT_THAT(m_events, ElementsAre("z: [/w: null -> 1]"));
}

TEST_F(Delivery, KeepsTheWritesOfAHandlerThatThrowsForTheNextOperation) {
    const AssertionReports reports;
    onUpdate(m_tree, "/w", [](const std::string&, DataTree& data) {
        data.insert_or_assign("/w", value("1"));
        throw std::runtime_error("boom");
    });
    const auto handle = observe("/z", "z");
    EXPECT_THROW(update(m_tree, "/w"), std::runtime_error);
    EXPECT_THROW(m_tree.unaryOpCast<UnaryOps::UPDATE>("/w", message("")), std::runtime_error);
    EXPECT_THROW(update(m_tree, "/absent"), FuncNodeHandlerError);
    EXPECT_THAT(m_events, IsEmpty());
    EXPECT_THAT(m_tree.dumpDataTree(), testing::StartsWith("key: \"/w\""));
    update(m_tree, "/a", "2");
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> 2] [/w: 1 -> 1]"));
}

TEST_F(Delivery, BringsANewObserverPendingWritesInTheSnapshotAndAgainAsAChange) {
    const AssertionReports reports;
    onUpdate(m_tree, "/w", [](const std::string&, DataTree& data) {
        data.insert_or_assign("/w", value("1"));
        throw std::runtime_error("boom");
    });
    const auto old = observe("/z", "old");
    EXPECT_THROW(update(m_tree, "/w"), std::runtime_error);
    const auto fresh = observe("/y", "new");
    EXPECT_THAT(m_events, ElementsAre("new: [/w: null -> 1]", "old: [/w: null -> 1]",
                                      "new: [/w: null -> 1]"));
}

TEST_F(Delivery, TakesTheWritesOfANestedCallTogetherWithEarlierOnesOfItsCaller) {
    onUpdate(m_tree, "/w", [this](const std::string&, DataTree& data) {
        data.insert_or_assign("/w", value("1"));
        update(m_tree, "/a", "2");
        m_events.emplace_back("nested call returned");
        data.insert_or_assign("/a/after", value("3"));
    });
    const auto handle = observe("/z", "z");
    update(m_tree, "/w");
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> 2] [/w: null -> 1]", "nested call returned",
                                      "z: [/a/after: null -> 3]"));
}

TEST_F(Delivery, MakesTheNextChangeSetOfWhatObserversWrite) {
    int rounds = 0;
    const auto first = observe("/z", "z", [&] {
        if (++rounds <= 2) {
            update(m_tree, "/a", "a" + std::to_string(rounds));
            update(m_tree, "/b", "b" + std::to_string(rounds));
            m_events.emplace_back("z done");
        }
    });
    const auto second = observe("/y", "y");
    update(m_tree, "/a", "start");
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> start]", "z done", "y: [/a: null -> start]",
                                      "z: [/a: start -> a1] [/b: null -> b1]", "z done",
                                      "y: [/a: start -> a1] [/b: null -> b1]",
                                      "z: [/a: a1 -> a2] [/b: b1 -> b2]",
                                      "y: [/a: a1 -> a2] [/b: b1 -> b2]"));
}

TEST_F(Delivery, TracesNestedRunsOfTheLoop) {
    bool isFirst = true;
    const auto handle = observe("/z", "z", [&] {
        if (std::exchange(isFirst, false)) {
            update(m_tree, "/b", "2");
        }
    });
    m_log.clear();
    update(m_tree, "/a", "1");
    EXPECT_TRUE(m_log.containsInOrder({"Calling Observers - callbacksBeingProcessed False",
                                       "Calling Observers - callbacksBeingProcessed True",
                                       "Done Calling Observers"}));
    const auto texts = m_log.texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "Done Calling Observers"), 1);
    EXPECT_EQ(std::count_if(
                  texts.begin(), texts.end(),
                  [](const std::string& text) { return text.rfind("Node Change Key /b", 0) == 0; }),
              1);
}

TEST_F(Delivery, GoesOnAfterAnObserverThatThrows) {
    const AssertionReports reports;
    const auto bad = observe("/z", "z", [] { throw std::runtime_error("boom"); });
    const auto good = observe("/y", "y");
    EXPECT_NO_THROW(update(m_tree, "/a", "1"));
    EXPECT_THAT(takeEvents(), ElementsAre("z: [/a: null -> 1]", "y: [/a: null -> 1]"));
    EXPECT_TRUE(m_log.containsInOrder(
        {"Caught exception in Observer Tree observe Callback:\nboom", "Done Calling Observers"}));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    EXPECT_NO_THROW(update(m_tree, "/a", "2"));
    EXPECT_THAT(m_events, ElementsAre("z: [/a: 1 -> 2]", "y: [/a: 1 -> 2]"));
}

TEST_F(Delivery, GoesOnAfterAnObserveHandlerThatThrows) {
    const AssertionReports reports;
    ObserverTree tree;
    tree.registerObserveHandler<ObserveReq>(
        "/bad", [](const ChangeSetType&, const ObserverCallbackMap<ObserveReq>&) {
            throw std::runtime_error("boom");
        });
    tree.registerDefaultObserveHandler("/good");
    onUpdateWrite(tree, "/a", "/a");
    Observations observations;
    const auto handle =
        tree.observe<ObserveReq>("/good", pattern("/**"), observations.callback(), 0);
    update(tree, "/a", "1");
    EXPECT_THAT(observations.calls(), ElementsAre("/a: null -> 1"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(Delivery, BringsTheSnapshotBeforeObserveReturns) {
    update(m_tree, "/b", "2");
    update(m_tree, "/a", "1");
    update(m_tree, "/a", "3");
    const auto old = observe("/z", "old");
    takeEvents();
    const auto fresh = observe("/z", "new");
    m_events.emplace_back("returned");
    EXPECT_THAT(takeEvents(), ElementsAre("new: [/a: null -> 3] [/b: null -> 2]", "returned"));
    update(m_tree, "/a", "4");
    EXPECT_THAT(m_events, testing::UnorderedElementsAre("old: [/a: 3 -> 4]", "new: [/a: 3 -> 4]"));
}

TEST_F(Delivery, BringsOnlyWhatThePatternSelectsFromTheSnapshot) {
    update(m_tree, "/a", "1");
    update(m_tree, "/b", "2");
    Observations some;
    Observations none;
    [[maybe_unused]] const auto handles = {
        m_tree.observe<ObserveReq>("/z", pattern("/b"), some.callback(), 0),
        m_tree.observe<ObserveReq>("/z", pattern("/c/**"), none.callback(), 0)};
    EXPECT_THAT(some.calls(), ElementsAre("/b: null -> 2"));
    EXPECT_THAT(none.calls(), IsEmpty());
}

TEST_F(Delivery, BringsNoSnapshotOfAnEmptyTree) {
    const auto handle = observe("/z", "z");
    EXPECT_THAT(m_events, IsEmpty());
    EXPECT_TRUE(m_log.containsInOrder(
        {"Calling Observers - callbacksBeingProcessed False", "Done Calling Observers"}));
}

TEST_F(Delivery, BringsTheSnapshotToAnObserverFromInsideACallbackLater) {
    Handle inner;
    const auto outer = observe("/z", "outer", [&] {
        if (!inner) {
            inner = observe("/y", "inner");
            m_events.emplace_back("observe returned");
            update(m_tree, "/b", "2");
        }
    });
    update(m_tree, "/a", "1");
    // The pending set of the pass also reaches the new observer, because its node comes later.
    EXPECT_THAT(takeEvents(), ElementsAre("outer: [/a: null -> 1]", "observe returned",
                                          "inner: [/a: null -> 1]", "inner: [/a: null -> 1]",
                                          "outer: [/b: null -> 2]", "inner: [/b: null -> 2]"));
    update(m_tree, "/a", "3");
    EXPECT_THAT(m_events, ElementsAre("outer: [/a: 1 -> 3]", "inner: [/a: 1 -> 3]"));
}

TEST_F(Delivery, TakesTheSnapshotWhenObserveIsCalled) {
    Handle inner;
    const auto outer = observe("/y", "outer", [&] {
        if (!inner) {
            update(m_tree, "/b", "2");
            inner = observe("/z", "inner");
            update(m_tree, "/b", "3");
        }
    });
    update(m_tree, "/a", "1");
    EXPECT_THAT(m_events,
                ElementsAre("outer: [/a: null -> 1]", "inner: [/a: null -> 1] [/b: null -> 2]",
                            "inner: [/b: 2 -> 3]", "outer: [/b: 2 -> 3]"));
}

TEST_F(Delivery, BringsDeferredSnapshotsFirstInFirstOut) {
    std::vector<Handle> inner;
    const auto outer = observe("/y", "outer", [&] {
        for (const char* name : {"first", "second", "third"}) {
            if (inner.size() < 3) {
                inner.push_back(observe("/z", name));
            }
        }
    });
    update(m_tree, "/a", "1");
    EXPECT_THAT(m_events, ElementsAre("outer: [/a: null -> 1]", "first: [/a: null -> 1]",
                                      "second: [/a: null -> 1]", "third: [/a: null -> 1]"));
}

TEST_F(Delivery, RunsDeferredCallbacksAheadOfTheChangesAndThoseThatTheyAdd) {
    bool isFirst = true;
    onUpdate(m_tree, "/w", [&](const std::string&, DataTree& data) {
        m_tree.callAllObserveHandlers(data, [this, &data] {
            m_events.emplace_back("1");
            m_tree.callAllObserveHandlers(data, [this] { m_events.emplace_back("3"); });
            m_tree.callAllObserveHandlers(data, [this] { m_events.emplace_back("4"); });
            m_events.emplace_back("2");
        });
    });
    const auto handle = observe("/z", "z", [&] {
        if (std::exchange(isFirst, false)) {
            update(m_tree, "/b", "x");
            update(m_tree, "/w");
            m_events.emplace_back("z done");
        }
    });
    update(m_tree, "/a", "y");
    EXPECT_THAT(takeEvents(), ElementsAre("z: [/a: null -> y]", "z done", "1", "2", "3", "4",
                                          "z: [/b: null -> x]"));
    update(m_tree, "/w");
    EXPECT_THAT(m_events, ElementsAre("1", "2", "3", "4"));
}

TEST_F(Delivery, KeepsAnObserverForItsDeferredSnapshot) {
    bool isFirst = true;
    m_tree.registerObserverGoneHandler<ObserveReq>(
        "/z",
        [this](const ObserveReq&, const ObserverCallback&) { m_events.emplace_back("gone"); });
    const auto outer = observe("/y", "outer", [&] {
        if (std::exchange(isFirst, false)) {
            observe("/z", "inner").reset();
            m_events.emplace_back("dropped");
        }
    });
    update(m_tree, "/a", "1");
    EXPECT_THAT(takeEvents(),
                ElementsAre("outer: [/a: null -> 1]", "dropped", "inner: [/a: null -> 1]", "gone"));
    update(m_tree, "/a", "2");
    EXPECT_THAT(m_events, ElementsAre("outer: [/a: 1 -> 2]"));
}

TEST_F(Delivery, BringsTheSnapshotToAnObserverThatComesAsAnotherOneGoes) {
    bool isFirst = true;
    std::vector<Handle> next;
    m_tree.registerObserverGoneHandler<ObserveReq>("/z",
                                                   [&](const ObserveReq&, const ObserverCallback&) {
                                                       m_events.emplace_back("gone");
                                                       next.push_back(observe("/y", "next"));
                                                       next.push_back(observe("/y", "last"));
                                                   });
    const auto outer = observe("/y", "outer", [&] {
        if (std::exchange(isFirst, false)) {
            observe("/z", "inner").reset();
        }
    });
    update(m_tree, "/a", "1");
    EXPECT_THAT(m_events, ElementsAre("outer: [/a: null -> 1]", "inner: [/a: null -> 1]", "gone",
                                      "next: [/a: null -> 1]", "last: [/a: null -> 1]"));
}

TEST_F(Delivery, ReachesNoObserverWhoseHandleWasDroppedAhead) {
    auto later = observe("/y", "later");
    const auto first = observe("/z", "first", [&] { later.reset(); });
    update(m_tree, "/a", "1");
    EXPECT_THAT(m_events, ElementsAre("first: [/a: null -> 1]"));
}

TEST_F(Delivery, ReachesNodesThatAreRegisteredMeanwhile) {
    bool isFirst = true;
    std::vector<std::string> changes;
    const auto first = observe("/z", "first", [&] {
        if (std::exchange(isFirst, false)) {
            m_tree.registerObserveHandler<ObserveReq>(
                "/new", [&](const ChangeSetType& set, const ObserverCallbackMap<ObserveReq>&) {
                    changes = linesOf(set);
                });
        }
    });
    update(m_tree, "/a", "1");
    EXPECT_THAT(changes, ElementsAre("/a: null -> 1"));
}

TEST_F(Delivery, CallsHandlersOfNodesWithoutObservers) {
    std::size_t observers = 7;
    m_tree.registerObserveHandler<ObserveReq>(
        "/w", [&](const ChangeSetType&, const ObserverCallbackMap<ObserveReq>& map) {
            observers = map.size();
        });
    update(m_tree, "/a", "1");
    EXPECT_EQ(observers, 0U);
}

TEST_F(Delivery, EndsWithTheHandle) {
    auto handle = observe("/z", "z");
    update(m_tree, "/a", "1");
    handle.reset();
    update(m_tree, "/a", "2");
    EXPECT_THAT(m_events, ElementsAre("z: [/a: null -> 1]"));
}

TEST_F(Delivery, SurvivesHandlesThatOutliveTheTree) {
    Handle handle;
    Observations observations;
    {
        ObserverTree tree;
        tree.registerDefaultObserveHandler("/z");
        handle = tree.observe<ObserveReq>("/z", pattern("/**"), observations.callback(), 0);
    }
    handle.reset();
    EXPECT_THAT(observations.calls(), IsEmpty());
}

}  // namespace
}  // namespace Hox::ObserverTree
