#include "hox/cpputil/log/logger_name.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace Hox::Naming {

class Example {
public:
    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };

    struct Inner {
        std::function<std::string()> _HALVOMACRO_loggerName = [] {
            return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
        };
    };

    explicit Example(int /*unused*/) {
        const std::function<std::string()> local = [] {
            return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
        };
        constructorName = local();
    }

    std::string constructorName;
};

class Derived : public Example {
public:
    using Example::Example;
};

template <typename T, int N>
class Template {
public:
    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
};

std::string inFunction(const std::vector<int>& /*unused*/, char** /*unused*/) {
    const std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    return _HALVOMACRO_loggerName();
}

}  // namespace Hox::Naming

namespace Hox::Log {
namespace {

struct NameCase {
    const char* function;
    const char* file;
    const char* expected;
};

TEST(LoggerName, IsFileNameAndFunctionUpToTheLambda) {
    const std::vector<NameCase> cases{
        {"Hox::A::<lambda()>", "/src/hox/a.h", "a.h::Hox::A"},
        {"Hox::A::<lambda()>", "a.h", "a.h::Hox::A"},
        {"Hox::A::<lambda()>", "../x/a.b.h", "a.b.h::Hox::A"},
        {"", "/src/a.cpp", "a.cpp"},
        {"", "/src/", ""},
        {"int main()", "/src/main.cpp", "main.cpp::int main()"},
        {"f()::<lambda()>::<lambda()>", "a.cpp", "a.cpp::f()"},
        {"Hox::T<U>::<lambda()> [with U = int]", "t.h", "t.h::Hox::T<U>"},
        {"Hox::A::<lambda(int)>", "a.h", "a.h::Hox::A::<lambda(int)>"},
        {"<lambda()>", "a.h", "a.h"},
    };
    for (const auto& [function, file, expected] : cases) {
        EXPECT_EQ(loggerName(function, file), expected) << function << " in " << file;
    }
}

TEST(LoggerName, OfAClassEndsWithTheClassName) {
    EXPECT_EQ(Naming::Example(1)._HALVOMACRO_loggerName(),
              "logger_name_test.cpp::Hox::Naming::Example");
    EXPECT_EQ(Naming::Example::Inner()._HALVOMACRO_loggerName(),
              "logger_name_test.cpp::Hox::Naming::Example::Inner");
}

TEST(LoggerName, OfADerivedClassIsThatOfTheClassWithTheLambda) {
    EXPECT_EQ(Naming::Derived(1)._HALVOMACRO_loggerName(),
              "logger_name_test.cpp::Hox::Naming::Example");
}

TEST(LoggerName, OfAClassTemplateHoldsItsArguments) {
    EXPECT_EQ((Naming::Template<int, 3>()._HALVOMACRO_loggerName()),
              "logger_name_test.cpp::Hox::Naming::Template<int, 3>");
    EXPECT_EQ((Naming::Template<Naming::Example, 4>()._HALVOMACRO_loggerName()),
              "logger_name_test.cpp::Hox::Naming::Template<Hox::Naming::Example, 4>");
}

TEST(LoggerName, OfALocalLambdaKeepsTheWholeSignature) {
    EXPECT_EQ(Naming::inFunction({}, nullptr),
              "logger_name_test.cpp::Hox::Naming::inFunction(const std::vector<int>&, char**)");
    EXPECT_EQ(Naming::Example(1).constructorName,
              "logger_name_test.cpp::Hox::Naming::Example::Example(int)");
}

}  // namespace
}  // namespace Hox::Log
