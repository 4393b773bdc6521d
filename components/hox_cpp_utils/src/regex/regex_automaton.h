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
///
/// The library takes the place of a lookahead for the start of the subject, but only in the attempt
/// that begins at the very start. So an expression to which that makes a difference is built twice,
/// and in the first one each part of a lookahead has two states, as its begin is a place apart.
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
        bool isAtBegin;  // takes its place for the start of the subject
    };

    /// Where a part of the expression is entered.
    struct Entry {
        StateId usual;
        StateId atBegin;  // in a lookahead that has read nothing yet
    };

    /// The predecessors of all states, one list behind the other.
    struct Edges {
        std::vector<StateId> starts;
        std::vector<StateId> sources;
    };

    StateId addState(Kind kind, StateId next, StateId other = 0, std::size_t charSet = 0);
    Entry addStates(Kind kind, const Entry& next, const Entry& other = {0, 0});
    Entry build(const RegexSyntax& syntax, std::size_t index, const Entry& next);
    Entry buildRepeat(const RegexSyntax& syntax, const RegexSyntax::Node& node, const Entry& next);
    Entry buildLookahead(const RegexSyntax& syntax, const RegexSyntax::Node& node,
                         const Entry& next);
    Edges reverse(bool consuming) const;

    void enter(StateId state);
    void enterByByte(unsigned char byte);
    void enterEnds(bool atEnd, Mode mode);
    bool spread(std::string_view subject, std::size_t place);
    bool holds(const State& state, std::string_view subject, std::size_t place) const;
    static bool isWordBoundary(const State& state, std::string_view subject, std::size_t place);
    bool isEntered(StateId state) const { return m_marks[state] == m_generation; }

    std::vector<State> m_states;
    std::vector<StateId> m_lookaheadEnds;
    std::vector<RegexCharSet> m_charSets;
    std::uint32_t m_level = 0;
    bool m_hasPlaceApart = false;  // while states are added: the begin of a lookahead
    StateId m_start = 0;
    StateId m_laterStart = 0;  // behind the start of the subject
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
