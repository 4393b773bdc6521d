#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Hox::CppUtil {

/// Writes an expression of the ECMAScript grammar, as the standard library reads it, in the syntax
/// of PCRE2. The expression is one that the library accepts.
///
/// Bytes are written as numbers, and what a bracket accepts is asked from the library itself, so
/// that nothing has a meaning which only PCRE2 knows.
///
/// One oddity needs help from the matcher. In the attempt that begins at the start of the subject,
/// the library takes the place of a lookahead for a start, too: "a(?=^b)" is found in "ab", though
/// not in "xab". A pattern for that attempt has callouts, of a letter and the depth of the
/// lookahead: at one with "b" a lookahead begins; one with "s" fails away from the begin of its
/// lookahead, one with "n" fails there.
class RegexTranslator {
public:
    /// Keeps a reference to the expression.
    explicit RegexTranslator(std::string_view expression) : m_expression(expression) {}

    /// The pattern for an attempt at the start of the subject, or for all others.
    std::string translate(bool isAtStart);

    /// Whether the pattern that was written last is another one than for the other attempts.
    bool dependsOnAttempt() const { return m_dependsOnAttempt; }

private:
    struct Group {
        std::size_t start = 0;  // in the pattern
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
    std::size_t m_atomStart = 0;  // of the term that a quantifier would repeat
    bool m_isQuantified = false;
};

}  // namespace Hox::CppUtil
