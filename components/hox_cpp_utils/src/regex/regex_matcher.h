#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::CppUtil {

/// A pattern of RegexTranslator, compiled for the interpreter of PCRE2, with bounds on the time and
/// the memory that a match takes.
///
/// The limit of PCRE2 counts backtracking, and starts again at each position of the subject, so it
/// does not bound the time. The matcher gets a callout before each item of the pattern and checks
/// the clock.
class RegexMatcher {
public:
    /// Throws InvalidArgumentError for a pattern that is too large.
    explicit RegexMatcher(const std::string& pattern);
    ~RegexMatcher() = default;
    RegexMatcher(const RegexMatcher&) = delete;
    RegexMatcher(RegexMatcher&&) = delete;
    RegexMatcher& operator=(const RegexMatcher&) = delete;
    RegexMatcher& operator=(RegexMatcher&&) = delete;

    /// Whether a part of the subject that begins at or after `from` matches.
    bool search(std::string_view subject, std::size_t from);

    /// Whether a part that begins at the start of the subject matches.
    bool matchesStart(std::string_view subject);

    /// Whether the whole subject matches.
    bool matches(std::string_view subject);

private:
    struct Deleter {
        void operator()(pcre2_code* code) const { pcre2_code_free(code); }
        void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
        void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
    };

    bool run(std::string_view subject, std::size_t from, std::uint32_t options);
    static int onCallout(pcre2_callout_block* block, void* matcher);
    int judgeTime();
    int judgeLookahead(std::string_view callout, std::size_t place);

    std::unique_ptr<pcre2_code, Deleter> m_code;
    std::unique_ptr<pcre2_match_data, Deleter> m_data;
    std::unique_ptr<pcre2_match_context, Deleter> m_context;
    std::uint32_t m_callouts = 0;
    std::chrono::nanoseconds m_deadline{};
    /// Indexed by depth; a lookahead takes at least four bytes.
    std::array<std::size_t, BoundedRegex::maxExpressionSize / 4 + 1> m_lookaheadBegins{};
};

}  // namespace Hox::CppUtil
