#include "regex/regex_syntax.h"

#include <algorithm>
#include <utility>

namespace Hox::CppUtil {

namespace {

constexpr std::size_t beyondCounting = 1000000;

}  // namespace

std::size_t RegexSyntax::add(Node node) {
    m_stateCounts.push_back(std::min(countStates(node), beyondCounting));
    m_looksBack.push_back(looksBack(node));
    m_looksBackInLookahead =
        m_looksBackInLookahead || (m_looksBack.back() && (node.kind == Kind::Lookahead ||
                                                          node.kind == Kind::NegativeLookahead));
    m_nodes.push_back(std::move(node));
    return m_nodes.size() - 1;
}

std::size_t RegexSyntax::addCharSet(const RegexCharSet& charSet) {
    m_charSets.push_back(charSet);
    return m_charSets.size() - 1;
}

bool RegexSyntax::looksBack(const Node& node) const {
    return node.kind == Kind::LineBegin || node.kind == Kind::WordBoundary ||
           node.kind == Kind::NoWordBoundary ||
           std::any_of(node.children.begin(), node.children.end(),
                       [this](std::size_t child) { return m_looksBack[child]; });
}

std::size_t RegexSyntax::countStates(const Node& node) const {
    std::size_t sum = 0;
    for (const auto child : node.children) {
        sum += m_stateCounts[child];
    }
    switch (node.kind) {
        case Kind::Empty:
        case Kind::Sequence:
            return sum;
        case Kind::Choice:
            return sum + node.children.size() - 1;
        case Kind::Repeat:
            // A copy of something empty costs time, too, and is counted.
            return (sum + 1) *
                   std::clamp<std::size_t>(node.maximum == unlimited ? node.minimum : node.maximum,
                                           1, beyondCounting);
        case Kind::Lookahead:
        case Kind::NegativeLookahead:
            return sum + 2;
        default:
            return 1;
    }
}

}  // namespace Hox::CppUtil
