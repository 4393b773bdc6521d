#pragma once

#include <bitset>
#include <cstddef>
#include <vector>

namespace Hox::CppUtil {

/// The bytes that one place of an expression accepts.
using RegexCharSet = std::bitset<256>;

/// A parsed regular expression. Nodes refer to each other by their place in the list.
class RegexSyntax {
public:
    enum class Kind {
        Empty,
        Chars,
        Sequence,
        Choice,
        Repeat,
        LineBegin,
        LineEnd,
        WordBoundary,
        NoWordBoundary,
        Lookahead,
        NegativeLookahead
    };

    /// Marks a repetition without an upper limit.
    static constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

    struct Node {
        Kind kind = Kind::Empty;
        std::size_t charSet = 0;
        std::size_t minimum = 0;
        std::size_t maximum = 0;
        std::vector<std::size_t> children;
    };

    /// Appends the node and returns its place.
    std::size_t add(Node node);

    /// Appends the set and returns its place.
    std::size_t addCharSet(const RegexCharSet& charSet);

    const Node& node(std::size_t index) const { return m_nodes[index]; }
    const std::vector<RegexCharSet>& charSets() const { return m_charSets; }

    /// The node of the whole expression.
    std::size_t root() const { return m_root; }
    void setRoot(std::size_t root) { m_root = root; }

    /// Whether what a lookahead wants depends on what lies ahead of a place.
    bool looksBackInLookahead() const { return m_looksBackInLookahead; }

    /// States needed with all repetitions written out, at most; no more exact beyond a million.
    std::size_t stateCount() const {
        return m_stateCounts[m_root] * (m_looksBackInLookahead ? 3 : 1) + 1;
    }

private:
    bool looksBack(const Node& node) const;
    std::size_t countStates(const Node& node) const;

    std::vector<Node> m_nodes;
    std::vector<std::size_t> m_stateCounts;
    std::vector<bool> m_looksBack;
    bool m_looksBackInLookahead = false;
    std::vector<RegexCharSet> m_charSets;
    std::size_t m_root = 0;
};

}  // namespace Hox::CppUtil
