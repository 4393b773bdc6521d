#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "regex/regex_syntax.h"

namespace Hox::CppUtil {

/// Decides whether a subject matches an expression.
///
/// It walks the subject once, from its end to its start, and keeps for the present place the set of
/// states from which the expression can still be fulfilled by what lies behind. A lookahead is a
/// part of the automaton with an end of its own, and whether it holds at a place is read from the
/// same set. Each place costs at most one look at each edge.
class RegexAutomaton {
public:
    enum class Mode {
        Search,  ///< Any part of the subject.
        Match    ///< The whole subject.
    };

    /// Builds the states of the expression.
    explicit RegexAutomaton(const RegexSyntax& syntax);

    /// Whether the subject matches. Uses working memory of this object.
    bool run(std::string_view subject, Mode mode);

    /// Edges looked at and places visited by all runs so far.
    std::uint64_t steps() const { return m_steps; }

private:
    using StateId = std::uint32_t;
    using Kind = RegexSyntax::Kind;

    struct State {
        Kind kind;
        StateId next;
        StateId other;
        std::uint32_t charSet;
        std::uint32_t level;
    };

    /// The predecessors of all states, one list behind the other.
    struct Edges {
        std::vector<StateId> starts;
        std::vector<StateId> sources;
    };

    StateId addState(Kind kind, StateId next, StateId other = 0, std::size_t charSet = 0);
    StateId build(const RegexSyntax& syntax, std::size_t index, StateId next);
    StateId buildRepeat(const RegexSyntax& syntax, const RegexSyntax::Node& node, StateId next);
    StateId buildLookahead(const RegexSyntax& syntax, const RegexSyntax::Node& node, StateId next);
    Edges reverse(bool consuming) const;

    void enter(StateId state);
    void enterByByte(unsigned char byte);
    void enterEnds(bool atEnd, Mode mode);
    bool spread(std::string_view subject, std::size_t place);
    bool holds(const State& state, std::string_view subject, std::size_t place) const;
    static bool isWordBoundary(std::string_view subject, std::size_t place);
    bool isEntered(StateId state) const { return m_marks[state] == m_generation; }

    std::vector<State> m_states;
    std::vector<StateId> m_lookaheadEnds;
    std::vector<RegexCharSet> m_charSets;
    std::uint32_t m_level = 0;
    StateId m_start = 0;
    Edges m_byteEdges;
    Edges m_emptyEdges;

    std::uint64_t m_steps = 0;
    std::uint64_t m_generation = 0;
    std::vector<std::uint64_t> m_marks;
    std::vector<StateId> m_entered;
    std::vector<StateId> m_previous;
    std::vector<std::vector<StateId>> m_pending;
};

}  // namespace Hox::CppUtil
