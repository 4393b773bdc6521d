#include "hox/observer_tree/path_manipulation.h"

#include <random>
#include <sstream>

#include "hox/observer_tree/path_error.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using TestKit::thrownBy;

constexpr auto address = PathType::FunctionTreeAddress;
constexpr auto key = PathType::Key;
constexpr auto keyPattern = PathType::KeyPattern;
constexpr auto allTypes = {address, key, keyPattern};

std::string parseError(PathType type, const std::string& path) {
    return thrownBy<PathError>([&] { PathManipulation().parsePath(type, path); },
                               "path_manipulation.cpp");
}

PathComponents parse(PathType type, const std::string& path) {
    return PathManipulation().parsePath(type, path);
}

TEST(PathTypes, HaveTheNumbersThatTheParserReliesOn) {
    EXPECT_EQ(static_cast<int>(PathType::FunctionTreeAddress), 0);
    EXPECT_EQ(static_cast<int>(PathType::Key), 1);
    EXPECT_EQ(static_cast<int>(PathType::KeyPattern), 2);
    EXPECT_EQ(static_cast<int>(WildCard::Star), 0);
    EXPECT_EQ(static_cast<int>(WildCard::DoubleStar), 1);
    EXPECT_EQ(PathComponent("a").index(), 0U);
    EXPECT_EQ(PathComponent(WildCard::Star).index(), 1U);
}

TEST(PathParser, RefusesAnEmptyPath) {
    for (const auto type : allTypes) {
        EXPECT_EQ(parseError(type, ""), "PathError: Path must not be empty");
    }
}

TEST(PathParser, WantsAnInitialSlash) {
    for (const auto type : allTypes) {
        for (const std::string path : {"a/b", "a", "*", ".", "a/"}) {
            EXPECT_EQ(parseError(type, path),
                      "PathError: Initial character of path must be '/'; path = " + path + ". ");
        }
    }
}

TEST(PathParser, RefusesAFinalSlash) {
    for (const auto type : allTypes) {
        for (const std::string path : {"//", "/a/", "/a//", "///", "/*b/"}) {
            EXPECT_EQ(parseError(type, path),
                      "PathError: Final character of path must not be '/' ; path = " + path + ". ");
        }
    }
}

TEST(PathParser, RefusesTwoSlashesInARow) {
    for (const auto type : allTypes) {
        for (const std::string path : {"//a", "/a//b", "/a///b"}) {
            EXPECT_EQ(
                parseError(type, path),
                "PathError: Key must not contain // (two slashes in a row; path = " + path + ". ");
        }
    }
}

TEST(PathParser, TakesDottedComponentsInAddressesOnly) {
    for (const std::string path : {"/.data.", "/a/./b", "/..", "/.", "/a/.*.", "/.**."}) {
        for (const auto type : {key, keyPattern}) {
            EXPECT_EQ(parseError(type, path),
                      "PathError: Only function tree addresses may contain .<something>. "
                      "components; path = " +
                          path + ". ");
        }
    }
    EXPECT_EQ(parse(address, "/sys/conf/.data."), (PathComponents{"sys", "conf", WildCard::Star}));
    EXPECT_EQ(parse(address, "/a/./b"), (PathComponents{"a", WildCard::Star, "b"}));
    EXPECT_EQ(parse(address, "/.."), PathComponents{WildCard::Star});
    EXPECT_EQ(parse(address, "/.*."), PathComponents{WildCard::Star});
    EXPECT_EQ(parse(address, "/.**./.x."), (PathComponents{WildCard::Star, WildCard::Star}));
}

TEST(PathParser, TakesADotAtOneEndAsALiteral) {
    for (const auto type : allTypes) {
        EXPECT_EQ(parse(type, "/.x"), PathComponents{".x"});
        EXPECT_EQ(parse(type, "/x."), PathComponents{"x."});
        EXPECT_EQ(parse(type, "/x.y/z"), (PathComponents{"x.y", "z"}));
    }
}

TEST(PathParser, TakesWildcardsInPatternsOnly) {
    EXPECT_EQ(parse(keyPattern, "/*"), PathComponents{WildCard::Star});
    EXPECT_EQ(parse(keyPattern, "/a/*/*/**"),
              (PathComponents{"a", WildCard::Star, WildCard::Star, WildCard::DoubleStar}));
    EXPECT_EQ(parse(keyPattern, "/**/a"), (PathComponents{WildCard::DoubleStar, "a"}));
    for (const auto type : {address, key}) {
        for (const std::string path : {"/*", "/a/*", "/**", "/a*", "/*b", "/a*b", "/a/***"}) {
            EXPECT_EQ(parseError(type, path),
                      "PathError: Only key_pattern's may contain *; path = " + path + ". ");
        }
    }
}

TEST(PathParser, RefusesASecondDoubleStar) {
    for (const std::string path : {"/a/**/**", "/**/a/**", "/**/*/**/a*"}) {
        EXPECT_EQ(parseError(keyPattern, path),
                  "PathError: A key_pattern may at most contain one occurrence of **; path = " +
                      path + ". ");
    }
}

TEST(PathParser, RefusesStarsInsideAPatternComponent) {
    for (const std::string path : {"/a/***", "/a/b*", "/*b", "/a*b", "/a**", "/**/****"}) {
        EXPECT_EQ(parseError(keyPattern, path),
                  "PathError: More than two *'s in key_pattern component not allowed; path = " +
                      path + ". ");
    }
}

TEST(PathParser, ReportsTheFirstBadComponent) {
    EXPECT_THAT(parseError(key, "/a*//.b."), testing::StartsWith("PathError: Only key_pattern's"));
    EXPECT_THAT(parseError(key, "/.b.//a*"), testing::StartsWith("PathError: Only function tree"));
    EXPECT_THAT(parseError(key, "//.b./a*"), testing::StartsWith("PathError: Key must not"));
}

TEST(PathParser, GivesNoComponentsForTheRoot) {
    for (const auto type : allTypes) {
        EXPECT_EQ(parse(type, "/"), PathComponents{});
    }
}

TEST(PathParser, KeepsBytesAsTheyAre) {
    for (const auto type : allTypes) {
        EXPECT_EQ(parse(type, "/A a/\xc3\xa4/%2f/\n"),
                  (PathComponents{"A a", "\xc3\xa4", "%2f", "\n"}));
    }
    const std::string withZero("/a\0b/c", 6);
    EXPECT_EQ(parse(key, withZero), (PathComponents{std::string("a\0b", 3), "c"}));
}

/// A second implementation of the parser, as a list of rules over the split text.
std::string naiveParse(PathType type, const std::string& path, std::string& result) {
    const std::string place = "path = " + path + ". ";
    if (path.empty())
        return "Path must not be empty";
    if (path[0] != '/')
        return "Initial character of path must be '/'; " + place;
    if (path.size() > 1 && path[path.size() - 1] == '/')
        return "Final character of path must not be '/' ; " + place;
    int doubleStars = 0;
    std::istringstream stream(path.substr(1));
    std::string component;
    while (std::getline(stream, component, '/')) {
        const auto stars = std::count(component.begin(), component.end(), '*');
        if (component.empty())
            return "Key must not contain // (two slashes in a row; " + place;
        if (component[0] == '.' && component[component.size() - 1] == '.') {
            if (type != address)
                return "Only function tree addresses may contain .<something>. components; " +
                       place;
            component = "*";
        } else if (stars > 0 && type != keyPattern) {
            return "Only key_pattern's may contain *; " + place;
        } else if (component == "**") {
            if (doubleStars++ > 0)
                return "A key_pattern may at most contain one occurrence of **; " + place;
        } else if (stars > 0 && component != "*") {
            return "More than two *'s in key_pattern component not allowed; " + place;
        }
        result += (result.empty() ? "" : "/") + component;
    }
    return "";
}

TEST(PathParser, AgreesWithTheNaiveParserOnRandomPaths) {
    std::mt19937 random(20240229);
    const std::string alphabet = "//..**ab";
    std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1);
    std::uniform_int_distribution<std::size_t> length(0, 9);
    const PathManipulation path;
    int accepted = 0;
    for (int round = 0; round < 30000; ++round) {
        std::string text = round % 8 == 0 ? "" : "/";
        for (std::size_t rest = length(random); rest > 0; --rest) {
            text += alphabet[letter(random)];
        }
        for (const auto type : allTypes) {
            std::string expected;
            const auto message = naiveParse(type, text, expected);
            if (message.empty()) {
                ASSERT_EQ(path.componentsToString(path.parsePath(type, text)), expected) << text;
                ++accepted;
            } else {
                ASSERT_EQ(parseError(type, text), "PathError: " + message);
            }
        }
    }
    EXPECT_GT(accepted, 1000);
}

TEST(PathComponentsText, IsJoinedWithoutALeadingSlash) {
    const PathManipulation path;
    EXPECT_EQ(path.componentsToString(path.parsePath(keyPattern, "/a/*/**")), "a/*/**");
    EXPECT_EQ(path.componentsToString(path.parsePath(key, "/a")), "a");
    EXPECT_EQ(path.componentsToString({}), "");
    EXPECT_EQ(path.componentsToString({WildCard::DoubleStar}), "**");
}

TEST(PathComponentsText, CanBePrintedForDiagnosis) {
    testing::internal::CaptureStdout();
    PathManipulation().printComponents({"a", WildCard::Star, WildCard::DoubleStar}, "> ");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "> component = a\n> component = 0\n> component = 1\n");
}

TEST(PathManipulation, HasALoggerNamedAfterItsHeaderAndClass) {
    EXPECT_EQ(PathManipulation()._HALVOMACRO_loggerName(),
              "path_manipulation.h::Hox::ObserverTree::PathManipulation");
}

}  // namespace
}  // namespace Hox::ObserverTree
