#include "hox/cpputil/regex/bounded_regex.h"

#include <algorithm>
#include <regex>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "regex/regex_matcher.h"
#include "regex/regex_translator.h"

namespace Hox::CppUtil {

namespace {

constexpr std::size_t maxDigits = 9;

void checkSize(std::string_view text, std::size_t maximum, const char* what) {
    if (text.size() > maximum) {
        throw InvalidArgumentError(std::string(what) + " has " + std::to_string(text.size()) +
                                       " bytes, only " + std::to_string(maximum) + " are allowed",
                                   __FILE__, __LINE__);
    }
}

std::string_view numberAt(std::string_view text, std::size_t start) {
    return text.substr(start, text.find_first_not_of("0123456789", start) - start);
}

bool isGreater(std::string_view left, std::string_view right) {
    left.remove_prefix(std::min(left.find_first_not_of('0'), left.size()));
    right.remove_prefix(std::min(right.find_first_not_of('0'), right.size()));
    return left.size() != right.size() ? left.size() > right.size() : left > right;
}

/// The expression with its numbers replaced by small ones; it stays well-formed or malformed. The
/// library accepts numbers of any length and expands counted repetitions, which takes hundreds of
/// megabytes for a malicious expression.
std::string withSmallNumbers(std::string_view expression) {
    std::string result;
    for (std::size_t i = 0; i < expression.size();) {
        const auto sign = expression[i++];
        result += sign;
        if (sign == '\\' && i < expression.size()) {
            const auto number = numberAt(expression, i);
            result += number.empty() ? expression.substr(i, 1) : number.substr(0, maxDigits);
            i += std::max<std::size_t>(number.size(), 1);
        } else if (sign == '{') {
            const auto minimum = numberAt(expression, i);
            i += minimum.size();
            const auto isRange = expression.substr(i, 1) == ",";
            const auto maximum = numberAt(expression, std::min(i + 1, expression.size()));
            const auto isInOrder = !isRange || maximum.empty() || !isGreater(minimum, maximum);
            result += minimum.empty() ? "" : isInOrder ? "0" : "1";
            if (isRange) {
                result += maximum.empty() ? "," : ",0";
                i += maximum.size() + 1;
            }
        }
    }
    return result;
}

/// Throws the library's error for a malformed expression.
void checkExpression(const std::string& expression) {
    checkSize(expression, BoundedRegex::maxExpressionSize, "Regular expression");
    const std::regex judge(withSmallNumbers(expression));
}

void checkSubject(std::string_view subject) {
    checkSize(subject, BoundedRegex::maxSubjectSize, "Subject of a regular expression");
}

}  // namespace

BoundedRegex::BoundedRegex(const std::string& expression) {
    checkExpression(expression);
    RegexTranslator translator(expression);
    m_matcher = std::make_unique<RegexMatcher>(translator.translate(false));
    if (translator.dependsOnAttempt()) {
        m_matcherAtStart = std::make_unique<RegexMatcher>(translator.translate(true));
    }
}

BoundedRegex::~BoundedRegex() = default;
BoundedRegex::BoundedRegex(BoundedRegex&& other) noexcept = default;
BoundedRegex& BoundedRegex::operator=(BoundedRegex&& other) noexcept = default;

bool BoundedRegex::search(std::string_view subject) {
    checkSubject(subject);
    if (!m_matcherAtStart) {
        return m_matcher->search(subject, 0);
    }
    return m_matcherAtStart->matchesStart(subject) ||
           (!subject.empty() && m_matcher->search(subject, 1));
}

bool BoundedRegex::matches(std::string_view subject) {
    checkSubject(subject);
    return (m_matcherAtStart ? m_matcherAtStart : m_matcher)->matches(subject);
}

}  // namespace Hox::CppUtil
