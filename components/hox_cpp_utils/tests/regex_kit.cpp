#include "regex_kit.h"

#include <gtest/gtest.h>

#include <regex>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::CppUtil::RegexKit {

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

std::string libraryErrorOf(const std::string& expression) {
    try {
        const std::regex regex(expression);
    } catch (const std::regex_error& error) {
        return error.what();
    }
    return "none";
}

std::string boundedErrorOf(const std::string& expression) {
    try {
        const BoundedRegex regex(expression);
    } catch (const std::regex_error& error) {
        return error.what();
    } catch (const InvalidArgumentError& error) {
        return error.what();
    }
    return "none";
}

void expectSameAnswers(const std::string& expression, const std::vector<std::string>& subjects) {
    const std::regex reference(expression);
    BoundedRegex regex(expression);
    for (const auto& subject : subjects) {
        SCOPED_TRACE("expression '" + expression + "', subject " + testing::PrintToString(subject));
        EXPECT_EQ(regex.search(subject), std::regex_search(subject, reference));
        EXPECT_EQ(regex.matches(subject), std::regex_match(subject, reference));
    }
}

}  // namespace Hox::CppUtil::RegexKit
