#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "hox/observer_tree/observer_tree.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using TestKit::Observations;
using TestKit::onUpdate;
using TestKit::update;
using TestKit::value;

using Handle = ObserveRaiiHandleType<RegExObserveReq>;

/// A tree with the regular-expression observe handler at /obs; an update of / creates the keys in
/// its text, separated by blanks.
class RegExObserveHandler : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultRegExObserveHandler("/obs");
        onUpdate(m_tree, "/", [](const std::string& keys, DataTree& data) {
            std::istringstream stream(keys);
            for (std::string key; stream >> key;) {
                data.insert_or_assign(key, value("v"));
            }
        });
    }

    Handle observe(const std::string& expression, const ObserverCallback& callback) {
        RegExObserveReq request;
        request.set_reg_ex(expression);
        return m_tree.observe<RegExObserveReq>("/obs", request, callback, 0);
    }

    std::vector<std::string> seenBy(const std::string& expression, const std::string& keys) {
        Observations observations;
        const auto handle = observe(expression, observations.callback());
        observations.take();
        update(m_tree, "/", keys);
        return observations.take();
    }

    /// The calls that an observer with this expression gets.
    std::vector<std::string> toldOf(const std::string& expression) {
        Observations observations;
        const auto handle = observe(expression, observations.callback());
        update(m_tree, "/", "/a /b");
        return observations.take();
    }

    Hox::Testing::LogCapture m_log;
    ObserverTree m_tree;
};

TEST_F(RegExObserveHandler, SelectsTheKeysThatMatchAsAWhole) {
    EXPECT_THAT(seenBy("/keep/.*|/__csid", "/keep /keep/a /x/keep/a /__csid /__csid/a /x/__csid"),
                ElementsAre("/__csid: null -> v, /keep/a: null -> v"));
    EXPECT_THAT(seenBy("/x", "/x /xx /x/x /y/x"), ElementsAre("/x: null -> v"));
    EXPECT_THAT(seenBy("/[0-9]+", "/12 /12a /a12"), ElementsAre("/12: null -> v"));
    EXPECT_THAT(seenBy("/", "/ /z"), ElementsAre("/: null -> v"));
}

TEST_F(RegExObserveHandler, BringsTheSnapshotFirst) {
    update(m_tree, "/", "/keep/a /other");
    Observations observations;
    const auto handle = observe("/keep/.*", observations.callback());
    EXPECT_THAT(observations.take(), ElementsAre("/keep/a: null -> v"));
    update(m_tree, "/", "/keep/a");
    EXPECT_THAT(observations.take(), ElementsAre("/keep/a: v -> v"));
}

TEST_F(RegExObserveHandler, NeverCallsWithNothing) {
    update(m_tree, "/", "/other");
    Observations observations;
    const auto handle = observe("/keep/.*", observations.callback());
    const auto empty = observe("", observations.callback());
    update(m_tree, "/", "/keep /x/keep/a");
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(RegExObserveHandler, CallsOncePerChangeSet) {
    Observations observations;
    const auto handle = observe("/.*", observations.callback());
    update(m_tree, "/", "/a /b /a");
    EXPECT_THAT(observations.take(), ElementsAre("/a: v -> v, /b: null -> v"));
    update(m_tree, "/", "/c");
    update(m_tree, "/", "/d");
    EXPECT_THAT(observations.take(), ElementsAre("/c: null -> v", "/d: null -> v"));
}

TEST_F(RegExObserveHandler, SelectsForEachObserverByItself) {
    Observations all;
    Observations some;
    Observations none;
    Observations again;
    [[maybe_unused]] const auto handles = {
        observe("/.*", all.callback()), observe("/a/.", some.callback()),
        observe("/b", none.callback()), observe("/a/.", again.callback())};
    update(m_tree, "/", "/a /a/b");
    EXPECT_THAT(all.calls(), ElementsAre("/a: null -> v, /a/b: null -> v"));
    EXPECT_THAT(some.calls(), ElementsAre("/a/b: null -> v"));
    EXPECT_THAT(again.calls(), ElementsAre("/a/b: null -> v"));
    EXPECT_THAT(none.calls(), IsEmpty());
}

TEST_F(RegExObserveHandler, CallsTheObserversInTheOrderOfTheirCallbacks) {
    std::vector<std::size_t> called;
    std::vector<Handle> handles;
    for (std::size_t i = 0; i < 8; ++i) {
        handles.push_back(observe(
            "/a", [&called, i](const ChangeSetType&, const Status&) { called.push_back(i); }));
    }
    update(m_tree, "/", "/a");
    ASSERT_EQ(called.size(), handles.size());
    EXPECT_TRUE(
        std::is_sorted(called.begin(), called.end(), [&](std::size_t left, std::size_t right) {
            return std::less<>()(handles.at(left)->observeCallback.get(),
                                 handles.at(right)->observeCallback.get());
        }));
}

TEST_F(RegExObserveHandler, TellsAllWithTheDefaultStatus) {
    int calls = 0;
    const auto handle = observe("/.*", [&](const ChangeSetType&, const Status& status) {
        ++calls;
        EXPECT_TRUE(status.isOk());
        EXPECT_EQ(status.proto().SerializeAsString(), "");
    });
    update(m_tree, "/", "/a");
    EXPECT_EQ(calls, 1);
}

TEST_F(RegExObserveHandler, PassesOverAMalformedExpressionWithoutHarmToOthers) {
    Observations good;
    Observations bad;
    Observations alsoGood;
    [[maybe_unused]] const auto handles = {observe("/.*", good.callback()),
                                           observe("/(", bad.callback()),
                                           observe("/.*", alsoGood.callback())};
    EXPECT_EQ(bad.take().size(), 1U);
    update(m_tree, "/", "/a");
    EXPECT_THAT(bad.calls(), IsEmpty());
    EXPECT_THAT(good.calls(), ElementsAre("/a: null -> v"));
    EXPECT_THAT(alsoGood.calls(), ElementsAre("/a: null -> v"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(RegExObserveHandler, TellsAnObserverOfItsMalformedExpressionOnce) {
    const std::string start = " !INVALID_ARGUMENT Regular expression error, regex ";
    EXPECT_THAT(toldOf("/(a"),
                ElementsAre(start + "\"/(a\" not valid - Mismatched '(' and ')' in regular "
                                    "expression"));
    EXPECT_THAT(toldOf(R"(/\1)"),
                ElementsAre(start + R"("/\1" not valid - Back-reference index exceeds current )"
                                    "sub-expression count."));
    const std::string tooLong(1001, 'a');
    const auto told = toldOf(tooLong);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(TestKit::withoutLocation(told.front(), "bounded_regex.cpp"),
              start + "\"" + tooLong +
                  "\" not valid - Invalid Argument Error: Regular expression has 1001 bytes, "
                  "only 1000 are allowed");
}

TEST_F(RegExObserveHandler, TellsAnObserverOfAnExpressionThatTakesTooLongOnce) {
    Observations observations;
    Observations others;
    const auto handle = observe("/(a+)+", observations.callback());
    const auto other = observe("/a+b", others.callback());
    update(m_tree, "/", "/a /" + std::string(1000, 'a') + "b");
    const auto told = observations.take();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_THAT(
        told.front(),
        StartsWith(R"( !INVALID_ARGUMENT Regular expression error, regex "/(a+)+" not valid)"
                   " - Invalid Argument Error: Regular expression needs too much time or "
                   "memory: "));
    EXPECT_EQ(others.take().size(), 1U);
    update(m_tree, "/", "/a");
    EXPECT_THAT(observations.calls(), IsEmpty());
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(RegExObserveHandler, TellsANewcomerThatItsExpressionTakesTooLongForWhatIsThere) {
    update(m_tree, "/", "/a /" + std::string(1000, 'a') + "b /b");
    Observations observations;
    const auto handle = observe("/(a+)+|/b", observations.callback());
    const auto told = observations.take();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_THAT(told.front(),
                testing::HasSubstr("Regular expression needs too much time or memory"));
    update(m_tree, "/", "/b");
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(RegExObserveHandler, PassesOverKeysThatAreTooLongToBeMatched) {
    const auto keyOfSize = [](std::size_t size) { return "/" + std::string(size - 1, 'k'); };
    EXPECT_THAT(seenBy("/k*", "/k " + keyOfSize(4096) + " " + keyOfSize(4097)),
                ElementsAre("/k: null -> v, " + keyOfSize(4096) + ": null -> v"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

}  // namespace
}  // namespace Hox::ObserverTree
