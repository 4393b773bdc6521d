#include "hox/cpputil/regex/bounded_regex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "regex_kit.h"

namespace Hox::CppUtil {
namespace {

using RegexKit::boundedErrorOf;
using RegexKit::expectSameAnswers;
using RegexKit::libraryErrorOf;
using testing::HasSubstr;

void expectErrorOfTheLibrary(const std::string& expression) {
    SCOPED_TRACE(expression);
    const auto error = libraryErrorOf(expression);
    EXPECT_NE(error, "none");
    EXPECT_EQ(boundedErrorOf(expression), error);
}

const std::vector<std::string> shortExpressions = {"",
                                                   "a",
                                                   "abc",
                                                   "^",
                                                   "$",
                                                   "^$",
                                                   "^a",
                                                   "c$",
                                                   "^abc$",
                                                   ".",
                                                   ".*",
                                                   "a.c",
                                                   "[abc]",
                                                   "[^abc]",
                                                   "[a-c]+",
                                                   "[-a]",
                                                   "[a-]",
                                                   "[\\]a]",
                                                   "[\\d-]",
                                                   "[]a]",
                                                   "[^]",
                                                   "[[:digit:]]",
                                                   "[[.a.]]",
                                                   "[[=a=]]",
                                                   "[\\w.]",
                                                   "[[]",
                                                   "[\\\\]",
                                                   "\\d",
                                                   "\\D",
                                                   "\\w+",
                                                   "\\W",
                                                   "\\s",
                                                   "\\S+",
                                                   "\\.",
                                                   "\\x61",
                                                   "\\u0061",
                                                   "\\cJ",
                                                   "\\c]",
                                                   "\\n",
                                                   "\\t",
                                                   "\\0",
                                                   "\\/",
                                                   "\\-",
                                                   "\\b",
                                                   "\\B",
                                                   "\\babc\\b",
                                                   "\\Bb\\B",
                                                   "a|b",
                                                   "a|",
                                                   "|",
                                                   "(a)(b)",
                                                   "(?:a|b)c",
                                                   "a*",
                                                   "a+",
                                                   "a?",
                                                   "a*?b",
                                                   "a+?",
                                                   "a??",
                                                   "a{2}",
                                                   "a{2,}",
                                                   "a{1,3}b",
                                                   "a{0}",
                                                   "a{0,0}b",
                                                   "a{02}",
                                                   "(ab){2}",
                                                   "(a*)*",
                                                   "(a+)+b",
                                                   "(a?)*b",
                                                   "(a|a)*b",
                                                   "()",
                                                   "()*",
                                                   "(?:)+",
                                                   "a**",
                                                   "a*+",
                                                   "a{2}{2}",
                                                   "a{2}*",
                                                   "(?=a)",
                                                   "(?!a)",
                                                   "(?=ab)a",
                                                   "a(?!b)",
                                                   "(?!a)*?",
                                                   "(?:(?=a)a)+",
                                                   "(?!(?=a)b)",
                                                   "Abc",
                                                   "]",
                                                   "}",
                                                   "a]",
                                                   "a}",
                                                   "x-y",
                                                   "error|warn",
                                                   "sys/conf",
                                                   "\xc3\xa4",
                                                   "[\xc3\xa4]",
                                                   "(a)\\1",
                                                   "(a+)b\\1",
                                                   "(a)|b\\1",
                                                   "(a*)\\1b",
                                                   "(a)(b)\\2\\1",
                                                   "(.)\\1",
                                                   "(a)\\1{2}",
                                                   "(?=(a))\\1b",
                                                   "(a)\\0",
                                                   "\\x41\\u0141",
                                                   "\\Q.\\E",
                                                   "\\A\\z",
                                                   "\\K",
                                                   "\\h",
                                                   "\\p",
                                                   "\\R",
                                                   "a#b",
                                                   "[a#b ]",
                                                   "a b",
                                                   "[]",
                                                   "[]a",
                                                   "(?:b|^){0}a",
                                                   "(b|^){0,0}a",
                                                   "(a){0}b",
                                                   "(a){00}?b",
                                                   "a{2}+",
                                                   "a?+",
                                                   "a{1}{0}b",
                                                   "\n",
                                                   ".\\n.",
                                                   "a$\\n",
                                                   "[^a]$",
                                                   "[\\0]",
                                                   "\\W",
                                                   "[\x80-\xff]",
                                                   "\\xe4"};
const std::vector<std::string> longExpressions = {"[[:alpha:]_]+",
                                                  "[\\x61-\\x63]",
                                                  "(a|ab)(c|bcd)",
                                                  "^(?!.*err).*$",
                                                  "^(?=.*a)(?=.*b)",
                                                  "Cap_[A-Z]\\w+_Test",
                                                  "^(Cap_StateMonitoring|Cap_Conf)_.*$",
                                                  "((a)b?)\\2\\1",
                                                  "(?:(a)|b)\\1*",
                                                  "(()()()()()()()()()a)\\10",
                                                  "[^\x80-\xff]+"};
const std::vector<std::string> shortSubjects = {
    "",     "a",     "b",   "abc",    "ABC",  "aab",      "aaaa",      "abcd",  "xabcx", "a b",
    "a\nb", "a-b",   "a.c", "]",      "}",    "-",        "_",         "42",    "a1",    "\t",
    "\n",   "\\",    "[",   "Abc",    "x-y",  "\xc3\xa4", "\xff",      "aabab", "//",    "aa",
    "abba", "aab\n", "\r",  "A",      "aA",   "Q.E",      "Az",        "K",     "h",     "p",
    "R",    "a#b",   "ba",  "aaaaaa", "a\na", "\xe4",     "a\xe4\x80z"};
const std::vector<std::string> longSubjects = {
    std::string("\0", 1),      "Cap_StateMonitoring_TestNotificationType",
    "sys/conf/update",         "an error occurred",
    "system.systemd-degraded", std::string("a\0b", 3),
    std::string("a\0", 2)};

TEST(BoundedRegex, SearchFindsAnyPart) {
    BoundedRegex regex("b+c");
    EXPECT_TRUE(regex.search("aabbcd"));
    EXPECT_FALSE(regex.search("aabbd"));
}

TEST(BoundedRegex, MatchesWantsTheWhole) {
    BoundedRegex regex("b+c");
    EXPECT_TRUE(regex.matches("bbc"));
    EXPECT_FALSE(regex.matches("abbc"));
    EXPECT_FALSE(regex.matches("bbcd"));
}

TEST(BoundedRegex, CanBeMoved) {
    BoundedRegex first("a");
    BoundedRegex second(std::move(first));
    EXPECT_TRUE(second.search("a"));
    first = std::move(second);
    EXPECT_TRUE(first.search("a"));
}

TEST(BoundedRegex, AnswersLikeTheLibrary) {
    for (const auto& expressions : {shortExpressions, longExpressions}) {
        for (const auto& expression : expressions) {
            if (libraryErrorOf(expression) == "none") {
                expectSameAnswers(expression, shortSubjects);
                expectSameAnswers(expression, longSubjects);
            } else {
                EXPECT_EQ(boundedErrorOf(expression), libraryErrorOf(expression)) << expression;
            }
        }
    }
}

TEST(BoundedRegex, AnswersLikeTheLibraryForPlainTextsAndPrefixes) {
    const std::vector<std::string> subjects{
        "",           "/",           "/sys",         "/sys/conf",     "/sys/conf/",
        "/sys/confx", "/sys/conf/a", "/sys/conf/\n", "/sys/conf/a\r", "/sys/conf/a\nb",
        "/__csid",    "/__csid/",    "/__csi",       "x/sys/conf/a",  "/sys/conf/\xc3\xa4",
        "a.b",        "aXb",         "\xc3\xa4",     "\xc3\xb6"};
    for (const char* expression : {"/sys/conf/.*|/__csid",
                                   "/sys/conf",
                                   ".*",
                                   "",
                                   "|/sys",
                                   "/sys/conf/.*.*",
                                   "/sys/.*f/a",
                                   "(/sys/conf/.*)|/__csid",
                                   "(?:/sys|/__csid)",
                                   "/sys/conf/.+",
                                   "/sys/conf/.?",
                                   "a\\.b",
                                   "a.b",
                                   "\xc3\xa4.*",
                                   "/__csid$",
                                   "^/sys/conf/.*",
                                   "/sys/conf/[^\n\r]*",
                                   "/sys/conf/.*?",
                                   "/sys/conf/.{0,}",
                                   "a[.]b",
                                   "/sys(?=/).*"}) {
        expectSameAnswers(expression, subjects);
    }
}

TEST(BoundedRegex, TakesALookaheadAtTheStartOfTheSubjectForAStartLikeTheLibrary) {
    BoundedRegex start("a(?=^b)");
    EXPECT_TRUE(start.search("ab"));
    EXPECT_FALSE(start.search("xab"));
    for (const char* expression :
         {"a(?=^b)", "a(?!^b)", "a(?=\\bb)", "a(?=\\Bb)", "a(?!\\Bb)", "a(?=$)", "a(?=(?:^|x)b)",
          "a(?=(?=^b))", "a(?=b(?=^b))", "a(?=(?:^b|bb)+$)", "a(?=(?:\\b){2}b)", "a(?=(?:^)*b)",
          "a(?=.*\\b)", "(?:a(?=^))*b", "a(?=\\b-)", "a(?=\\B-)", "(?=^a)ab?", "(?!\\bb)b"}) {
        expectSameAnswers(expression, {"", "a", "ab", "aab", "bab", "xab", "abb", "abbb", "xabb",
                                       "a-", "a-b", "-ab", "--a-", "a b", "bb"});
    }
}

TEST(BoundedRegex, KnowsWhatLiesAheadOfALookahead) {
    BoundedRegex inside("^(?!.*\\berror\\b)");
    EXPECT_FALSE(inside.search("an error occurred"));
    EXPECT_TRUE(inside.search("no errors"));
}

TEST(BoundedRegex, ReportsErrorsInTheWordsOfTheLibrary) {
    for (const std::string expression :
         {"(",        ")",  "a)",   "(a",    "[",     "[a",    "[b-a]",   "[[:foo:]]", "[[.foo.]]",
          "[[:alpha", "*",  "+a",   "?",     "{2}",   "a{",    "a{2",     "a{2,1}",    "a{,2}",
          "a{x}",     "\\", "\\x1", "\\u12", "\\c",   "(?",    "(?a)",    "(?<a)",     "(?=a",
          "(?=a)*",   "^*", "\\b+", "a|*",   "[\\B]", "[\\1]", "[\\w-a]", "(*a)",      "[a\\"}) {
        expectErrorOfTheLibrary(expression);
    }
}

TEST(BoundedRegex, ReportsErrorsOfBackReferencesInTheWordsOfTheLibrary) {
    for (const char* expression : {"\\1", "(a)\\2", "(\\1)", "(a)\\10", "(?:a)\\1", "\\1[",
                                   "(a)\\1(", "(a)\\1{", "(a)\\1)", "(?=\\1)", "(a)|\\2"}) {
        expectErrorOfTheLibrary(expression);
    }
}

TEST(BoundedRegex, ComparesBackReferencesByteByByte) {
    BoundedRegex twice("^(.+)-\\1$");
    EXPECT_TRUE(twice.matches("a\xe4z-a\xe4z"));
    EXPECT_FALSE(twice.matches("a\xe4z-A\xe4z"));
    EXPECT_FALSE(twice.search("ab-a"));
}

TEST(BoundedRegex, FailsAtABackReferenceToAGroupThatHasNotMatchedLikeTheLibrary) {
    expectSameAnswers("(?:(a)|b)\\1", {"aa", "b", "ba", "a"});
    EXPECT_FALSE(BoundedRegex("(?:(a)|b)\\1").search("b"));
}

// Where the library does not undo a step, or tries once more, PCRE2 cannot be made to do the same.
// The tests below record the answers given instead.
TEST(BoundedRegex, ForgetsTheGroupsOfALookaheadThatWasGivenUp) {
    EXPECT_FALSE(BoundedRegex("(?:(?=(a))b|a)\\1").search("aa"));
    EXPECT_TRUE(std::regex_search("aa", std::regex("(?:(?=(a))b|a)\\1")));
    EXPECT_FALSE(BoundedRegex("(?!(a)b)\\1|\\1").search("ab"));
    EXPECT_TRUE(std::regex_search("ab", std::regex("(?!(a)b)\\1|\\1")));
}

TEST(BoundedRegex, EndsARepetitionWithAnEmptyRound) {
    EXPECT_FALSE(BoundedRegex("(?:()|a\\1)+").matches("a"));
    EXPECT_TRUE(std::regex_match("a", std::regex("(?:()|a\\1)+")));
}

TEST(BoundedRegex, RefusesNumbersThatNoExpressionCanMean) {
    EXPECT_NE(boundedErrorOf("a{99999999999999999999999}"), "none");
    EXPECT_NE(boundedErrorOf("a{1,99999999999999999999999}"), "none");
    EXPECT_EQ(boundedErrorOf("a{99999999999999999999999,1}"), libraryErrorOf("a{2,1}"));
    EXPECT_EQ(boundedErrorOf("a{99999999999999999999999"), libraryErrorOf("a{2"));
    EXPECT_EQ(boundedErrorOf("(a)\\99999999999999999999999"), libraryErrorOf("(a)\\2"));
    EXPECT_EQ(boundedErrorOf("a,99999999999999999999999"), "none");
    EXPECT_TRUE(BoundedRegex("^a\\{99999999999,1}$").matches("a{99999999999,1}"));
    EXPECT_TRUE(BoundedRegex("^a{0000000000002}$").matches("aa"));
    EXPECT_TRUE(BoundedRegex("^a{010,0000000000011}$").matches("aaaaaaaaaaa"));
}

TEST(BoundedRegex, LimitsTheExpression) {
    BoundedRegex longest(std::string(1000, 'a'));
    EXPECT_TRUE(longest.search(std::string(1001, 'a')));
    EXPECT_FALSE(longest.search(std::string(999, 'a')));
    try {
        BoundedRegex tooLong(std::string(1001, 'a'));
        FAIL();
    } catch (const InvalidArgumentError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Invalid Argument Error: Regular expression has 1001 "
                                            "bytes, only 1000 are allowed"));
    }
}

TEST(BoundedRegex, LimitsTheSubject) {
    BoundedRegex regex("b$");
    EXPECT_TRUE(regex.search(std::string(4095, 'a') + "b"));
    for (const auto& call : {&BoundedRegex::search, &BoundedRegex::matches}) {
        try {
            (regex.*call)(std::string(4097, 'a'));
            FAIL();
        } catch (const InvalidArgumentError& error) {
            EXPECT_THAT(error.what(), HasSubstr("Subject of a regular expression has 4097 bytes, "
                                                "only 4096 are allowed"));
        }
    }
}

TEST(BoundedRegex, LimitsTheCompiledExpression) {
    for (const std::string expression :
         {"a{65536}", "(?:ab?c){7000}", "(a|b){9000}", "[a-c]{70000}"}) {
        EXPECT_EQ(libraryErrorOf(expression), "none") << expression;
        EXPECT_THAT(boundedErrorOf(expression),
                    HasSubstr("Invalid Argument Error: Regular expression is not supported: "))
            << expression;
    }
}

}  // namespace
}  // namespace Hox::CppUtil
