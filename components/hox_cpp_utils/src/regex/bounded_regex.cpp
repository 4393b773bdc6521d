#include "hox/cpputil/regex/bounded_regex.h"

#include <regex>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "regex/regex_automaton.h"
#include "regex/regex_parser.h"

namespace Hox::CppUtil {

namespace {

void checkSize(std::string_view text, std::size_t maximum, const char* what) {
    if (text.size() > maximum) {
        throw InvalidArgumentError(std::string(what) + " has " + std::to_string(text.size()) +
                                       " bytes, only " + std::to_string(maximum) + " are allowed",
                                   __FILE__, __LINE__);
    }
}

std::unique_ptr<RegexAutomaton> compile(const std::string& expression) {
    checkSize(expression, BoundedRegex::maxExpressionSize, "Regular expression");
    const auto tree = RegexParser(expression).parse();
    if (!tree) {
        // The library words the error.
        const std::regex regex(expression,
                               std::regex::ECMAScript | std::regex_constants::__polynomial);
        throw InvalidArgumentError("Regular expression is not supported", __FILE__, __LINE__);
    }
    if (tree->stateCount() > BoundedRegex::maxStates) {
        throw InvalidArgumentError("Regular expression needs more than " +
                                       std::to_string(BoundedRegex::maxStates) + " states",
                                   __FILE__, __LINE__);
    }
    return std::make_unique<RegexAutomaton>(*tree);
}

}  // namespace

BoundedRegex::BoundedRegex(const std::string& expression) : m_automaton(compile(expression)) {}

BoundedRegex::~BoundedRegex() = default;
BoundedRegex::BoundedRegex(BoundedRegex&& other) noexcept = default;
BoundedRegex& BoundedRegex::operator=(BoundedRegex&& other) noexcept = default;

bool BoundedRegex::search(std::string_view subject) {
    checkSize(subject, maxSubjectSize, "Subject of a regular expression");
    return m_automaton->run(subject, RegexAutomaton::Mode::Search);
}

bool BoundedRegex::matches(std::string_view subject) {
    checkSize(subject, maxSubjectSize, "Subject of a regular expression");
    return m_automaton->run(subject, RegexAutomaton::Mode::Match);
}

std::uint64_t BoundedRegex::steps() const {
    return m_automaton->steps();
}

}  // namespace Hox::CppUtil
