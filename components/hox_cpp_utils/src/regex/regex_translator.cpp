#include "regex/regex_translator.h"

#include <fmt/format.h>

#include <algorithm>
#include <bitset>
#include <regex>

namespace Hox::CppUtil {

namespace {

constexpr std::size_t byteCount = 256;

std::string allBytes() {
    std::string bytes;
    for (std::size_t value = 0; value < byteCount; ++value) {
        bytes.push_back(static_cast<char>(static_cast<unsigned char>(value)));
    }
    return bytes;
}

/// The bytes that the library accepts for a bracket expression.
std::bitset<byteCount> bytesOf(std::string_view bracket) {
    static const auto bytes = allBytes();
    const std::regex regex(bracket.begin(), bracket.end());
    std::bitset<byteCount> accepted;
    // One pass over all bytes: a separate match of each byte takes three times as long.
    for (std::sregex_iterator match(bytes.begin(), bytes.end(), regex), end; match != end;
         ++match) {
        accepted.set(static_cast<std::size_t>(match->position()));
    }
    return accepted;
}

/// Whether this is "{0}" in one of its forms.
bool repeatsNever(std::string_view quantifier) {
    return quantifier.size() > 2 && quantifier.find_first_not_of("{0,}") == std::string::npos &&
           quantifier[quantifier.size() - 2] == '0';
}

}  // namespace

std::string RegexTranslator::translate(bool isAtStart) {
    m_position = 0;
    m_isAtStart = isAtStart;
    m_dependsOnAttempt = false;
    m_pattern.clear();
    while (m_position < m_expression.size()) {
        translateTerm();
    }
    return m_pattern;
}

bool RegexTranslator::accept(std::string_view text) {
    if (m_expression.substr(m_position, text.size()) != text) {
        return false;
    }
    m_position += text.size();
    return true;
}

void RegexTranslator::translateTerm() {
    const auto sign = take();
    switch (sign) {
        case '^':
            return translateAssertion("", "^");
        case '$':
            m_pattern += "\\z";
            return;
        case '|':
            m_pattern += '|';
            return;
        case '(':
            return openGroup();
        case ')':
            return closeGroup();
        case '*':
        case '+':
        case '?':
        case '{':
            return translateQuantifier(sign);
        case '[':
            return translateBracket();
        case '\\':
            return translateEscape();
        case '.':
            return addAtom("[^\\n\\r]");
        default:
            return addByte(sign);
    }
}

void RegexTranslator::translateAssertion(std::string_view atBegin, std::string_view elsewhere) {
    const auto isInLookahead = m_lookaheadDepth > 0;
    m_dependsOnAttempt = m_dependsOnAttempt || isInLookahead;
    if (isInLookahead && m_isAtStart) {
        m_pattern +=
            fmt::format("(?:(?C's{0}'){1}|(?C'n{0}'){2})", m_lookaheadDepth, atBegin, elsewhere);
    } else {
        m_pattern += elsewhere;
    }
}

void RegexTranslator::openGroup() {
    const auto isLookahead = accept("?=") || accept("?!");
    const auto isPlain = isLookahead || accept("?:");
    m_openGroups.push_back({m_pattern.size(), isLookahead});
    m_pattern += '(';
    if (isPlain) {
        m_pattern += m_expression.substr(m_position - 2, 2);
    }
    if (isLookahead) {
        ++m_lookaheadDepth;
        if (m_isAtStart) {
            m_pattern += fmt::format("(?C'b{}')", m_lookaheadDepth);
        }
    }
}

void RegexTranslator::closeGroup() {
    const auto group = m_openGroups.back();
    m_openGroups.pop_back();
    m_pattern += ')';
    m_atomStart = group.start;
    m_isQuantified = false;
    m_lookaheadDepth -= group.isLookahead ? 1 : 0;
}

void RegexTranslator::translateQuantifier(char sign) {
    std::string quantifier(1, sign);
    while (sign == '{' && quantifier.back() != '}') {
        quantifier += take();
    }
    if (repeatsNever(quantifier)) {
        // PCRE2 10.42 treats "(?:b|^){0}a" as an anchored pattern. An alternative that never
        // matches keeps the numbering of the groups in it.
        m_pattern.insert(m_atomStart, "(?:(?!)");
        m_pattern += ")";
        quantifier = "?";
    } else if (m_isQuantified) {
        // "a**" repeats a repetition in the library; in PCRE2 it is an error or a possessive
        // quantifier.
        m_pattern.insert(m_atomStart, "(?:");
        m_pattern += ')';
    }
    m_isQuantified = true;
    m_pattern += quantifier;
    if (accept("?")) {
        m_pattern += '?';
    }
}

void RegexTranslator::translateEscape() {
    const auto sign = take();
    switch (sign) {
        case 'b':
            return translateAssertion("(?=\\w)", "\\b");
        case 'B':
            return translateAssertion("(?!\\w)", "\\B");
        case 'd':
        case 'D':
        case 's':
        case 'S':
        case 'w':
        case 'W':
            return addAtom(std::string{'\\', sign});
        case '0':
            return addByte('\0');
        case 'f':
            return addByte('\f');
        case 'n':
            return addByte('\n');
        case 'r':
            return addByte('\r');
        case 't':
            return addByte('\t');
        case 'v':
            return addByte('\v');
        case 'c':
            return addByte(take());
        case 'x':
            return addByte(takeHex(2));
        case 'u':
            return addByte(takeHex(4));
        default:
            return sign >= '1' && sign <= '9' ? translateBackReference() : addByte(sign);
    }
}

void RegexTranslator::translateBackReference() {
    const auto start = m_position - 1;
    m_position = std::min(m_expression.find_first_not_of("0123456789", start), m_expression.size());
    addAtom(fmt::format("\\g{{{}}}", m_expression.substr(start, m_position - start)));
}

void RegexTranslator::translateBracket() {
    const auto start = m_position - 1;
    for (auto sign = take(); sign != ']'; sign = take()) {
        if (sign == '\\') {
            accept("c");
            take();
        } else if (sign == '[' && (accept(".") || accept(":") || accept("="))) {
            const char closing[] = {m_expression[m_position - 1], ']'};
            m_position = m_expression.find(std::string_view(closing, 2), m_position) + 2;
        }
    }
    addAtom(classOf(m_expression.substr(start, m_position - start)));
}

const std::string& RegexTranslator::classOf(std::string_view bracket) {
    auto& result = m_classes[bracket];
    if (result.empty()) {
        const auto bytes = bytesOf(bracket);
        result = bytes.none() ? "[^" : "[";  // no byte matches: the complement of all bytes
        for (std::size_t first = 0; first < byteCount; ++first) {
            auto last = first;
            while (last + 1 < byteCount && bytes.test(first) && bytes.test(last + 1)) {
                ++last;
            }
            if (bytes.test(first)) {
                result += fmt::format("\\x{:02x}-\\x{:02x}", first, last);
            }
            first = last;
        }
        result += bytes.none() ? "\\x00-\\xff]" : "]";
    }
    return result;
}

char RegexTranslator::takeHex(std::size_t digits) {
    const std::string number(m_expression.substr(m_position, digits));
    m_position += digits;
    // The library keeps the lowest byte of a longer number.
    return static_cast<char>(static_cast<unsigned char>(std::stoul(number, nullptr, 16)));
}

void RegexTranslator::addByte(char byte) {
    addAtom(fmt::format("\\x{:02x}", static_cast<unsigned char>(byte)));
}

void RegexTranslator::addAtom(std::string_view atom) {
    m_atomStart = m_pattern.size();
    m_isQuantified = false;
    m_pattern += atom;
}

}  // namespace Hox::CppUtil
