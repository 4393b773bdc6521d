#include "hox/cpputil/regex/bounded_regex.h"

#include <regex>
#include <utility>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "regex/regex_automaton.h"
#include "regex/regex_literals.h"
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

RegexSyntax parse(const std::string& expression) {
    checkSize(expression, BoundedRegex::maxExpressionSize, "Regular expression");
    auto syntax = RegexParser(expression).parse();
    if (!syntax) {
        // The library words the error: at first as it does for everybody, then that of an
        // expression whose only fault is a back-reference.
        const std::regex malformed(expression);
        const std::regex backReference(expression,
                                       std::regex::ECMAScript | std::regex_constants::__polynomial);
        throw InvalidArgumentError("Regular expression is not supported", __FILE__, __LINE__);
    }
    if (syntax->stateCount() > BoundedRegex::maxStates) {
        throw InvalidArgumentError("Regular expression needs more than " +
                                       std::to_string(BoundedRegex::maxStates) + " states",
                                   __FILE__, __LINE__);
    }
    return std::move(*syntax);
}

std::unique_ptr<RegexLiterals> recognizeLiterals(const RegexSyntax& syntax) {
    auto literals = RegexLiterals::recognize(syntax);
    return literals ? std::make_unique<RegexLiterals>(std::move(*literals)) : nullptr;
}

}  // namespace

BoundedRegex::BoundedRegex(const std::string& expression) : BoundedRegex(parse(expression)) {}

BoundedRegex::BoundedRegex(const RegexSyntax& syntax)
    : m_automaton(std::make_unique<RegexAutomaton>(syntax)),
      m_literals(recognizeLiterals(syntax)) {}

BoundedRegex::~BoundedRegex() = default;
BoundedRegex::BoundedRegex(BoundedRegex&& other) noexcept = default;
BoundedRegex& BoundedRegex::operator=(BoundedRegex&& other) noexcept = default;

bool BoundedRegex::search(std::string_view subject) {
    checkSize(subject, maxSubjectSize, "Subject of a regular expression");
    return m_automaton->run(subject, RegexAutomaton::Mode::Search);
}

bool BoundedRegex::matches(std::string_view subject) {
    checkSize(subject, maxSubjectSize, "Subject of a regular expression");
    return m_literals ? m_literals->match(subject)
                      : m_automaton->run(subject, RegexAutomaton::Mode::Match);
}

std::uint64_t BoundedRegex::steps() const {
    return m_automaton->steps() + (m_literals ? m_literals->steps() : 0);
}

}  // namespace Hox::CppUtil
