#include "regex/regex_parser.h"

#include <algorithm>
#include <utility>

namespace Hox::CppUtil {

namespace {

constexpr std::string_view digits = "0123456789";
constexpr std::size_t maxDigits = 9;

std::string allBytes() {
    std::string bytes;
    for (std::size_t value = 0; value < RegexCharSet().size(); ++value) {
        bytes.push_back(static_cast<char>(static_cast<unsigned char>(value)));
    }
    return bytes;
}

}  // namespace

std::optional<RegexCharSet> charSetOf(std::string_view atom) {
    static const auto bytes = allBytes();
    try {
        const std::regex regex(atom.begin(), atom.end());
        RegexCharSet result;
        // One pass over all bytes, as a match of each by itself takes three times as long.
        for (std::sregex_iterator match(bytes.begin(), bytes.end(), regex), end; match != end;
             ++match) {
            result.set(static_cast<std::size_t>(match->position()));
        }
        return result;
    } catch (const std::regex_error&) {
        return std::nullopt;
    }
}

RegexParser::RegexParser(std::string_view expression) : m_text(expression) {}

std::optional<RegexSyntax> RegexParser::parse() {
    const auto root = parseChoice();
    if (!root || !atEnd() || m_hasBackReference) {
        return std::nullopt;
    }
    m_syntax.setRoot(*root);
    return std::move(m_syntax);
}

bool RegexParser::accept(char c) {
    return accept(std::string_view(&c, 1));
}

bool RegexParser::accept(std::string_view text) {
    if (m_text.substr(m_position, text.size()) != text) {
        return false;
    }
    m_position += text.size();
    return true;
}

RegexParser::MaybeNode RegexParser::parseChoice() {
    RegexSyntax::Node choice{RegexSyntax::Kind::Choice, 0, 0, 0, {}};
    do {
        const auto alternative = parseSequence();
        if (!alternative) {
            return std::nullopt;
        }
        choice.children.push_back(*alternative);
    } while (accept('|'));
    return choice.children.size() == 1 ? choice.children.front() : m_syntax.add(std::move(choice));
}

RegexParser::MaybeNode RegexParser::parseSequence() {
    RegexSyntax::Node sequence{RegexSyntax::Kind::Sequence, 0, 0, 0, {}};
    while (!atEnd() && m_text[m_position] != '|' && m_text[m_position] != ')') {
        const auto term = parseTerm();
        if (!term) {
            return std::nullopt;
        }
        sequence.children.push_back(*term);
    }
    return m_syntax.add(std::move(sequence));
}

RegexParser::MaybeNode RegexParser::parseTerm() {
    if (auto assertion = parseAssertion()) {
        return assertion;
    }
    if (accept("(?=")) {
        return parseLookahead(RegexSyntax::Kind::Lookahead);
    }
    if (accept("(?!")) {
        return parseLookahead(RegexSyntax::Kind::NegativeLookahead);
    }
    auto atom = parseAtom();
    if (!atom || !parseQuantifiers(*atom)) {
        return std::nullopt;
    }
    return atom;
}

RegexParser::MaybeNode RegexParser::parseAssertion() {
    if (accept('^')) {
        return addKind(RegexSyntax::Kind::LineBegin);
    }
    if (accept('$')) {
        return addKind(RegexSyntax::Kind::LineEnd);
    }
    if (accept("\\b")) {
        return addKind(RegexSyntax::Kind::WordBoundary);
    }
    if (accept("\\B")) {
        return addKind(RegexSyntax::Kind::NoWordBoundary);
    }
    return std::nullopt;
}

RegexParser::MaybeNode RegexParser::parseLookahead(RegexSyntax::Kind kind) {
    const auto body = parseChoice();
    if (!body || !accept(')')) {
        return std::nullopt;
    }
    return m_syntax.add({kind, 0, 0, 0, {*body}});
}

RegexParser::MaybeNode RegexParser::parseAtom() {
    if (atEnd()) {
        return std::nullopt;
    }
    const auto c = m_text[m_position];
    switch (c) {
        case '(':
            return parseGroup();
        case '[':
            return parseBracket();
        case '\\':
            return parseEscape();
        case '*':
        case '+':
        case '?':
        case '{':
            return std::nullopt;
        case '.': {
            ++m_position;
            RegexCharSet lineEnds;
            lineEnds.set('\n');
            lineEnds.set('\r');
            return addChars(~lineEnds);
        }
        default: {
            ++m_position;
            RegexCharSet charSet;
            charSet.set(static_cast<unsigned char>(c));
            return addChars(charSet);
        }
    }
}

RegexParser::MaybeNode RegexParser::parseGroup() {
    if (!accept("(?:")) {
        accept('(');
        if (!atEnd() && m_text[m_position] == '?') {
            return std::nullopt;
        }
    }
    const auto body = parseChoice();
    if (!body || !accept(')')) {
        return std::nullopt;
    }
    return body;
}

RegexParser::MaybeNode RegexParser::parseEscape() {
    const auto start = m_position++;
    if (atEnd()) {
        return std::nullopt;
    }
    const auto c = m_text[m_position++];
    if (c != '0' && digits.find(c) != std::string_view::npos) {
        --m_position;
        parseNumber(std::regex_constants::error_backref);
        m_hasBackReference = true;
        return addKind(RegexSyntax::Kind::Empty);
    }
    const std::size_t operand = c == 'c' ? 1 : c == 'x' ? 2 : c == 'u' ? 4 : 0;
    if (m_text.size() - m_position < operand) {
        return std::nullopt;
    }
    m_position += operand;
    return addCharsOf(m_text.substr(start, m_position - start));
}

RegexParser::MaybeNode RegexParser::parseBracket() {
    const auto start = m_position++;
    accept('^');
    while (!atEnd()) {
        const auto c = m_text[m_position++];
        if (c == ']') {
            return addCharsOf(m_text.substr(start, m_position - start));
        }
        if (c == '\\') {
            accept('c');
            m_position = std::min(m_position + 1, m_text.size());
        } else if (c == '[' && !atEnd() &&
                   std::string_view(".:=").find(m_text[m_position]) != std::string_view::npos) {
            const char closing[] = {m_text[m_position], ']'};
            const auto end = m_text.find(std::string_view(closing, 2), m_position + 1);
            m_position = end == std::string_view::npos ? m_text.size() : end + 2;
        }
    }
    return std::nullopt;
}

bool RegexParser::parseQuantifiers(std::size_t& node) {
    while (true) {
        RegexSyntax::Node repeat{RegexSyntax::Kind::Repeat, 0, 0, RegexSyntax::unlimited, {node}};
        if (accept('+')) {
            repeat.minimum = 1;
        } else if (accept('?')) {
            repeat.maximum = 1;
        } else if (accept('{')) {
            if (!parseInterval(repeat)) {
                return false;
            }
        } else if (!accept('*')) {
            return true;
        }
        accept('?');
        node = m_syntax.add(std::move(repeat));
    }
}

bool RegexParser::parseInterval(RegexSyntax::Node& repeat) {
    const auto minimum = parseNumber(std::regex_constants::error_badbrace);
    if (!minimum) {
        return false;
    }
    repeat.minimum = *minimum;
    repeat.maximum = *minimum;
    if (accept(',')) {
        repeat.maximum =
            parseNumber(std::regex_constants::error_badbrace).value_or(RegexSyntax::unlimited);
    }
    return accept('}') && repeat.minimum <= repeat.maximum;
}

std::optional<std::size_t> RegexParser::parseNumber(std::regex_constants::error_type tooLong) {
    const auto end = std::min(m_text.find_first_not_of(digits, m_position), m_text.size());
    const auto number = m_text.substr(m_position, end - m_position);
    m_position = end;
    if (number.size() > maxDigits) {
        // The library's arithmetic does not survive such a number.
        throw std::regex_error(tooLong);
    }
    if (number.empty()) {
        return std::nullopt;
    }
    return std::stoul(std::string(number));
}

std::size_t RegexParser::addKind(RegexSyntax::Kind kind) {
    return m_syntax.add({kind, 0, 0, 0, {}});
}

std::size_t RegexParser::addChars(const RegexCharSet& charSet) {
    return m_syntax.add({RegexSyntax::Kind::Chars, m_syntax.addCharSet(charSet), 0, 0, {}});
}

RegexParser::MaybeNode RegexParser::addCharsOf(std::string_view atom) {
    auto known = m_charSetOfAtom.find(atom);
    if (known == m_charSetOfAtom.end()) {
        const auto charSet = charSetOf(atom);
        if (!charSet) {
            return std::nullopt;
        }
        known = m_charSetOfAtom.emplace(std::string(atom), m_syntax.addCharSet(*charSet)).first;
    }
    return m_syntax.add({RegexSyntax::Kind::Chars, known->second, 0, 0, {}});
}

}  // namespace Hox::CppUtil
