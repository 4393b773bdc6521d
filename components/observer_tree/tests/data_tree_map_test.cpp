#include "hox/observer_tree/data_tree_map.h"

#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::linesOf;
using TestKit::textOf;
using TestKit::value;

std::vector<std::string> keysOf(const DataTreeValMap& map) {
    std::vector<std::string> keys;
    for (const auto& [key, held] : map) {
        keys.push_back(key);
    }
    return keys;
}

TEST(DataTreeMap, StartsEmpty) {
    DataTreeValMap map;
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.size(), 0U);
    EXPECT_EQ(map.modifiedIndex(), 0U);
    EXPECT_EQ(map.createdIndex(), 0U);
    EXPECT_THAT(map.takeChangeSet(), IsEmpty());
}

TEST(DataTreeMap, TellsANewKeyFromAnOverwrittenOne) {
    DataTreeValMap map;
    const auto created = map.insert_or_assign("/a", value("1"));
    EXPECT_TRUE(created.second);
    EXPECT_EQ(created.first->first, "/a");
    EXPECT_EQ(textOf(created.first->second), "1");
    const auto overwritten = map.insert_or_assign("/a", value("2"));
    EXPECT_FALSE(overwritten.second);
    EXPECT_EQ(textOf(overwritten.first->second), "2");
    EXPECT_EQ(map.size(), 1U);
}

TEST(DataTreeMap, CopiesFromLvaluesAndTakesOverRvalues) {
    DataTreeValMap map;
    const std::string key = "/a";
    const auto held = value("1");
    map.insert_or_assign(key, held);
    EXPECT_EQ(key, "/a");
    EXPECT_EQ(map.find("/a")->second, held);
    auto moved = value("2");
    const auto* address = moved.get();
    map.insert_or_assign(std::string("/b"), std::move(moved));
    EXPECT_EQ(map.find("/b")->second.get(), address);
    EXPECT_EQ(moved, nullptr);
}

TEST(DataTreeMap, RecordsACreationWithoutAPrevious) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: null -> 1"));
    EXPECT_EQ(map.modifiedIndex(), 1U);
    EXPECT_EQ(map.createdIndex(), 1U);
}

TEST(DataTreeMap, RecordsAnOverwriteWithThePreviousValue) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.insert_or_assign("/a", value("2"));
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> 2"));
    EXPECT_EQ(map.modifiedIndex(), 2U);
    EXPECT_EQ(map.createdIndex(), 1U);
}

TEST(DataTreeMap, KeepsTheFirstPreviousOfABatch) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.insert_or_assign("/a", value("2"));
    map.insert_or_assign("/a", value("3"));
    const auto changes = map.takeChangeSet();
    EXPECT_EQ(changes.at("/a").size(), 1U);
    EXPECT_THAT(linesOf(changes), ElementsAre("/a: 1 -> 3"));
}

TEST(DataTreeMap, ReportsTheFirstValueOfTheBatchAsPreviousOfANewKey) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.insert_or_assign("/a", value("2"));
    map.insert_or_assign("/a", value("3"));
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> 3"));
    EXPECT_EQ(map.modifiedIndex(), 3U);
    EXPECT_EQ(map.createdIndex(), 1U);
}

TEST(DataTreeMap, TakesAnEqualValueForAChange) {
    DataTreeValMap map;
    const auto same = value("1");
    map.insert_or_assign("/a", same);
    map.takeChangeSet();
    map.insert_or_assign("/a", same);
    const auto changes = map.takeChangeSet();
    EXPECT_EQ(changes.at("/a").front().current, same);
    EXPECT_EQ(changes.at("/a").front().previous, same);
    EXPECT_EQ(map.modifiedIndex(), 2U);
}

TEST(DataTreeMap, RecordsAnErasureWithoutACurrent) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.erase("/a");
    EXPECT_TRUE(map.find("/a") == map.end());
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> null"));
    EXPECT_EQ(map.modifiedIndex(), 2U);
    EXPECT_EQ(map.createdIndex(), 1U);
}

TEST(DataTreeMap, ShowsTheWrittenValueOfAKeyErasedInTheSameBatch) {
    DataTreeValMap map;
    map.insert_or_assign("/new", value("1"));
    map.erase("/new");
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/new: 1 -> 1"));
    EXPECT_TRUE(map.empty());

    map.insert_or_assign("/old", value("1"));
    map.takeChangeSet();
    map.insert_or_assign("/old", value("2"));
    map.erase("/old");
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/old: 1 -> 2"));
}

TEST(DataTreeMap, MergesAnErasureAndALaterWriteOfTheBatch) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.erase("/a");
    EXPECT_TRUE(map.insert_or_assign("/a", value("2")).second);
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> 2"));
    EXPECT_EQ(map.modifiedIndex(), 3U);
    EXPECT_EQ(map.createdIndex(), 2U);
}

TEST(DataTreeMap, DoesNothingForAnAbsentKey) {
    DataTreeValMap map;
    map.erase("/a");
    EXPECT_THAT(map.takeChangeSet(), IsEmpty());
    EXPECT_EQ(map.modifiedIndex(), 0U);
    EXPECT_EQ(map.createdIndex(), 0U);
}

TEST(DataTreeMap, MayEraseByTheKeyOfTheElementItself) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.erase(map.begin()->first);
    EXPECT_TRUE(map.empty());
}

TEST(DataTreeMap, PutsTheDefaultInThePlaceOfAnErasedValue) {
    DataTreeValMap map({{"/a", value("default")}});
    EXPECT_TRUE(map.empty());
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.erase("/a");
    EXPECT_EQ(textOf(map.find("/a")->second), "default");
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> default"));
    EXPECT_EQ(map.modifiedIndex(), 3U);
    EXPECT_EQ(map.createdIndex(), 2U);
}

TEST(DataTreeMap, WritesTheDefaultOfAnAbsentKeyThatIsErased) {
    DataTreeValMap map({{"/a", value("default")}});
    map.erase("/a");
    EXPECT_EQ(textOf(map.find("/a")->second), "default");
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: null -> default"));
    EXPECT_EQ(map.modifiedIndex(), 1U);
    EXPECT_EQ(map.createdIndex(), 1U);
}

TEST(DataTreeMap, MergesTheDefaultIntoTheEntryOfTheBatch) {
    DataTreeValMap map({{"/a", value("default")}});
    map.insert_or_assign("/a", value("1"));
    map.erase("/a");
    const auto changes = map.takeChangeSet();
    EXPECT_EQ(changes.at("/a").size(), 1U);
    EXPECT_THAT(linesOf(changes), ElementsAre("/a: 1 -> default"));
}

TEST(DataTreeMap, OrdersKeysBytewiseAndThenByLength) {
    DataTreeValMap map;
    for (const char* key : {"/b", "/a0", "/\xc3\xa4", "/a/b", "/a", "/", "/a!"}) {
        map.insert_or_assign(key, value("x"));
    }
    EXPECT_THAT(keysOf(map), ElementsAre("/", "/a", "/a!", "/a/b", "/a0", "/b", "/\xc3\xa4"));
    EXPECT_THAT(linesOf(map.takeChangeSet()),
                ElementsAre("/: null -> x", "/a: null -> x", "/a!: null -> x", "/a/b: null -> x",
                            "/a0: null -> x", "/b: null -> x", "/\xc3\xa4: null -> x"));
    EXPECT_EQ(map.lower_bound("/a/")->first, "/a/b");
    EXPECT_EQ(map.lower_bound("/a/c")->first, "/a0");
    EXPECT_TRUE(map.lower_bound("/\xff") == map.end());
}

std::vector<std::string> keysWithPrefix(const DataTreeValMap& map, const std::string& prefix) {
    std::vector<std::string> keys;
    for (const auto& [key, held] : map.withPrefix(prefix)) {
        keys.push_back(key);
    }
    EXPECT_EQ(map.withPrefix(prefix).empty(), keys.empty()) << prefix;
    return keys;
}

TEST(DataTreeMap, GivesTheKeysWithAPrefix) {
    DataTreeValMap map;
    for (const char* key :
         {"/", "/a", "/a!", "/a/b", "/a/c/d", "/a0", "/b", "/\xff", "/\xff\xff"}) {
        map.insert_or_assign(key, value("x"));
    }
    EXPECT_THAT(keysWithPrefix(map, "/a/"), ElementsAre("/a/b", "/a/c/d"));
    EXPECT_THAT(keysWithPrefix(map, "/a"), ElementsAre("/a", "/a!", "/a/b", "/a/c/d", "/a0"));
    EXPECT_THAT(keysWithPrefix(map, "/b"), ElementsAre("/b"));
    EXPECT_THAT(keysWithPrefix(map, "/\xff"), ElementsAre("/\xff", "/\xff\xff"));
    EXPECT_THAT(keysWithPrefix(map, "/\xff\xff"), ElementsAre("/\xff\xff"));
    EXPECT_THAT(keysWithPrefix(map, "\xff"), IsEmpty());
    EXPECT_THAT(keysWithPrefix(map, "/a/bb"), IsEmpty());
    EXPECT_THAT(keysWithPrefix(map, "/c"), IsEmpty());
    EXPECT_EQ(keysWithPrefix(map, ""), keysOf(map));
    EXPECT_EQ(keysWithPrefix(map, "/"), keysOf(map));
    EXPECT_THAT(keysWithPrefix(DataTreeValMap(), "/"), IsEmpty());
}

TEST(DataTreeMap, HasNoSideEffectsOfReads) {
    DataTreeValMap map;
    EXPECT_TRUE(map.find("/a") == map.end());
    EXPECT_TRUE(map.lower_bound("/a") == map.end());
    EXPECT_TRUE(map.begin() == map.end());
    EXPECT_THAT(map.takeChangeSet(), IsEmpty());
    EXPECT_EQ(map.modifiedIndex(), 0U);
}

TEST(DataTreeMap, LeavesAnEmptyChangeSetWhenItIsTaken) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.insert_or_assign("/b", value("2"));
    EXPECT_EQ(map.takeChangeSet().size(), 2U);
    EXPECT_THAT(map.takeChangeSet(), IsEmpty());
    EXPECT_EQ(map.size(), 2U);
}

TEST(DataTreeMap, WritesTheSameWithEveryHint) {
    const std::vector<std::string> present{"/b", "/d", "/f"};
    for (const std::string key : {"/a", "/b", "/c", "/d", "/e", "/f", "/g"}) {
        DataTreeValMap expected;
        for (const auto& other : present) {
            expected.insert_or_assign(other, value(other));
        }
        expected.insert_or_assign(key, value("new"));
        const auto lines = linesOf(expected.takeChangeSet());
        for (int steps = 0; steps <= static_cast<int>(present.size()); ++steps) {
            DataTreeValMap map;
            for (const auto& other : present) {
                map.insert_or_assign(other, value(other));
            }
            const auto [place, isNew] =
                map.insert_or_assign(std::next(map.begin(), steps), std::string(key), value("new"));
            EXPECT_EQ(place->first, key);
            EXPECT_EQ(textOf(place->second), "new");
            EXPECT_EQ(isNew, expected.size() == present.size() + 1) << key << " at " << steps;
            EXPECT_EQ(keysOf(map), keysOf(expected)) << key << " at " << steps;
            EXPECT_EQ(linesOf(map.takeChangeSet()), lines) << key << " at " << steps;
            EXPECT_EQ(map.createdIndex(), expected.createdIndex());
        }
    }
}

TEST(DataTreeMap, ErasesAtAPlaceAsByKey) {
    DataTreeValMap map({{"/b", value("default")}});
    map.insert_or_assign("/a", value("1"));
    map.insert_or_assign("/b", value("2"));
    map.takeChangeSet();
    map.erase(map.find("/a"));
    map.erase(map.find("/b"));
    EXPECT_THAT(keysOf(map), ElementsAre("/b"));
    EXPECT_THAT(linesOf(map.takeChangeSet()), ElementsAre("/a: 1 -> null", "/b: 2 -> default"));
    EXPECT_EQ(map.modifiedIndex(), 5U);
    EXPECT_EQ(map.createdIndex(), 3U);
}

TEST(DataTreeMap, RecordsAfterARecycledChangeSetAsBeforeIt) {
    DataTreeValMap map;
    for (const auto* const content : {"1", "2", "3"}) {
        for (int key = 0; key < 20; ++key) {
            map.insert_or_assign("/" + std::to_string(key), value(content));
        }
        map.recycle(map.takeChangeSet());
        EXPECT_THAT(map.takeChangeSet(), IsEmpty());
    }
    map.insert_or_assign("/new", value("4"));
    map.insert_or_assign("/7", value("5"));
    map.erase("/8");
    EXPECT_THAT(linesOf(map.takeChangeSet()),
                ElementsAre("/7: 3 -> 5", "/8: 3 -> null", "/new: null -> 4"));
}

TEST(DataTreeMap, LetsGoOfTheValuesOfARecycledChangeSet) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.insert_or_assign("/b", value("2"));
    const std::weak_ptr<const DataTreeVal> erased = map.find("/a")->second;
    map.erase("/a");
    auto changes = map.takeChangeSet();
    EXPECT_FALSE(erased.expired());
    map.recycle(std::move(changes));
    EXPECT_TRUE(erased.expired());
}

TEST(DataTreeMap, KeepsOldValuesAliveInTheChangeSet) {
    DataTreeValMap map;
    map.insert_or_assign("/a", value("1"));
    map.takeChangeSet();
    map.insert_or_assign("/a", value("2"));
    const auto changes = map.takeChangeSet();
    map.erase("/a");
    EXPECT_THAT(linesOf(changes), ElementsAre("/a: 1 -> 2"));
}

}  // namespace
}  // namespace Hox::ObserverTree
