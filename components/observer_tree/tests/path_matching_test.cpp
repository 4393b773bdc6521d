#include <random>

#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

enum class Outcome { No, Yes, Raises };

std::ostream& operator<<(std::ostream& out, Outcome outcome) {
    return out << (outcome == Outcome::No ? "No" : outcome == Outcome::Yes ? "Yes" : "Raises");
}

template <typename Match>
Outcome outcome(Match match) {
    try {
        return match() ? Outcome::Yes : Outcome::No;
    } catch (const std::bad_variant_access& error) {
        EXPECT_STREQ(error.what(), "Unexpected index");
        return Outcome::Raises;
    }
}

Outcome outcomeOf(const PathComponents& path, const PathComponents& matcher) {
    return outcome([&] { return PathManipulation().matches(path, matcher); });
}

Outcome match(const std::string& key, const std::string& pattern) {
    const PathManipulation path;
    const auto matcher = path.parsePath(PathType::KeyPattern, pattern);
    const auto result = outcomeOf(path.parsePath(PathType::Key, key), matcher);
    EXPECT_EQ(outcome([&] { return path.keyMatches(key, matcher); }), result)
        << key << " against " << pattern << ", unparsed";
    EXPECT_TRUE(path.isKey(key)) << key;
    return result;
}

struct Case {
    const char* key;
    const char* pattern;
    Outcome expected;
};

void check(const std::vector<Case>& cases) {
    for (const auto& entry : cases) {
        EXPECT_EQ(match(entry.key, entry.pattern), entry.expected)
            << entry.key << " against " << entry.pattern;
    }
}

TEST(PathMatching, ComparesLiteralsByteByByte) {
    check({{"/a/b", "/a/b", Outcome::Yes},
           {"/a/b", "/a/B", Outcome::No},
           {"/a/b", "/a/bb", Outcome::No},
           {"/a/bb", "/a/b", Outcome::No},
           {"/a/\xc3\xa4", "/a/a\xcc\x88", Outcome::No},
           {"/.x", "/.x", Outcome::Yes}});
}

TEST(PathMatching, WantsEqualLengthsWithoutADoubleStar) {
    check({{"/a", "/a/b", Outcome::No},
           {"/a/b", "/a", Outcome::No},
           {"/", "/a", Outcome::No},
           {"/a", "/", Outcome::No},
           {"/", "/", Outcome::Yes}});
}

TEST(PathMatching, TakesAStarForExactlyOneComponent) {
    check({{"/a", "/*", Outcome::Yes},
           {"/", "/*", Outcome::No},
           {"/a/b", "/*", Outcome::No},
           {"/a/b/c", "/a/*/c", Outcome::Yes},
           {"/a/c", "/a/*/c", Outcome::No},
           {"/a/b/d", "/a/*/c", Outcome::No}});
}

TEST(PathMatching, TakesADoubleStarAtTheEndForAnyRest) {
    check({{"/a", "/a/**", Outcome::Yes},
           {"/a/b", "/a/**", Outcome::Yes},
           {"/a/b/c", "/a/**", Outcome::Yes},
           {"/b", "/a/**", Outcome::No},
           {"/", "/a/**", Outcome::No},
           {"/", "/**", Outcome::Yes},
           {"/a", "/**", Outcome::Yes},
           {"/a/b/c/d", "/**", Outcome::Yes},
           {"/a", "/*/**", Outcome::Yes},
           {"/", "/*/**", Outcome::No}});
}

TEST(PathMatching, CountsTheComponentsBehindADoubleStar) {
    check({{"/a", "/a/**/*", Outcome::No},
           {"/a/b", "/a/**/*", Outcome::Yes},
           {"/a/b/c", "/a/**/*", Outcome::Yes},
           {"/a/b", "/a/**/*/*", Outcome::No},
           {"/a/b/c", "/a/**/*/*", Outcome::Yes}});
}

TEST(PathMatching, NeverComparesComponentsBehindADoubleStar) {
    check({{"/a/x/y", "/a/**/b/*", Outcome::Yes}, {"/a/x", "/a/**/b/*", Outcome::No}});
}

TEST(PathMatching, RaisesForALiteralAtTheEndOfADoubleStarPattern) {
    check({{"/x/y", "/a/**/b", Outcome::No},
           {"/a", "/a/**/b", Outcome::No},
           {"/a/b", "/a/**/b", Outcome::Raises},
           {"/a/c/d", "/a/**/b", Outcome::Raises},
           {"/", "/**/b", Outcome::No},
           {"/b", "/**/b", Outcome::Raises},
           {"/a/b/c", "/a/**/*/b", Outcome::Raises}});
}

TEST(PathMatching, RaisesWhereALiteralMeetsAWildcard) {
    EXPECT_EQ(outcomeOf({WildCard::Star}, {"a"}), Outcome::Raises);
    EXPECT_EQ(outcomeOf({"a", WildCard::DoubleStar}, {"a", "b", WildCard::DoubleStar}),
              Outcome::Raises);
    EXPECT_EQ(outcomeOf({"b", WildCard::Star}, {"a", "b"}), Outcome::No);
    EXPECT_EQ(outcomeOf({WildCard::Star}, {WildCard::Star}), Outcome::Yes);
    EXPECT_EQ(outcomeOf({WildCard::Star}, {WildCard::DoubleStar}), Outcome::Yes);
}

TEST(PathMatching, RefusesAMalformedKeyWhereverItDiffersFromThePattern) {
    const PathManipulation path;
    const auto matcher = path.parsePath(PathType::KeyPattern, "/a/**");
    for (const auto* key : {"", "a", "/b//c", "/b/", "/b/.c.", "/b/*", "/a/**"}) {
        EXPECT_THROW(path.keyMatches(key, matcher), PathError) << key;
        EXPECT_FALSE(path.isKey(key)) << key;
    }
}

TEST(PathMatching, LimitsAnAddressToItselfAndWhatLiesBelow) {
    const PathManipulation path;
    auto limit = path.parsePath(PathType::FunctionTreeAddress, "/sys/conf/.data.");
    limit.emplace_back(WildCard::DoubleStar);
    EXPECT_EQ(path.componentsToString(limit), "sys/conf/*/**");
    const auto inside = [&](const std::string& key) {
        return outcomeOf(path.parsePath(PathType::Key, key), limit);
    };
    EXPECT_EQ(inside("/sys/conf/x"), Outcome::Yes);
    EXPECT_EQ(inside("/sys/conf/x/y"), Outcome::Yes);
    EXPECT_EQ(inside("/sys/conf"), Outcome::No);
    EXPECT_EQ(inside("/sys/other/x"), Outcome::No);
}

/// A second implementation of the matcher, on the texts of the components.
Outcome naiveMatch(const std::vector<std::string>& key, const std::vector<std::string>& pattern) {
    const auto fits = [&](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            if (i >= key.size() || (pattern[i] != "*" && pattern[i] != key[i])) {
                return false;
            }
        }
        return true;
    };
    const auto stop =
        static_cast<std::size_t>(std::find(pattern.begin(), pattern.end(), "**") - pattern.begin());
    if (stop == pattern.size()) {
        return key.size() == pattern.size() && fits(stop) ? Outcome::Yes : Outcome::No;
    }
    if (!fits(stop) || key.size() + 1 < pattern.size()) {
        return Outcome::No;
    }
    return pattern.back().front() == '*' ? Outcome::Yes : Outcome::Raises;
}

class PathGenerator {
public:
    /// Up to five components, each from the list, `unique` at most once.
    std::vector<std::string> components(const std::vector<std::string>& choice,
                                        const std::string& unique) {
        std::vector<std::string> result;
        for (auto rest = std::uniform_int_distribution<>(0, 5)(m_random); rest > 0; --rest) {
            const auto last = static_cast<int>(choice.size()) - 1;
            const auto pick = std::uniform_int_distribution<>(0, last)(m_random);
            const auto& component = choice[static_cast<std::size_t>(pick)];
            if (component != unique ||
                std::find(result.begin(), result.end(), unique) == result.end()) {
                result.push_back(component);
            }
        }
        return result;
    }

    static std::string join(const std::vector<std::string>& components) {
        std::string text;
        for (const auto& component : components) {
            text += "/" + component;
        }
        return text.empty() ? "/" : text;
    }

private:
    std::mt19937 m_random{20231117};
};

TEST(PathMatching, AgreesWithTheNaiveMatcherOnRandomPatterns) {
    PathGenerator generate;
    std::map<Outcome, int> seen;
    for (int round = 0; round < 40000; ++round) {
        const auto key = generate.components({"a", "b"}, "");
        const auto pattern = generate.components({"a", "b", "*", "**"}, "**");
        const auto expected = naiveMatch(key, pattern);
        ++seen[expected];
        ASSERT_EQ(match(PathGenerator::join(key), PathGenerator::join(pattern)), expected)
            << PathGenerator::join(key) << " against " << PathGenerator::join(pattern);
    }
    EXPECT_GT(seen[Outcome::Yes], 500);
    EXPECT_GT(seen[Outcome::No], 500);
    EXPECT_GT(seen[Outcome::Raises], 500);
}

}  // namespace
}  // namespace Hox::ObserverTree
