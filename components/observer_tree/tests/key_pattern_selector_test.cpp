#include "key_pattern_selector.h"

#include <malloc.h>

#include <deque>
#include <random>

#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::linesOf;
using TestKit::newKeys;
using TestKit::pattern;
using TestKit::randomPath;

/// A selector with observers, each of which records its number and its calls.
class KeyPatternSelection : public testing::Test {
protected:
    using Observer = KeyPatternSelector::Observer;
    using Told = std::vector<std::pair<int, std::vector<std::string>>>;

    Observer arrive(int number, const std::string& keyPattern) {
        Observer observer{std::make_shared<ObserverCallback>(
                              [this, number](const ChangeSetType& changes, const Status& status) {
                                  EXPECT_TRUE(status.isOk());
                                  m_told.emplace_back(number, linesOf(changes));
                              }),
                          std::make_shared<ObserveReq>(pattern(keyPattern))};
        m_selector.observerArrived(observer);
        return observer;
    }

    Told deliver(const std::vector<std::string>& keys) {
        m_told.clear();
        m_selector.deliver(newKeys(keys), {});
        return m_told;
    }

    KeyPatternSelector m_selector;
    Told m_told;
};

TEST_F(KeyPatternSelection, CallsTheObserversOfAllPatternsInTheOrderOfTheirCallbacks) {
    const std::vector<std::string> patterns = {"/a/b", "/**", "/a/*", "/x", "/a/**", "/*/b"};
    std::vector<Observer> observers;
    for (int i = 0; i < 60; ++i) {
        observers.push_back(arrive(i, patterns.at(static_cast<std::size_t>(i) % patterns.size())));
    }
    const auto told = deliver({"/a/b", "/c"});
    ASSERT_EQ(told.size(), 50U);
    for (std::size_t i = 1; i < told.size(); ++i) {
        const auto callbackOf = [&](std::size_t place) {
            return observers.at(static_cast<std::size_t>(told.at(place).first))
                .observeCallback.get();
        };
        EXPECT_TRUE(std::less<>()(callbackOf(i - 1), callbackOf(i))) << i;
    }
}

TEST_F(KeyPatternSelection, TellsOneObserverAlone) {
    const auto first = arrive(1, "/a/**");
    const auto second = arrive(2, "/a/**");
    const auto malformed = arrive(3, "/a*");
    m_selector.deliverTo(second, newKeys({"/a", "/b"}));
    m_selector.deliverTo(malformed, newKeys({"/a", "/b"}));
    m_selector.deliverTo(first, newKeys({"/b"}));
    EXPECT_THAT(m_told, ElementsAre(testing::Pair(2, ElementsAre("/a: null -> /a"))));
}

TEST_F(KeyPatternSelection, TellsWhyTheLastObserverIsPassedOver) {
    arrive(1, "/a/**");
    EXPECT_FALSE(m_selector.takeRefusal());
    arrive(2, "/a*");
    const auto refusal = m_selector.takeRefusal();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->statusCode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_THAT(refusal->errorMessage(), testing::HasSubstr("; path = /a*. "));
    EXPECT_FALSE(m_selector.takeRefusal());
    arrive(3, "/b*");
    arrive(4, "/b");
    EXPECT_FALSE(m_selector.takeRefusal());
}

TEST_F(KeyPatternSelection, EndsAtAPatternThatRaises) {
    std::deque<Observer> observers;
    for (int i = 0; i < 8; ++i) {
        observers.push_back(arrive(i, i % 2 == 0 ? "/**" : "/a/*"));
    }
    const auto raising = arrive(8, "/a/**/b");
    EXPECT_THROW(deliver({"/a/x"}), std::bad_variant_access);
    const auto before =
        std::count_if(observers.begin(), observers.end(), [&](const Observer& observer) {
            return std::less<>()(observer.observeCallback.get(), raising.observeCallback.get());
        });
    EXPECT_EQ(m_told.size(), static_cast<std::size_t>(before));
    m_told.clear();
    EXPECT_THROW(m_selector.deliverTo(raising, newKeys({"/a/x"})), std::bad_variant_access);
    EXPECT_THAT(m_told, IsEmpty());
    EXPECT_EQ(deliver({"/b"}).size(), 4U);
    m_selector.observerLeft(raising);
    EXPECT_EQ(deliver({"/a/x"}).size(), 8U);
}

TEST_F(KeyPatternSelection, LetsGoOfThePassWhenAnObserverThrows) {
    Observer throwing{
        std::make_shared<ObserverCallback>([](const ChangeSetType&, const Status&) { throw 7; }),
        std::make_shared<ObserveReq>(pattern("/a/**"))};
    m_selector.observerArrived(throwing);
    std::weak_ptr<const DataTreeVal> delivered;
    {
        const auto changes = newKeys({"/a/b", "/c"});
        delivered = changes.at("/a/b").at(0).current;
        EXPECT_THROW(m_selector.deliver(changes, {}), int);
    }
    EXPECT_TRUE(delivered.expired());
    m_selector.observerLeft(throwing);
    const auto next = arrive(1, "/a/**");
    EXPECT_THAT(deliver({"/a/d", "/e"}),
                ElementsAre(testing::Pair(1, ElementsAre("/a/d: null -> /a/d"))));
}

TEST_F(KeyPatternSelection, TellsExactlyThoseWhoAreThere) {
    const PathManipulation path;
    std::mt19937 random(20240311);
    std::map<int, Observer> observers;
    int tellings = 0;
    for (int step = 0; step < 3000; ++step) {
        // Unmatchable patterns are left out: they end the delivery for other observers.
        auto keyPattern = randomPath(random, {"a", "b", "ab", "*"});
        keyPattern += keyPattern != "/" && random() % 2 == 0 ? "/**" : "";
        if (observers.size() < 12) {
            observers.emplace(step, arrive(step, keyPattern));
        }
        if (random() % 2 == 0) {
            const auto leaving = std::next(
                observers.begin(), static_cast<std::ptrdiff_t>(random() % observers.size()));
            m_selector.observerLeft(leaving->second);
            observers.erase(leaving);
        }
        const std::vector<std::string> keys = {randomPath(random, {"a", "b", "ab"}),
                                               randomPath(random, {"a", "b", "ab"}),
                                               randomPath(random, {"a", "b", "ab"})};
        std::map<int, std::vector<std::string>> expected;
        for (const auto& [number, observer] : observers) {
            const auto matcher =
                path.parsePath(PathType::KeyPattern, observer.request->key_pattern());
            for (const auto& change : newKeys(keys)) {
                if (path.keyMatches(change.first, matcher)) {
                    expected[number].push_back(change.first + ": null -> " + change.first);
                }
            }
        }
        const auto told = deliver(keys);
        ASSERT_EQ((std::map<int, std::vector<std::string>>(told.begin(), told.end())), expected);
        ASSERT_EQ(told.size(), expected.size());
        tellings += static_cast<int>(told.size());
    }
    EXPECT_GT(tellings, 3000);
}

TEST_F(KeyPatternSelection, KeepsNothingOfObserversThatAreGone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator does not count what is in use";
#endif
    const auto comeAndGo = [this](int first, int last) {
        for (int i = first; i < last; ++i) {
            for (const std::string end : {"", "/**", "/*/x", "*"}) {
                m_selector.observerLeft(arrive(i, "/n" + std::to_string(i) + end));
            }
        }
    };
    comeAndGo(0, 100);
    const auto before = mallinfo2().uordblks;
    comeAndGo(100, 5000);
    EXPECT_LT(mallinfo2().uordblks, before + 10000);
}

TEST_F(KeyPatternSelection, KeepsLittleOfALargePass) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator does not count what is in use";
#endif
    std::vector<std::string> keys;
    for (int i = 0; i < 20000; ++i) {
        keys.push_back("/a/" + std::to_string(i));
    }
    const auto changes = newKeys(keys);
    const auto observer = arrive(1, "/a/*");
    m_selector.deliver(newKeys({"/a/1", "/b"}), {});
    m_told = {};
    const auto before = mallinfo2().uordblks + mallinfo2().hblkhd;
    m_selector.deliverTo(observer, changes);
    EXPECT_EQ(m_told.size(), 1U);
    m_told = {};
    EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + 10000);
}

}  // namespace
}  // namespace Hox::ObserverTree
