#include "hox/cpputil/regex/bounded_regex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <ostream>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace {

using Hox::CppUtil::BoundedRegex;
using Hox::CppUtil::InvalidArgumentError;
using testing::HasSubstr;

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

std::string errorOf(const std::string& expression, std::regex::flag_type flags) {
    try {
        const std::regex regex(expression, flags);
    } catch (const std::regex_error& error) {
        return error.what();
    }
    return "none";
}

std::string boundedErrorOf(const std::string& expression) {
    try {
        BoundedRegex regex(expression);
    } catch (const std::regex_error& error) {
        return error.what();
    }
    return "none";
}

void expectSameAnswers(const std::string& expression, const std::vector<std::string>& subjects) {
    const std::regex reference(expression);
    BoundedRegex regex(expression);
    for (const auto& subject : subjects) {
        SCOPED_TRACE("expression '" + expression + "', subject '" + subject + "'");
        EXPECT_EQ(regex.search(subject), std::regex_search(subject, reference));
        EXPECT_EQ(regex.matches(subject), std::regex_match(subject, reference));
    }
}

// Runs the body on a stack of the given size, so that deep recursion shows as a crash.
void runOnStack(std::size_t size, std::function<void()> body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    pthread_t thread = {};
    const auto start = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, start, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

// What the library says of the expression; what it does not mind but a back-reference, it says of
// that.
std::string libraryErrorOf(const std::string& expression) {
    const auto error = errorOf(expression, std::regex::ECMAScript);
    return error != "none"
               ? error
               : errorOf(expression, std::regex::ECMAScript | std::regex_constants::__polynomial);
}

void expectErrorOfTheLibrary(const std::string& expression) {
    SCOPED_TRACE(expression);
    const auto error = errorOf(expression, std::regex::ECMAScript);
    EXPECT_NE(error, "none");
    EXPECT_EQ(boundedErrorOf(expression), error);
}

// Random expressions over few characters, so that matches are frequent.
class RandomExpressions {
public:
    std::string choice(int depth) {
        auto result = sequence(depth);
        while (pick(4) == 0) {
            result += "|" + sequence(depth);
        }
        return result;
    }

    std::string subject() {
        std::string result;
        for (auto size = pick(10); size > 0; --size) {
            result += std::string("aab _-\n")[static_cast<std::size_t>(pick(7))];
        }
        return result;
    }

private:
    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }

    std::string oneOf(const std::vector<std::string>& texts) {
        return texts[static_cast<std::size_t>(pick(static_cast<int>(texts.size())))];
    }

    std::string sequence(int depth) {
        std::string result;
        for (auto size = pick(4); size > 0; --size) {
            if (pick(8) == 0) {
                result += oneOf({"^", "$", "\\b", "\\B"});
            } else if (depth > 0 && pick(8) == 0) {
                result += oneOf({"(?=", "(?!"}) + choice(depth - 1) + ")";
            } else {
                result += atom(depth) + quantifier();
            }
        }
        return result;
    }

    std::string atom(int depth) {
        if (depth > 0 && pick(3) == 0) {
            return oneOf({"(", "(?:"}) + choice(depth - 1) + ")";
        }
        return oneOf({"a", "b", ".", "[ab]", "[^a]", "\\w", "\\s", "\\-", "[[:alpha:]_]"});
    }

    std::string quantifier() {
        if (pick(2) == 0) {
            return "";
        }
        return oneOf({"*", "+", "?", "*?", "+?", "??", "{2}", "{1,2}", "{0,2}?", "{1,}", "{0}"});
    }

    std::mt19937 m_random{20240611};
};

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
    const std::vector<std::string> expressions = {"",
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
                                                  "[[:alpha:]_]+",
                                                  "[[.a.]]",
                                                  "[[=a=]]",
                                                  "[\\w.]",
                                                  "[\\x61-\\x63]",
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
                                                  "(a|ab)(c|bcd)",
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
                                                  "^(?!.*err).*$",
                                                  "^(?=.*a)(?=.*b)",
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
                                                  "Cap_[A-Z]\\w+_Test",
                                                  "^(Cap_StateMonitoring|Cap_Conf)_.*$",
                                                  "error|warn",
                                                  "sys/conf",
                                                  "\xc3\xa4",
                                                  "[\xc3\xa4]"};
    const std::vector<std::string> subjects = {"",
                                               "a",
                                               "b",
                                               "abc",
                                               "ABC",
                                               "aab",
                                               "aaaa",
                                               "abcd",
                                               "xabcx",
                                               "a b",
                                               "a\nb",
                                               "a-b",
                                               "a.c",
                                               "]",
                                               "}",
                                               "-",
                                               "_",
                                               "42",
                                               "a1",
                                               "\t",
                                               "\n",
                                               "\\",
                                               "[",
                                               "Abc",
                                               "x-y",
                                               std::string("\0", 1),
                                               "Cap_StateMonitoring_TestNotificationType",
                                               "sys/conf/update",
                                               "an error occurred",
                                               "system.systemd-degraded",
                                               "\xc3\xa4",
                                               "\xff",
                                               "aabab",
                                               "//"};
    for (const auto& expression : expressions) {
        if (errorOf(expression, std::regex::ECMAScript) != "none") {
            EXPECT_NE(boundedErrorOf(expression), "none") << expression;
            continue;
        }
        expectSameAnswers(expression, subjects);
    }
}

TEST(BoundedRegex, AnswersLikeTheLibraryForRandomExpressions) {
    RandomExpressions random;
    for (int i = 0; i < 3000; ++i) {
        const auto expression = random.choice(3);
        expectSameAnswers(expression, {random.subject(), random.subject(), random.subject(),
                                       random.subject(), random.subject(), random.subject()});
        ASSERT_FALSE(HasFailure());
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

TEST(BoundedRegex, CountsItsStepsForPlainTextsToo) {
    BoundedRegex regex("/sys/conf/.*|/__csid");
    EXPECT_TRUE(regex.matches("/sys/conf/a"));
    const auto once = regex.steps();
    EXPECT_GE(once, 11U);
    EXPECT_FALSE(regex.matches("/sys/state/a"));
    EXPECT_GT(regex.steps(), once);
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

TEST(BoundedRegex, LeavesAMalformedExpressionOfManyStatesToTheLimitOfTheLibrary) {
    for (const char* expression :
         {"((a{1000}){1000}){1000}(", "((a{1000}){1000}){1000}\\1", "(a)\\1((b{1000}){1000}){1000}",
          "(a)\\1(?:){999999999}", "(a)\\1(?:b?){0,999999999}"}) {
        expectErrorOfTheLibrary(expression);
    }
}

TEST(BoundedRegex, RefusesWhatTheLibraryRefuses) {
    const std::vector<std::string> parts = {
        "a",   "b",   "(",   ")",  "(?:", "(?=", "(?!", "[",     "]",  "[^", "-",   "|",
        "*",   "+",   "?",   "{",  "}",   "1",   ",",   ".",     "^",  "$",  "\\",  "\\b",
        "\\w", "\\x", "\\c", "41", "0",   "[:",  ":]",  "digit", "[=", "=]", "{2}", "\\1"};
    std::mt19937 random(11);
    std::uniform_int_distribution<std::size_t> part(0, parts.size() - 1);
    std::uniform_int_distribution<int> size(1, 7);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string expression;
        for (int k = size(random); k > 0; --k) {
            expression += parts[part(random)];
        }
        const auto error = libraryErrorOf(expression);
        ASSERT_EQ(boundedErrorOf(expression), error) << expression;
        accepted += error == "none" ? 1 : 0;
    }
    EXPECT_GT(accepted, 2000);
}

TEST(BoundedRegex, RefusesBackReferences) {
    EXPECT_EQ(boundedErrorOf("(a)\\1"), "Unexpected back-reference in polynomial mode.");
    EXPECT_EQ(boundedErrorOf("\\1"), "Back-reference index exceeds current sub-expression count.");
    EXPECT_EQ(boundedErrorOf("(a)\\2"),
              "Back-reference index exceeds current sub-expression count.");
    EXPECT_EQ(boundedErrorOf("(\\1)"), "Back-reference referred to an opened sub-expression.");
    EXPECT_NE(boundedErrorOf("(a)\\99999999999999999999999"), "none");
}

TEST(BoundedRegex, RefusesNumbersThatNoExpressionCanMean) {
    EXPECT_NE(boundedErrorOf("a{99999999999999999999999}"), "none");
    EXPECT_NE(boundedErrorOf("(a)\\1{99999999999999999999999}"), "none");
    EXPECT_NE(boundedErrorOf("a{1,99999999999999999999999}"), "none");
    EXPECT_EQ(boundedErrorOf("a,99999999999999999999999"), "none");
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

TEST(BoundedRegex, LimitsTheStates) {
    EXPECT_NO_THROW(BoundedRegex("a{2000}"));
    for (const std::string expression :
         {"a{6000}", "a{999999999}", "(?:){999999999}", "(?:){999999999,}", "(x?){3000}",
          "((((a{50}){50}){50}){50}){50}", "a{50}{50}{50}{50}{50}{50}{50}{50}{50}{50}{50}{50}"}) {
        SCOPED_TRACE(expression);
        try {
            BoundedRegex regex(expression);
            ADD_FAILURE();
        } catch (const InvalidArgumentError& error) {
            EXPECT_THAT(error.what(), HasSubstr("Regular expression needs more than 5000 states"));
        }
    }
}

struct HostileCase {
    std::string expression;
    std::string subject;
    bool found;

    friend void PrintTo(const HostileCase& hostile, std::ostream* stream) {
        *stream << hostile.expression;
    }
};

class BoundedRegexHostile : public testing::TestWithParam<HostileCase> {};

TEST_P(BoundedRegexHostile, StaysWithinItsBounds) {
    // Twice the states times the places bounds the edges of a run.
    static constexpr std::uint64_t mostSteps =
        4 * BoundedRegex::maxStates * BoundedRegex::maxSubjectSize;
    runOnStack(2 * 1024 * 1024, [] {
        BoundedRegex regex(GetParam().expression);
        EXPECT_EQ(regex.search(GetParam().subject), GetParam().found);
        EXPECT_LE(regex.steps(), mostSteps);
        regex.matches(GetParam().subject);
        EXPECT_LE(regex.steps(), 2 * mostSteps);
    });
}

const std::string longSubject(4096, 'a');

INSTANTIATE_TEST_SUITE_P(
    Cases, BoundedRegexHostile,
    testing::Values(
        HostileCase{"(a+)+$", longSubject.substr(1) + "!", false},
        HostileCase{"(a|a)*b", longSubject, false}, HostileCase{"(a|a)*$", longSubject, true},
        HostileCase{"(a*)*b", longSubject, false},
        HostileCase{repeated("(", 330) + "a" + repeated(")*", 330) + "b", longSubject, false},
        HostileCase{repeated("(", 400) + "a" + repeated(")", 400), longSubject, true},
        HostileCase{repeated("(", 499) + repeated(")", 499), longSubject, true},
        HostileCase{repeated("(?:", 150) + "a" + repeated("|b)*", 90) + repeated(")", 60),
                    longSubject, true},
        HostileCase{repeated("(?=", 240) + "b" + repeated(")", 240), longSubject, false},
        HostileCase{repeated("(?=.*", 160) + "b" + repeated(")", 160), longSubject, false},
        HostileCase{repeated("(?!.*", 160) + "b" + repeated(")", 160), longSubject, false},
        HostileCase{repeated("(?=.*\\B", 110) + "b" + repeated(")", 110), longSubject, false},
        HostileCase{repeated("(?=^", 199) + "a" + repeated(")", 199), longSubject, true},
        HostileCase{"a(?=\\B(a?){400}b)", longSubject, false},
        HostileCase{repeated(".*", 499) + "b", longSubject, false},
        HostileCase{"a" + repeated("*", 998), longSubject, true},
        HostileCase{"(x?){1600}b", longSubject, false},
        HostileCase{"(a?){1600}b", longSubject, false},
        HostileCase{"(a|b|ab)*c{1000}", longSubject, false},
        HostileCase{std::string(1000, '|'), longSubject, true},
        HostileCase{repeated("[a-c]", 200), longSubject, true}));

TEST(BoundedRegex, RefusesLongMalformedExpressionsOnASmallStack) {
#if defined(__SANITIZE_ADDRESS__)
    constexpr std::size_t stackSize = 8 * 1024 * 1024;  // its frames are several times larger
#else
    constexpr std::size_t stackSize = 2 * 1024 * 1024;
#endif
    runOnStack(stackSize, [] {
        for (const auto& expression :
             {std::string(1000, '('), repeated("(?=", 333), std::string(999, 'a') + "(",
              repeated("(?:", 333), repeated("a|", 499) + "(", repeated("(a|", 333),
              std::string(998, 'a') + "\\1", repeated("(?:", 249) + repeated(")", 249) + "\\1",
              repeated("(a)\\1", 200), "(" + repeated("a*", 499)}) {
            EXPECT_EQ(boundedErrorOf(expression), libraryErrorOf(expression));
            EXPECT_NE(boundedErrorOf(expression), "none");
        }
    });
}

}  // namespace
