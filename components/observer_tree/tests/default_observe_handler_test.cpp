#include <malloc.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::Observations;
using TestKit::onUpdate;
using TestKit::pattern;
using TestKit::randomPath;
using TestKit::update;
using TestKit::value;

/// A tree with the default observe handler at /obs; an update of / creates the keys in its text,
/// separated by blanks.
class DefaultObserveHandler : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/obs");
        onUpdate(m_tree, "/", [](const std::string& keys, DataTree& data) {
            std::istringstream stream(keys);
            for (std::string key; stream >> key;) {
                data.insert_or_assign(key, value("v"));
            }
        });
    }

    ObserveRaiiHandleType<ObserveReq> observe(const std::string& keyPattern,
                                              const ObserverCallback& callback) {
        return m_tree.observe<ObserveReq>("/obs", pattern(keyPattern), callback, 0);
    }

    std::vector<std::string> seenBy(const std::string& keyPattern, const std::string& keys) {
        Observations observations;
        const auto handle = observe(keyPattern, observations.callback());
        observations.take();
        update(m_tree, "/", keys);
        return observations.take();
    }

    Hox::Testing::LogCapture m_log;
    ObserverTree m_tree;
};

TEST_F(DefaultObserveHandler, SelectsChangesByThePattern) {
    EXPECT_THAT(seenBy("/a/*", "/a /a/b /a/c /a/b/c /d/e"),
                ElementsAre("/a/b: null -> v, /a/c: null -> v"));
    EXPECT_THAT(seenBy("/a/**", "/a /a/b /b"), ElementsAre("/a: v -> v, /a/b: v -> v"));
    EXPECT_THAT(seenBy("/**/*", "/ /x"), ElementsAre("/x: null -> v"));
    EXPECT_THAT(seenBy("/", "/ /x"), ElementsAre("/: v -> v"));
    EXPECT_THAT(seenBy("/**", "/ /x"), ElementsAre("/: v -> v, /x: v -> v"));
}

TEST_F(DefaultObserveHandler, NeverCallsWithNothing) {
    EXPECT_THAT(seenBy("/a/*", "/a /b /b/c"), IsEmpty());
}

TEST_F(DefaultObserveHandler, SelectsForEachObserverByItself) {
    Observations all;
    Observations some;
    Observations none;
    Observations again;
    [[maybe_unused]] const auto handles = {
        observe("/**", all.callback()), observe("/a/*", some.callback()),
        observe("/b", none.callback()), observe("/a/*", again.callback())};
    update(m_tree, "/", "/a /a/b");
    EXPECT_THAT(all.calls(), ElementsAre("/a: null -> v, /a/b: null -> v"));
    EXPECT_THAT(some.calls(), ElementsAre("/a/b: null -> v"));
    EXPECT_THAT(again.calls(), ElementsAre("/a/b: null -> v"));
    EXPECT_THAT(none.calls(), IsEmpty());
}

TEST_F(DefaultObserveHandler, KeepsSelectingAfterObserversCameAndWent) {
    for (int round = 0; round < 100; ++round) {
        const auto name = "/n" + std::to_string(round);
        EXPECT_THAT(seenBy(name + "/**", name + " " + name + "/x /other"),
                    ElementsAre(name + ": null -> v, " + name + "/x: null -> v"));
    }
    Observations observations;
    const auto handle = observe("/n7/*", observations.callback());
    EXPECT_THAT(observations.calls(), ElementsAre("/n7/x: null -> v"));
    EXPECT_THAT(seenBy("/n7/*", "/n7/y"), ElementsAre("/n7/y: null -> v"));
}

TEST_F(DefaultObserveHandler, LeavesTheAnswerToAMalformedPatternToALaterHook) {
    std::vector<std::string> told;
    m_tree.registerNewObserverHandler<ObserveReq>(
        "/obs", [&told](const ObserveReq& request, const ObserverCallback&) {
            told.push_back(request.key_pattern());
        });
    Observations observations;
    [[maybe_unused]] const auto handles = {observe("/a*", observations.callback()),
                                           observe("/b", observations.callback())};
    EXPECT_THAT(told, ElementsAre("/a*", "/b"));
    EXPECT_THAT(observations.calls(), IsEmpty());
}

TEST_F(DefaultObserveHandler, TellsAnObserverOfItsMalformedPatternOnce) {
    Observations observations;
    const auto handle = observe("/a/b*", observations.callback());
    update(m_tree, "/", "/a/b /a/bc");
    ASSERT_EQ(observations.calls().size(), 1U);
    EXPECT_EQ(TestKit::withoutLocation(observations.calls().front(), "path_manipulation.cpp"),
              " !INVALID_ARGUMENT PathError: More than two *'s in key_pattern component not "
              "allowed; path = /a/b*. ");
    EXPECT_NE(handle, nullptr);
}

TEST_F(DefaultObserveHandler, TellsOfAMalformedPatternAlsoByDescriptorAndBeforeTheSnapshot) {
    update(m_tree, "/", "/a");
    Observations observations;
    const auto handle = m_tree.observeCast("/obs", pattern(""), observations.callback(), 0);
    ASSERT_EQ(observations.calls().size(), 1U);
    EXPECT_EQ(TestKit::withoutLocation(observations.calls().front(), "path_manipulation.cpp"),
              " !INVALID_ARGUMENT PathError: Path must not be empty");
}

TEST_F(DefaultObserveHandler, PassesOverAMalformedPatternWithoutHarmToOthers) {
    Observations bad;
    Observations good;
    Observations alsoGood;
    [[maybe_unused]] const auto handles = {observe("/**", good.callback()),
                                           observe("bad", bad.callback()),
                                           observe("/**", alsoGood.callback())};
    EXPECT_EQ(bad.take().size(), 1U);
    update(m_tree, "/", "/a");
    EXPECT_THAT(bad.calls(), IsEmpty());
    EXPECT_THAT(good.calls(), ElementsAre("/a: null -> v"));
    EXPECT_THAT(alsoGood.calls(), ElementsAre("/a: null -> v"));
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(DefaultObserveHandler, TellsAllWithTheDefaultStatus) {
    int calls = 0;
    const auto handle = observe("/**", [&](const ChangeSetType&, const Status& status) {
        ++calls;
        EXPECT_TRUE(status.isOk());
        EXPECT_EQ(status.proto().SerializeAsString(), "");
    });
    update(m_tree, "/", "/a");
    EXPECT_EQ(calls, 1);
}

TEST_F(DefaultObserveHandler, LosesTheChangeSetForObserversBehindAPatternThatRaises) {
    const AssertionReports reports;
    Observations observed;
    std::vector<ObserveRaiiHandleType<ObserveReq>> handles;
    for (int i = 0; i < 8; ++i) {
        handles.push_back(observe("/**", observed.callback()));
    }
    const auto raising = observe("/a/**/b", observed.callback());
    const auto atOtherNode = [&] {
        m_tree.registerDefaultObserveHandler("/next");
        return m_tree.observe<ObserveReq>("/next", pattern("/**"), observed.callback(), 0);
    }();

    // The map is ordered by address: observers before the throwing one get the set, the others do
    // not.
    const auto before = std::count_if(handles.begin(), handles.end(), [&](const auto& handle) {
        return std::less<>()(handle->observeCallback.get(), raising->observeCallback.get());
    });
    update(m_tree, "/", "/a/x");
    EXPECT_EQ(observed.take().size(), static_cast<std::size_t>(before) + 1);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err),
                ElementsAre("Caught exception in Observer Tree observe Callback:\n"
                            "Unexpected index"));
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));

    update(m_tree, "/", "/b");
    EXPECT_EQ(observed.take().size(), handles.size() + 1);
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
}

/// The keys that the matcher selects, "raises" or "malformed".
std::string selectedByMatcher(const std::string& keyPattern, const std::set<std::string>& keys) {
    const PathManipulation path;
    try {
        const auto matcher = path.parsePath(PathType::KeyPattern, keyPattern);
        std::string selected;
        for (const auto& key : keys) {
            if (path.matches(path.parsePath(PathType::Key, key), matcher)) {
                selected += key + " ";
            }
        }
        return selected;
    } catch (const PathError&) {
        return "malformed";
    } catch (const std::bad_variant_access&) {
        return "raises";
    }
}

TEST_F(DefaultObserveHandler, SelectsAsTheMatcherDoes) {
    const AssertionReports reports;
    std::mt19937 random(20230615);
    std::map<std::string, int> seen;
    for (int round = 0; round < 3000; ++round) {
        const auto keyPattern = randomPath(random, {"a", "b", "ab", "*", "**", "a*"});
        std::string selected;
        const auto handle = m_tree.observe<ObserveReq>(
            "/obs", pattern(keyPattern),
            [&](const ChangeSetType& changes, const Status& status) {
                for (const auto& change : changes) {
                    selected += change.first + " ";
                }
                selected += status.isOk() ? "" : "malformed";
            },
            0);
        const bool isMalformed = std::exchange(selected, "") == "malformed";
        std::set<std::string> keys;
        std::string text;
        for (int i = 0; i < 4; ++i) {
            const auto key = randomPath(random, {"a", "b", "ab"});
            keys.insert(key);
            text += key + " ";
        }
        const auto failures = reports.conditions().size();
        update(m_tree, "/", text);
        if (isMalformed) {
            selected = "malformed";
        } else if (reports.conditions().size() > failures) {
            selected = "raises";
        }
        const auto expected = selectedByMatcher(keyPattern, keys);
        ASSERT_EQ(selected, expected) << keyPattern << " over " << text;
        ++seen[expected];
    }
    EXPECT_GT(seen["raises"], 20);
    EXPECT_GT(seen["malformed"], 100);
    EXPECT_GT(seen.size(), 50U);
}

TEST_F(DefaultObserveHandler, SharesValuesWithTheTree) {
    DataTreeValPtr seen;
    const auto handle = observe("/a", [&](const ChangeSetType& changes, const Status&) {
        seen = changes.at("/a").front().current;
    });
    DataTreeValPtr written = value("w");
    onUpdate(m_tree, "/a",
             [&](const std::string&, DataTree& data) { data.insert_or_assign("/a", written); });
    update(m_tree, "/a");
    EXPECT_EQ(seen, written);
}

TEST_F(DefaultObserveHandler, LetsGoOfDeliveredValues) {
    const auto handle = observe("/a", [](const ChangeSetType&, const Status&) {});
    std::weak_ptr<const DataTreeVal> first;
    onUpdate(m_tree, "/a", [&](const std::string&, DataTree& data) {
        auto held = value("w");
        first = held;
        data.insert_or_assign("/a", std::move(held));
    });
    update(m_tree, "/a");
    EXPECT_FALSE(first.expired());
    const auto former = first;
    update(m_tree, "/a");
    EXPECT_TRUE(former.expired());
}

TEST_F(DefaultObserveHandler, KeepsLittleMoreOfALongPatternThanItsText) {
    // A sanitizer counts differently: with it both counts are equal.
    const auto allocated = [] {
        const auto info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    std::string longPattern;
    for (int component = 0; component < 200000; ++component) {
        longPattern += "/a";
    }
    for (const std::string end : {"", "/**"}) {
        const auto before = allocated();
        const auto handle = observe(longPattern + end, [](const ChangeSetType&, const Status&) {});
        update(m_tree, "/", "/a");
        EXPECT_LT(allocated() - before, 8 * longPattern.size()) << end;
    }
}

TEST(DumpDataTree, WritesOneLinePerKey) {
    ObserverTree tree;
    EXPECT_EQ(tree.dumpDataTree(), "");
    onUpdate(tree, "/", [](const std::string&, DataTree& data) {
        data.insert_or_assign("/b", value("x"));
        data.insert_or_assign("/a", nullptr);
        data.insert_or_assign("/c", value("y"));
    });
    update(tree, "/");
    const auto line = [](const std::string& key, const std::string& text) {
        return "key: \"" + key + "\" value: " + text + "\n";
    };
    EXPECT_EQ(tree.dumpDataTree(), line("/a", "None") +
                                       line("/b", value("x")->toAny()->DebugString()) +
                                       line("/c", value("y")->toAny()->DebugString()));
    EXPECT_THAT(value("x")->toAny()->DebugString(), testing::HasSubstr("value: \"x\""));
}

}  // namespace
}  // namespace Hox::ObserverTree
