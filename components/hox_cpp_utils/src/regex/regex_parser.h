#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <string_view>

#include "regex/regex_syntax.h"

namespace Hox::CppUtil {

/// Finds the structure of a regular expression, by the ECMAScript grammar as the library reads it.
///
/// What a bracket or an escape sequence accepts is asked from the library itself. The depth of
/// recursion is at most the size of the expression.
class RegexParser {
public:
    /// Keeps a reference to the text.
    explicit RegexParser(std::string_view expression);

    /// Empty for an expression that the library refuses, too, and for one with a back-reference.
    /// Throws std::regex_error for a number of more than nine digits, which the library must not
    /// see.
    std::optional<RegexSyntax> parse();

private:
    using MaybeNode = std::optional<std::size_t>;

    bool atEnd() const { return m_position == m_text.size(); }
    bool accept(char c);
    bool accept(std::string_view text);

    MaybeNode parseChoice();
    MaybeNode parseSequence();
    MaybeNode parseTerm();
    MaybeNode parseAssertion();
    MaybeNode parseLookahead(RegexSyntax::Kind kind);
    MaybeNode parseAtom();
    MaybeNode parseGroup();
    MaybeNode parseEscape();
    MaybeNode parseBracket();
    bool parseQuantifiers(std::size_t& node);
    bool parseInterval(RegexSyntax::Node& repeat);
    std::optional<std::size_t> parseNumber(std::regex_constants::error_type tooLong);

    std::size_t addKind(RegexSyntax::Kind kind);
    std::size_t addChars(const RegexCharSet& charSet);
    MaybeNode addCharsOf(std::string_view atom);

    std::string_view m_text;
    std::size_t m_position = 0;
    bool m_hasBackReference = false;
    RegexSyntax m_syntax;
    std::map<std::string, std::size_t, std::less<>> m_charSetOfAtom;
};

/// The bytes that the library accepts for an expression of one place, such as "[a-z]" or "\w".
/// Empty where it refuses the expression.
std::optional<RegexCharSet> charSetOf(std::string_view atom);

}  // namespace Hox::CppUtil
