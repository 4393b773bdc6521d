#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Hox::CppUtil {

class RegexAutomaton;
class RegexLiterals;
class RegexSyntax;

/// A regular expression (ECMAScript grammar) from a source that is not trusted.
///
/// The answers are those of std::regex. Its matcher, however, recurses once per byte of the subject
/// and backtracks, so that a subject can overflow the stack and an expression can take for ever.
/// Here the time is bounded by the number of states times the size of the subject, and the stack
/// does not grow with either. The price is that back-references are refused, as no bounded way to
/// match them exists.
///
/// An object may be used by one thread at a time.
class BoundedRegex {
public:
    /// Longest expression accepted, in bytes.
    static constexpr std::size_t maxExpressionSize = 1000;
    /// Longest subject accepted, in bytes.
    static constexpr std::size_t maxSubjectSize = 4096;
    /// Most states that an expression may have once its counted repetitions are written out.
    static constexpr std::size_t maxStates = 5000;

    /// Compiles the expression. Throws std::regex_error where std::regex does and for a
    /// back-reference, InvalidArgumentError for an expression that is too long or has too many
    /// states.
    explicit BoundedRegex(const std::string& expression);
    ~BoundedRegex();
    BoundedRegex(BoundedRegex&& other) noexcept;
    BoundedRegex& operator=(BoundedRegex&& other) noexcept;
    BoundedRegex(const BoundedRegex&) = delete;
    BoundedRegex& operator=(const BoundedRegex&) = delete;

    /// Whether any part of the subject matches. Throws InvalidArgumentError for a subject that is
    /// too long.
    bool search(std::string_view subject);

    /// Whether the whole subject matches. Throws InvalidArgumentError for a subject that is too
    /// long.
    bool matches(std::string_view subject);

    /// The work done so far by all calls, in steps of a few nanoseconds. A caller with many
    /// subjects can bound its time by it.
    std::uint64_t steps() const;

private:
    explicit BoundedRegex(const RegexSyntax& syntax);

    std::unique_ptr<RegexAutomaton> m_automaton;
    std::unique_ptr<RegexLiterals> m_literals;  // null for an expression of another kind
};

}  // namespace Hox::CppUtil
