#include "key_pattern.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "hox/observer_tree/path_error.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using TestKit::randomPath;

KeyPatternShape shapeOf(const std::string& text) {
    return KeyPattern(PathManipulation(), text).shape();
}

std::vector<std::size_t> sizesOf(const KeyPatternShape& shape) {
    return {shape.prefixSize, shape.starCount, shape.literalsSize};
}

TEST(KeyPattern, KnowsWhereItHasLiterals) {
    using testing::ElementsAre;
    EXPECT_THAT(sizesOf(shapeOf("/")), ElementsAre(1, 0, 0));
    EXPECT_THAT(sizesOf(shapeOf("/ab/c")), ElementsAre(5, 0, 0));
    EXPECT_THAT(sizesOf(shapeOf("/ab/**")), ElementsAre(3, 0, 0));
    EXPECT_THAT(sizesOf(shapeOf("/**")), ElementsAre(0, 0, 0));
    EXPECT_THAT(sizesOf(shapeOf("/*")), ElementsAre(0, 1, 0));
    EXPECT_THAT(sizesOf(shapeOf("/ab/*/*/c/de/*/f")), ElementsAre(3, 2, 5));
    EXPECT_THAT(sizesOf(shapeOf("/ab/*/**/c")), ElementsAre(3, 1, 0));
    EXPECT_THAT(sizesOf(shapeOf("/ab/**/c")), ElementsAre(3, 0, 0));
    EXPECT_THROW(shapeOf("/ab*"), PathError);
}

TEST(KeyPattern, TellsKeysApartByTheLiteralsOfItsShape) {
    const std::string pattern = "/ab/*/c/**";
    const auto shape = shapeOf(pattern);
    const auto own = shape.hashOf(pattern);
    ASSERT_TRUE(own);
    for (const char* key : {"/ab/x/c", "/ab/x/c/d", "/ab/longer/c/d/e"}) {
        EXPECT_EQ(shape.hashOf(key), own) << key;
    }
    for (const char* key : {"/ac/x/c", "/ab/x/d", "/cd/x/c/d"}) {
        EXPECT_NE(shape.hashOf(key), own) << key;
    }
    for (const char* key : {"", "/", "/a", "/ab", "/ab/x", "/ab/x/cd", "/abc/x/c", "/ab/x/cd/e"}) {
        EXPECT_EQ(shape.hashOf(key), std::nullopt) << key;
    }
}

/// "yes", "no" or "raises".
template <typename Match>
std::string outcomeOf(Match match) {
    try {
        return match() ? "yes" : "no";
    } catch (const std::bad_variant_access&) {
        return "raises";
    }
}

TEST(KeyPattern, SelectsAsTheMatcherDoesAndOnlyKeysWithItsHash) {
    const PathManipulation path;
    std::mt19937 random(20240517);
    std::map<std::string, int> seen;
    for (int round = 0; round < 40000; ++round) {
        const auto text = randomPath(random, {"a", "b", "ab", "*", "**"});
        const auto key = randomPath(random, {"a", "b", "ab"});
        PathComponents matcher;
        try {
            matcher = path.parsePath(PathType::KeyPattern, text);
        } catch (const PathError&) {
            continue;
        }
        const auto expected =
            outcomeOf([&] { return path.matches(path.parsePath(PathType::Key, key), matcher); });
        const KeyPattern pattern(path, text);
        ASSERT_EQ(outcomeOf([&] { return pattern.selects(path, key); }), expected)
            << key << " by " << text;
        ASSERT_TRUE(pattern.shape().hashOf(text)) << text;
        const bool hasHash = pattern.shape().hashOf(key) == pattern.shape().hashOf(text);
        ASSERT_TRUE(hasHash || expected == "no") << key << " by " << text;
        ++seen[hasHash ? expected : "other hash"];
    }
    EXPECT_GT(seen["yes"], 1000);
    EXPECT_GT(seen["no"], 1000);
    EXPECT_GT(seen["raises"], 1000);
    EXPECT_GT(seen["other hash"], 10000);
}

}  // namespace
}  // namespace Hox::ObserverTree
