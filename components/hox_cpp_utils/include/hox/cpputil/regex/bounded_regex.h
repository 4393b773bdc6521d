#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace Hox::CppUtil {

class RegexMatcher;

/// A regular expression (ECMAScript grammar) from a source that is not trusted.
///
/// The standard library decides what is a valid expression, and the answers are its own. Its
/// matcher, however, recurses once per byte of the subject and backtracks without an end, so that a
/// subject can overflow the stack and an expression can take for ever. Here PCRE2 matches, within a
/// few milliseconds and megabytes; what needs more is refused.
///
/// An object may be used by one thread at a time.
class BoundedRegex {
public:
    /// Longest expression accepted, in bytes.
    static constexpr std::size_t maxExpressionSize = 1000;
    /// Longest subject accepted, in bytes.
    static constexpr std::size_t maxSubjectSize = 4096;

    /// Compiles the expression. Throws std::regex_error for a malformed one, as std::regex does,
    /// and InvalidArgumentError for one that is too long, or too large with its counted repetitions
    /// written out.
    explicit BoundedRegex(const std::string& expression);
    ~BoundedRegex();
    BoundedRegex(BoundedRegex&& other) noexcept;
    BoundedRegex& operator=(BoundedRegex&& other) noexcept;
    BoundedRegex(const BoundedRegex&) = delete;
    BoundedRegex& operator=(const BoundedRegex&) = delete;

    /// Whether any part of the subject matches. Throws InvalidArgumentError for a subject that is
    /// too long and where the answer takes too much time or memory.
    bool search(std::string_view subject);

    /// Whether the whole subject matches. Throws as search() does.
    bool matches(std::string_view subject);

private:
    std::unique_ptr<RegexMatcher> m_matcher;
    std::unique_ptr<RegexMatcher> m_matcherAtStart;  // null where the other one serves as well
};

}  // namespace Hox::CppUtil
