#include "regex/regex_matcher.h"

#include <charconv>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/timer/thread_cpu_time.h"

namespace Hox::CppUtil {

namespace {

constexpr std::chrono::milliseconds timeLimit(4);
constexpr std::uint32_t heapLimit = 4096;  // kB
/// Backtracking points at one start position of the subject. A count gives the same answer every
/// time.
constexpr std::uint32_t matchLimit = 100'000;
/// Nested backtracking points: several for each byte of the longest subject.
constexpr std::uint32_t depthLimit = 20'000;
/// Nested groups: more than the longest expression has.
constexpr std::uint32_t nestLimit = 1000;
/// An item of the pattern takes some microseconds at most; reading the clock takes a fifth of one.
constexpr std::uint32_t calloutsPerLook = 64;

[[noreturn]] void refuse(const char* what, int error) {
    char reason[128];
    pcre2_get_error_message(error, reinterpret_cast<PCRE2_UCHAR*>(reason), sizeof reason);
    throw InvalidArgumentError(std::string(what) + ": " + reason, __FILE__, __LINE__);
}

pcre2_code* compile(const std::string& pattern) {
    const std::unique_ptr<pcre2_compile_context, decltype(&pcre2_compile_context_free)> context(
        pcre2_compile_context_create(nullptr), pcre2_compile_context_free);
    pcre2_set_parens_nest_limit(context.get(), nestLimit);
    int error = 0;
    std::size_t place = 0;
    auto* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                               PCRE2_AUTO_CALLOUT, &error, &place, context.get());
    if (code == nullptr) {
        refuse("Regular expression is not supported", error);
    }
    return code;
}

}  // namespace

RegexMatcher::RegexMatcher(const std::string& pattern)
    : m_code(compile(pattern)),
      m_data(pcre2_match_data_create(1, nullptr)),
      m_context(pcre2_match_context_create(nullptr)) {
    pcre2_set_match_limit(m_context.get(), matchLimit);
    pcre2_set_depth_limit(m_context.get(), depthLimit);
    pcre2_set_heap_limit(m_context.get(), heapLimit);
    pcre2_set_callout(m_context.get(), onCallout, this);
}

bool RegexMatcher::search(std::string_view subject, std::size_t from) {
    return run(subject, from, 0);
}

bool RegexMatcher::matchesStart(std::string_view subject) {
    return run(subject, 0, PCRE2_ANCHORED);
}

bool RegexMatcher::matches(std::string_view subject) {
    return run(subject, 0, PCRE2_ANCHORED | PCRE2_ENDANCHORED);
}

bool RegexMatcher::run(std::string_view subject, std::size_t from, std::uint32_t options) {
    m_callouts = 0;
    const auto result = pcre2_match(m_code.get(), reinterpret_cast<PCRE2_SPTR>(subject.data()),
                                    subject.size(), from, options, m_data.get(), m_context.get());
    if (result < 0 && result != PCRE2_ERROR_NOMATCH) {
        refuse("Regular expression needs too much time or memory", result);
    }
    return result >= 0;
}

int RegexMatcher::onCallout(pcre2_callout_block* block, void* matcher) {
    auto& self = *static_cast<RegexMatcher*>(matcher);
    if (block->callout_string != nullptr) {
        const std::string_view callout(reinterpret_cast<const char*>(block->callout_string),
                                       block->callout_string_length);
        return self.judgeLookahead(callout, block->current_position);
    }
    return self.judgeTime();
}

int RegexMatcher::judgeTime() {
    if (++m_callouts % calloutsPerLook != 0) {
        return 0;
    }
    const auto now = threadCpuTime();
    if (m_callouts == calloutsPerLook) {
        m_deadline = now + timeLimit;
    }
    return now < m_deadline ? 0 : PCRE2_ERROR_MATCHLIMIT;
}

int RegexMatcher::judgeLookahead(std::string_view callout, std::size_t place) {
    std::size_t depth = 0;
    std::from_chars(callout.data() + 1, callout.data() + callout.size(), depth);
    auto& begin = m_lookaheadBegins.at(depth);
    switch (callout.front()) {
        case 'b':
            begin = place;
            return 0;
        case 's':
            return place == begin ? 0 : 1;
        default:
            return place == begin ? 1 : 0;
    }
}

}  // namespace Hox::CppUtil
