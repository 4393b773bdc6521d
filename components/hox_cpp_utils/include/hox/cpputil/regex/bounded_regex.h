#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace Hox::CppUtil {

class RegexMatcher;

/// A regular expression (ECMAScript grammar) from a source that is not trusted.
///
/// The standard library decides what a valid expression is, and the results equal its results. Its
/// matcher, however, recurses once per byte of the subject and backtracks without a limit: a
/// subject can overflow the stack, and an expression can take for ever. Here PCRE2 does the
/// matching, within a few milliseconds and megabytes; a match that needs more is refused.
///
/// An object may be used by one thread at a time.
class BoundedRegex {
public:
    /// Longest expression accepted, in bytes.
    static constexpr std::size_t maxExpressionSize = 1000;
    /// Longest subject accepted, in bytes.
    static constexpr std::size_t maxSubjectSize = 4096;

    /// Compiles the expression. Throws std::regex_error for a malformed one, as std::regex does,
    /// and InvalidArgumentError for one that is too long, or too large once its counted repetitions
    /// are expanded.
    explicit BoundedRegex(const std::string& expression);
    ~BoundedRegex();
    BoundedRegex(BoundedRegex&& other) noexcept;
    BoundedRegex& operator=(BoundedRegex&& other) noexcept;
    BoundedRegex(const BoundedRegex&) = delete;
    BoundedRegex& operator=(const BoundedRegex&) = delete;

    /// Whether any part of the subject matches. Throws InvalidArgumentError if the subject is too
    /// long or the match takes too much time or memory.
    bool search(std::string_view subject);

    /// Whether the whole subject matches. Throws as search() does.
    bool matches(std::string_view subject);

private:
    std::unique_ptr<RegexMatcher> m_matcher;
    std::unique_ptr<RegexMatcher> m_matcherAtStart;  // null if the other one serves both cases
};

}  // namespace Hox::CppUtil
