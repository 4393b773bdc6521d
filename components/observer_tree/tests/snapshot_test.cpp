#include "hox/observer_tree/snapshot.h"

#include <algorithm>
#include <ctime>
#include <random>
#include <set>

#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/path_error.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using TestKit::linesOf;
using TestKit::newKeys;
using TestKit::Observations;
using TestKit::onUpdate;
using TestKit::pattern;
using TestKit::randomPath;
using TestKit::update;
using TestKit::value;

TEST(AddToSnapshot, AddsSelectedElementsAfterThoseThatAreThere) {
    DataTreeValMap map;
    for (const char* key : {"/b", "/c", "/d"}) {
        map.insert_or_assign(key, value(key));
    }
    auto snapshot = newKeys({"/a"});
    addToSnapshot(snapshot, map, [](const std::string& key) { return key != "/c"; });
    EXPECT_THAT(linesOf(snapshot),
                ElementsAre("/a: null -> /a", "/b: null -> /b", "/d: null -> /d"));
    EXPECT_EQ(snapshot.at("/d").at(0).current, map.find("/d")->second);
}

TEST(AddToSnapshot, EndsWithTheElementThatFails) {
    DataTreeValMap map;
    for (const char* key : {"/a", "/b", "/c", "/d"}) {
        map.insert_or_assign(key, value(key));
    }
    ChangeSetType snapshot;
    addToSnapshot(snapshot, map, [](const std::string& key) {
        if (key == "/c") {
            throw std::runtime_error("boom");
        }
        return key != "/a";
    });
    EXPECT_THAT(linesOf(snapshot), ElementsAre("/b: null -> /b", "/c: null -> /c"));
}

/// A tree of many keys, /n/<number>/x, with observe nodes for patterns and for expressions, and a
/// node with a hook only.
class SnapshotOfManyKeys : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/obs");
        m_tree.registerDefaultObserveHandler("/other");
        m_tree.registerDefaultRegExObserveHandler("/regex");
        m_tree.registerNewObserverHandler<ObserveReq>(
            "/hook", [](const ObserveReq&, const ObserverCallback&) {});
        onUpdate(m_tree, "/", [this](const std::string& count, DataTree& data) {
            for (int i = 0; i < std::stoi(count); ++i) {
                m_values.push_back(value("v"));
                data.insert_or_assign("/n/" + std::to_string(i) + "/x", m_values.back());
            }
        });
    }

    ObserveRaiiHandleType<ObserveReq> observe(
        const std::string& address, const std::string& keyPattern,
        const ObserverCallback& callback = [](auto&&...) {}) {
        return m_tree.observe<ObserveReq>(address, pattern(keyPattern), callback, 0);
    }

    /// The processor time of this thread for 50 new observers, each with its own pattern; the
    /// minimum of several runs.
    double timeOfNewcomers(const std::string& address, const std::string& end) {
        double least = 1e9;
        for (int round = 0; round < 5; ++round) {
            timespec start{};
            timespec stop{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
            for (int i = 0; i < 50; ++i) {
                observe(address, "/n/" + std::to_string(i) + end);
            }
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &stop);
            least = std::min(least, static_cast<double>(stop.tv_sec - start.tv_sec) +
                                        1e-9 * static_cast<double>(stop.tv_nsec - start.tv_nsec));
        }
        return least;
    }

    std::vector<DataTreeValPtr> m_values;
    ObserverTree m_tree;
};

TEST_F(SnapshotOfManyKeys, CostsWhatItSelects) {
    update(m_tree, "/", "50");
    const auto keys = timeOfNewcomers("/obs", "/x");
    const auto subtrees = timeOfNewcomers("/obs", "/**");
    const auto hooks = timeOfNewcomers("/hook", "/**");
    update(m_tree, "/", "50000");
    // A walk over all keys would take a thousand times as long.
    EXPECT_LT(timeOfNewcomers("/obs", "/x"), 10 * keys);
    EXPECT_LT(timeOfNewcomers("/obs", "/**"), 10 * subtrees);
    EXPECT_LT(timeOfNewcomers("/hook", "/**"), 10 * hooks);
}

TEST_F(SnapshotOfManyKeys, HoldsNothingElseUntilItIsDelivered) {
    std::vector<ObserveRaiiHandleType<ObserveReq>> handles;
    Observations observations;
    const auto heldByOthers = [this] {
        return std::count_if(m_values.begin(), m_values.end(),
                             [](const auto& held) { return held.use_count() > 2; });
    };
    std::ptrdiff_t held = -1;
    const auto outer = observe("/other", "/start", [&](auto&&...) {
        const auto before = heldByOthers();
        for (const char* keyPattern : {"/n/7/x", "/n/8/**", "/n/9/*", "/n/1", "/none/**", "/n*"}) {
            handles.push_back(observe("/obs", keyPattern, observations.callback()));
        }
        handles.push_back(observe("/hook", "/**", observations.callback()));
        held = heldByOthers() - before;
        // A malformed pattern is answered immediately.
        EXPECT_EQ(observations.take().size(), 1U);
    });
    update(m_tree, "/", "1000");
    onUpdate(m_tree, "/start",
             [](const std::string&, DataTree& data) { data.insert_or_assign("/start", nullptr); });
    update(m_tree, "/start");
    EXPECT_EQ(held, 3);
    EXPECT_THAT(observations.calls(),
                ElementsAre("/n/7/x: null -> v", "/n/8/x: null -> v", "/n/9/x: null -> v"));
}

class Snapshot : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/obs");
        m_tree.registerDefaultRegExObserveHandler("/regex");
        onUpdate(m_tree, "/", [](const std::string& key, DataTree& data) {
            data.insert_or_assign(key, value(key));
        });
    }

    std::string snapshotBy(const std::string& keyPattern) {
        std::string keys;
        const auto handle = m_tree.observe<ObserveReq>(
            "/obs", pattern(keyPattern),
            [&keys](const ChangeSetType& changes, const Status& status) {
                for (const auto& change : changes) {
                    keys += change.first + " ";
                }
                keys += status.isOk() ? "" : "malformed";
            },
            0);
        return keys;
    }

    Hox::Testing::LogCapture m_log;
    ObserverTree m_tree;
};

TEST_F(Snapshot, IsTheWholeTreeForAFunction) {
    std::vector<std::string> told;
    m_tree.registerObserveHandler<ObserveReq>(
        "/function",
        [&told](const ChangeSetType& changes, const ObserverCallbackMap<ObserveReq>& observers) {
            told = linesOf(changes);
            told.push_back(std::to_string(observers.size()));
        });
    update(m_tree, "/", "/a/b");
    update(m_tree, "/", "/c");
    const auto first = m_tree.observe<ObserveReq>("/function", pattern("/x"), {}, 0);
    const auto second = m_tree.observe<ObserveReq>("/function", pattern("/x"), {}, 0);
    EXPECT_THAT(told, ElementsAre("/a/b: null -> /a/b", "/c: null -> /c", "1"));
}

TEST_F(Snapshot, IsWhatTheExpressionMatches) {
    update(m_tree, "/", "/a/b");
    update(m_tree, "/", "/a/" + std::string(5000, 'b'));
    update(m_tree, "/", "/c");
    RegExObserveReq request;
    request.set_reg_ex("/a/b*|/d");
    Observations observations;
    const auto handle =
        m_tree.observe<RegExObserveReq>("/regex", request, observations.callback(), 0);
    EXPECT_THAT(observations.calls(), ElementsAre("/a/b: null -> /a/b"));
}

TEST_F(Snapshot, FailsAtItsDeliveryForAPatternThatCannotBeMatched) {
    const Hox::Testing::AssertionReports reports;
    update(m_tree, "/", "/a");
    update(m_tree, "/", "/a/b/c");
    update(m_tree, "/", "/b");
    m_log.clear();
    EXPECT_EQ(snapshotBy("/a/**/b"), "");
    EXPECT_TRUE(m_log.containsInOrder(
        {"Calling Observers - callbacksBeingProcessed False",
         "Caught exception in Observer Tree observe Callback:\nUnexpected index",
         "Done Calling Observers"}));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    EXPECT_EQ(snapshotBy("/b/**/b"), "");
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

TEST_F(Snapshot, HoldsWhatTheMatcherSelects) {
    const PathManipulation path;
    std::mt19937 random(20240612);
    std::set<std::string> keys;
    int selected = 0;
    for (int round = 0; round < 1500; ++round) {
        if (keys.size() < 150) {
            const auto key = randomPath(random, {"a", "b", "ab", "a!", "a0"});
            keys.insert(key);
            update(m_tree, "/", key);
        }
        auto keyPattern = randomPath(random, {"a", "b", "ab", "*"});
        keyPattern += keyPattern != "/" && random() % 2 == 0 ? "/**" : "";
        const auto matcher = path.parsePath(PathType::KeyPattern, keyPattern);
        std::string expected;
        for (const auto& key : keys) {
            if (path.keyMatches(key, matcher)) {
                expected += key + " ";
                ++selected;
            }
        }
        ASSERT_EQ(snapshotBy(keyPattern), expected) << keyPattern;
    }
    EXPECT_GT(selected, 3000);
}

}  // namespace
}  // namespace Hox::ObserverTree
