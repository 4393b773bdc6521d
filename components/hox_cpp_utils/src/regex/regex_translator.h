#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Hox::CppUtil {

/// Translates an expression of the ECMAScript grammar, as the standard library reads it, into the
/// syntax of PCRE2. The library must accept the expression.
///
/// Bytes are written as numbers, and the library itself decides which bytes a bracket expression
/// accepts, so no construct gets a meaning that only PCRE2 has.
///
/// One oddity needs help from the matcher. In the attempt that begins at the start of the subject,
/// the library also treats the position of a lookahead as a start: "a(?=^b)" is found in "ab", but
/// not in "xab". A pattern for that attempt has callouts that consist of a letter and the depth of
/// the lookahead: "b" marks the begin of a lookahead; "s" fails unless the position is the begin of
/// its lookahead, "n" fails if it is.
class RegexTranslator {
public:
    /// Keeps a reference to the expression.
    explicit RegexTranslator(std::string_view expression) : m_expression(expression) {}

    /// The pattern for the attempt at the start of the subject, or for all other attempts.
    std::string translate(bool isAtStart);

    /// Whether the last pattern differs from the pattern for the other attempts.
    bool dependsOnAttempt() const { return m_dependsOnAttempt; }

private:
    struct Group {
        std::size_t start = 0;  // offset in the pattern
        bool isLookahead = false;
    };

    char take() { return m_expression[m_position++]; }
    bool accept(std::string_view text);
    char takeHex(std::size_t digits);

    void translateTerm();
    void translateAssertion(std::string_view atBegin, std::string_view elsewhere);
    void openGroup();
    void closeGroup();
    void translateQuantifier(char sign);
    void translateEscape();
    void translateBackReference();
    void translateBracket();
    const std::string& classOf(std::string_view bracket);
    void addByte(char byte);
    void addAtom(std::string_view atom);

    std::string_view m_expression;
    std::map<std::string_view, std::string> m_classes;

    std::size_t m_position = 0;
    bool m_isAtStart = false;
    bool m_dependsOnAttempt = false;
    std::string m_pattern;
    std::vector<Group> m_openGroups;
    std::size_t m_lookaheadDepth = 0;
    std::size_t m_atomStart = 0;  // start of the term that a quantifier would repeat
    bool m_isQuantified = false;
};

}  // namespace Hox::CppUtil
