#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/regex/bounded_regex.h"
#include "hox/cpputil/timer/thread_cpu_time.h"
#include "regex_kit.h"

namespace Hox::CppUtil {
namespace {

using RegexKit::boundedErrorOf;
using RegexKit::libraryErrorOf;
using RegexKit::repeated;
using testing::HasSubstr;
using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t stackSize = 8 * 1024 * 1024;  // its frames are several times larger
#else
constexpr std::size_t stackSize = 2 * 1024 * 1024;
#endif
constexpr std::size_t mostMemory = 5 * 1024 * 1024;
constexpr auto mostTimePerMatch = 20ms;
constexpr auto mostTimeToCompile = 1s;  // time of the library; a thirtieth of it in an optimised
                                        // build

// Runs the body on a small stack, so that deep recursion shows as a crash.
void runOnSmallStack(std::function<void()> body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_t thread = {};
    const auto start = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, start, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::size_t memoryInUse() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

enum class Answer { Found, NotFound, Refused };

Answer answerOf(BoundedRegex& regex, bool (BoundedRegex::*call)(std::string_view),
                const std::string& subject) {
    const auto memory = memoryInUse();
    const auto start = threadCpuTime();
    auto answer = Answer::Refused;
    try {
        answer = (regex.*call)(subject) ? Answer::Found : Answer::NotFound;
    } catch (const InvalidArgumentError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Regular expression needs too much time or memory: "));
    }
    EXPECT_LT(threadCpuTime() - start, mostTimePerMatch);
    EXPECT_LT(memoryInUse(), memory + mostMemory);
    return answer;
}

struct HostileCase {
    std::string expression;
    std::string subject;
    Answer found;

    friend void PrintTo(const HostileCase& hostile, std::ostream* stream) {
        *stream << hostile.expression;
    }
};

class BoundedRegexHostile : public testing::TestWithParam<HostileCase> {};

TEST_P(BoundedRegexHostile, StaysWithinItsBounds) {
    runOnSmallStack([] {
        const auto start = threadCpuTime();
        BoundedRegex regex(GetParam().expression);
        EXPECT_LT(threadCpuTime() - start, mostTimeToCompile);
        // A slow machine may need more time than is allowed.
        EXPECT_THAT(answerOf(regex, &BoundedRegex::search, GetParam().subject),
                    testing::AnyOf(GetParam().found, Answer::Refused));
        answerOf(regex, &BoundedRegex::matches, GetParam().subject);
    });
}

const std::string longSubject(BoundedRegex::maxSubjectSize, 'a');

INSTANTIATE_TEST_SUITE_P(
    Backtracking, BoundedRegexHostile,
    testing::Values(HostileCase{"(a+)+$", longSubject.substr(1) + "!", Answer::Refused},
                    HostileCase{"(a|a)*b", longSubject, Answer::NotFound},
                    HostileCase{"(a|a)*[bc]", longSubject, Answer::Refused},
                    HostileCase{"(a|a)*$", longSubject.substr(3000), Answer::Found},
                    HostileCase{"(a*)*b", longSubject, Answer::NotFound},
                    HostileCase{"(a*)*[bc]", longSubject, Answer::Refused},
                    HostileCase{"(a|b|ab)*[cd]", longSubject, Answer::Refused},
                    HostileCase{"[ab]*[cd]", longSubject, Answer::Refused},
                    HostileCase{"([ab]{3000}|c)[cd]", longSubject, Answer::Refused},
                    HostileCase{"(?:" + repeated("[ab]*c|", 140) + "d)", longSubject,
                                Answer::Refused},
                    HostileCase{repeated(".*", 499) + "b", longSubject, Answer::NotFound},
                    HostileCase{repeated(".*", 400) + "[bc]", longSubject, Answer::Refused},
                    HostileCase{"(.*)\\1[bc]", longSubject, Answer::Refused},
                    HostileCase{"(a*)(a*)(a*)\\1\\2\\3[bc]", longSubject, Answer::Refused},
                    HostileCase{"(.+)\\1{2,}$", longSubject, Answer::Found}));

INSTANTIATE_TEST_SUITE_P(
    Nesting, BoundedRegexHostile,
    testing::Values(
        HostileCase{repeated("(", 300) + "a" + repeated(")", 300), longSubject, Answer::Found},
        HostileCase{repeated("(", 350) + repeated(")", 350), longSubject, Answer::Found},
        HostileCase{repeated("(", 300) + "a" + repeated(")*", 300) + "[bc]", longSubject,
                    Answer::Refused},
        HostileCase{repeated("(?:", 150) + "a" + repeated("|b)*", 90) + repeated(")", 60),
                    longSubject.substr(3900), Answer::Found},
        HostileCase{"a" + repeated("+", 100) + "[bc]", longSubject, Answer::Refused},
        HostileCase{repeated("(?=", 240) + "b" + repeated(")", 240), longSubject, Answer::NotFound},
        HostileCase{repeated("(?=.*", 160) + "b" + repeated(")", 160), longSubject,
                    Answer::Refused},
        HostileCase{repeated("(?!.*", 160) + "b" + repeated(")", 160), longSubject,
                    Answer::Refused},
        HostileCase{repeated("(?=.*\\B", 110) + "b" + repeated(")", 110), longSubject,
                    Answer::Refused},
        HostileCase{repeated("(?=^", 199) + "a" + repeated(")", 199), longSubject, Answer::Found},
        HostileCase{"a(?=\\B(a?){400}b)", longSubject, Answer::Refused}));

INSTANTIATE_TEST_SUITE_P(
    Size, BoundedRegexHostile,
    testing::Values(HostileCase{"((a{1,100}){1,100})", longSubject, Answer::Found},
                    HostileCase{"((a{1,100}){1,100})[bc]", longSubject, Answer::Refused},
                    HostileCase{"((.{1,50}){1,50}){1,5}[bc]", longSubject, Answer::Refused},
                    HostileCase{repeated("(a{1,9})?", 90) + "[bc]", longSubject, Answer::Refused},
                    HostileCase{repeated("((a{1,9}){1,9})?", 20), longSubject, Answer::Found},
                    HostileCase{"(x?){1600}b", longSubject, Answer::NotFound},
                    HostileCase{"(a?){1600}[bc]", longSubject, Answer::Refused},
                    HostileCase{"\\w{30000}", longSubject, Answer::NotFound},
                    HostileCase{std::string(1000, '|'), longSubject, Answer::Found},
                    HostileCase{repeated("[a-c]", 200), longSubject, Answer::Found}));

TEST(BoundedRegexHostile, RefusesLongExpressionsOnASmallStack) {
    runOnSmallStack([] {
        for (const auto& expression :
             {std::string(1000, '('), repeated("(?=", 333), std::string(999, 'a') + "(",
              repeated("(?:", 333), repeated("a|", 499) + "(", repeated("(a|", 333),
              std::string(998, 'a') + "\\1", repeated("(?:", 249) + repeated(")", 249) + "\\1",
              "(" + repeated("a*", 499)}) {
            EXPECT_EQ(boundedErrorOf(expression), libraryErrorOf(expression));
            EXPECT_NE(boundedErrorOf(expression), "none");
        }
    });
}

TEST(BoundedRegexHostile, RefusesWhatIsTooLargeWithoutWritingItOut) {
    const std::string largeBracket = "[" + repeated("[=a=]", 195) + "]";
    for (const auto& expression :
         {std::string("(((a{1,100}){1,100}){1,100})"), std::string("(?:){999999999}"),
          repeated("(((a{1,99}){1,99}){1,99})", 40), largeBracket + "{90000}",
          "(?:" + largeBracket + "){9999}", "(" + repeated("\\W", 450) + "){9999}",
          std::string("(") + repeated("a?", 300) + ")" + repeated("{9}", 130),
          "a" + repeated("*", 998)}) {
        const auto start = threadCpuTime();
        EXPECT_THAT(boundedErrorOf(expression), HasSubstr("Regular expression is not supported: "))
            << expression;
        EXPECT_LT(threadCpuTime() - start, mostTimeToCompile) << expression;
    }
}

}  // namespace
}  // namespace Hox::CppUtil
