#include "regex/regex_literals.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Hox::CppUtil {

namespace {

using Kind = RegexSyntax::Kind;

/// The one byte that the node accepts.
std::optional<char> byteOf(const RegexSyntax& syntax, const RegexSyntax::Node& node) {
    if (node.kind != Kind::Chars) {
        return std::nullopt;
    }
    const auto& charSet = syntax.charSets()[node.charSet];
    if (charSet.count() != 1) {
        return std::nullopt;
    }
    std::size_t byte = 0;
    while (!charSet.test(byte)) {
        ++byte;
    }
    return static_cast<char>(byte);
}

/// Whether the node is ".*".
bool isAnything(const RegexSyntax& syntax, const RegexSyntax::Node& node) {
    if (node.kind != Kind::Repeat || node.minimum != 0 || node.maximum != RegexSyntax::unlimited) {
        return false;
    }
    const auto& child = syntax.node(node.children.front());
    if (child.kind != Kind::Chars) {
        return false;
    }
    RegexCharSet lineEnds;
    lineEnds.set('\n');
    lineEnds.set('\r');
    return syntax.charSets()[child.charSet] == ~lineEnds;
}

bool isOneLine(std::string_view text) {
    return text.find('\n') == std::string_view::npos && text.find('\r') == std::string_view::npos;
}

}  // namespace

std::optional<RegexLiterals> RegexLiterals::recognize(const RegexSyntax& syntax) {
    RegexLiterals literals;
    const auto& root = syntax.node(syntax.root());
    const bool isChoice = root.kind == Kind::Choice;
    for (std::size_t i = 0; i < (isChoice ? root.children.size() : 1); ++i) {
        auto alternative =
            recognizeAlternative(syntax, isChoice ? syntax.node(root.children[i]) : root);
        if (!alternative) {
            return std::nullopt;
        }
        literals.m_alternatives.push_back(std::move(*alternative));
    }
    return literals;
}

std::optional<RegexLiterals::Alternative> RegexLiterals::recognizeAlternative(
    const RegexSyntax& syntax, const RegexSyntax::Node& node) {
    if (node.kind != Kind::Sequence) {
        return std::nullopt;
    }
    Alternative alternative;
    for (const auto child : node.children) {
        const auto byte = byteOf(syntax, syntax.node(child));
        if (byte) {
            alternative.text.push_back(*byte);
        } else if (child == node.children.back() && isAnything(syntax, syntax.node(child))) {
            alternative.isOpen = true;
        } else {
            return std::nullopt;
        }
    }
    return alternative;
}

bool RegexLiterals::match(std::string_view subject) {
    m_steps += m_alternatives.size() + subject.size();
    return std::any_of(m_alternatives.begin(), m_alternatives.end(),
                       [subject](const Alternative& alternative) {
                           const auto start = subject.substr(0, alternative.text.size());
                           const auto rest = subject.substr(start.size());
                           return start == alternative.text &&
                                  (alternative.isOpen ? isOneLine(rest) : rest.empty());
                       });
}

}  // namespace Hox::CppUtil
