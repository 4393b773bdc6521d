#include "regex/regex_automaton.h"

#include <algorithm>

#include "regex/regex_parser.h"

namespace Hox::CppUtil {

namespace {

constexpr std::uint32_t end = 0;

const RegexCharSet& wordChars() {
    static const auto chars = charSetOf("\\w").value_or(RegexCharSet());
    return chars;
}

}  // namespace

RegexAutomaton::RegexAutomaton(const RegexSyntax& syntax)
    : m_charSets(syntax.charSets()), m_hasPlaceApart(syntax.looksBackInLookahead()) {
    addState(Kind::Empty, end);
    m_pending.resize(1);
    // NOLINTBEGIN(cppcoreguidelines-prefer-member-initializer): the end state comes first.
    m_start = build(syntax, syntax.root(), {end, end}).usual;
    m_laterStart = m_start;
    // NOLINTEND(cppcoreguidelines-prefer-member-initializer)
    if (m_hasPlaceApart) {
        m_hasPlaceApart = false;
        m_laterStart = build(syntax, syntax.root(), {end, end}).usual;
    }
    m_byteEdges = reverse(true);
    m_emptyEdges = reverse(false);
    m_marks.resize(m_states.size());
}

RegexAutomaton::StateId RegexAutomaton::addState(Kind kind, StateId next, StateId other,
                                                 std::size_t charSet) {
    m_states.push_back({kind, next, other, static_cast<std::uint32_t>(charSet), m_level, false});
    return static_cast<StateId>(m_states.size() - 1);
}

RegexAutomaton::Entry RegexAutomaton::addStates(Kind kind, const Entry& next, const Entry& other) {
    Entry entry{addState(kind, next.usual, other.usual), 0};
    entry.atBegin = entry.usual;
    if (m_hasPlaceApart && m_level > 0) {
        entry.atBegin = addState(kind, next.atBegin, other.atBegin);
        m_states.back().isAtBegin = true;
    }
    return entry;
}

RegexAutomaton::Entry RegexAutomaton::build(const RegexSyntax& syntax, std::size_t index,
                                            const Entry& next) {
    const auto& node = syntax.node(index);
    switch (node.kind) {
        case Kind::Empty:
        case Kind::Sequence: {
            auto start = next;
            for (auto child = node.children.rbegin(); child != node.children.rend(); ++child) {
                start = build(syntax, *child, start);
            }
            return start;
        }
        case Kind::Choice: {
            auto start = build(syntax, node.children.front(), next);
            for (std::size_t i = 1; i < node.children.size(); ++i) {
                start = addStates(Kind::Choice, start, build(syntax, node.children[i], next));
            }
            return start;
        }
        case Kind::Repeat:
            return buildRepeat(syntax, node, next);
        case Kind::Lookahead:
        case Kind::NegativeLookahead:
            return buildLookahead(syntax, node, next);
        case Kind::Chars: {
            const auto state = addState(node.kind, next.usual, 0, node.charSet);
            return {state, state};
        }
        default:
            return addStates(node.kind, next);
    }
}

RegexAutomaton::Entry RegexAutomaton::buildRepeat(const RegexSyntax& syntax,
                                                  const RegexSyntax::Node& node,
                                                  const Entry& next) {
    const auto child = node.children.front();
    auto copies = node.minimum;
    auto start = next;
    if (node.maximum == RegexSyntax::unlimited) {
        const auto loop = addStates(Kind::Choice, next, next);
        const auto body = build(syntax, child, loop);
        m_states[loop.usual].other = body.usual;
        m_states[loop.atBegin].other = body.atBegin;
        start = copies > 0 ? body : loop;
        copies -= copies > 0 ? 1 : 0;
    } else {
        for (auto i = node.minimum; i < node.maximum; ++i) {
            const auto more = build(syntax, child, start);
            start = addStates(Kind::Choice, next, more);
        }
    }
    for (; copies > 0; --copies) {
        start = build(syntax, child, start);
    }
    return start;
}

RegexAutomaton::Entry RegexAutomaton::buildLookahead(const RegexSyntax& syntax,
                                                     const RegexSyntax::Node& node,
                                                     const Entry& next) {
    ++m_level;
    m_pending.resize(std::max<std::size_t>(m_pending.size(), m_level + 1));
    const auto bodyEnd = addState(Kind::Empty, end);
    m_lookaheadEnds.push_back(bodyEnd);
    const auto body = build(syntax, node.children.front(), {bodyEnd, bodyEnd});
    --m_level;
    return addStates(node.kind, next, {body.atBegin, body.atBegin});
}

RegexAutomaton::Edges RegexAutomaton::reverse(bool consuming) const {
    Edges edges;
    edges.starts.resize(m_states.size() + 1);
    const auto forEachEdge = [this, consuming](const auto& visit) {
        for (StateId source = 0; source < m_states.size(); ++source) {
            const auto& state = m_states[source];
            if (state.kind == Kind::Empty || (state.kind == Kind::Chars) != consuming) {
                continue;
            }
            visit(source, state.next);
            if (state.kind == Kind::Choice) {
                visit(source, state.other);
            }
        }
    };
    forEachEdge([&edges](StateId, StateId target) { ++edges.starts[target + 1]; });
    for (std::size_t i = 1; i < edges.starts.size(); ++i) {
        edges.starts[i] += edges.starts[i - 1];
    }
    edges.sources.resize(edges.starts.back());
    auto free = edges.starts;
    forEachEdge([&edges, &free](StateId source, StateId target) {
        edges.sources[free[target]++] = source;
    });
    return edges;
}

bool RegexAutomaton::run(std::string_view subject, Mode mode) {
    m_entered.clear();
    for (auto place = subject.size();; --place) {
        ++m_generation;
        m_previous.swap(m_entered);
        m_entered.clear();
        if (place < subject.size()) {
            enterByByte(static_cast<unsigned char>(subject[place]));
        }
        enterEnds(place == subject.size(), mode);
        const auto fulfilled = spread(subject, place);
        if (fulfilled && (mode == Mode::Search || place == 0)) {
            return true;
        }
        if (place == 0) {
            return false;
        }
    }
}

void RegexAutomaton::enter(StateId state) {
    if (!isEntered(state)) {
        m_marks[state] = m_generation;
        m_entered.push_back(state);
        m_pending[m_states[state].level].push_back(state);
    }
}

void RegexAutomaton::enterByByte(unsigned char byte) {
    for (const auto target : m_previous) {
        const auto last = m_byteEdges.starts[target + 1];
        m_steps += last - m_byteEdges.starts[target] + 1;
        for (auto edge = m_byteEdges.starts[target]; edge < last; ++edge) {
            const auto source = m_byteEdges.sources[edge];
            if (m_charSets[m_states[source].charSet].test(byte)) {
                enter(source);
            }
        }
    }
}

void RegexAutomaton::enterEnds(bool atEnd, Mode mode) {
    m_steps += m_lookaheadEnds.size() + 1;
    for (const auto lookaheadEnd : m_lookaheadEnds) {
        enter(lookaheadEnd);
    }
    if (atEnd || mode == Mode::Search) {
        enter(end);
    }
}

bool RegexAutomaton::spread(std::string_view subject, std::size_t place) {
    // The deepest lookaheads first: those around them ask for their outcome.
    for (auto pending = m_pending.rbegin(); pending != m_pending.rend(); ++pending) {
        while (!pending->empty()) {
            const auto target = pending->back();
            pending->pop_back();
            const auto last = m_emptyEdges.starts[target + 1];
            m_steps += last - m_emptyEdges.starts[target] + 1;
            for (auto edge = m_emptyEdges.starts[target]; edge < last; ++edge) {
                const auto source = m_emptyEdges.sources[edge];
                if (!isEntered(source) && holds(m_states[source], subject, place)) {
                    enter(source);
                }
            }
        }
    }
    return isEntered(place == 0 ? m_start : m_laterStart);
}

bool RegexAutomaton::holds(const State& state, std::string_view subject, std::size_t place) const {
    switch (state.kind) {
        case Kind::LineBegin:
            return state.isAtBegin || place == 0;
        case Kind::LineEnd:
            return place == subject.size();
        case Kind::WordBoundary:
            return isWordBoundary(state, subject, place);
        case Kind::NoWordBoundary:
            return !isWordBoundary(state, subject, place);
        case Kind::Lookahead:
            return isEntered(state.other);
        case Kind::NegativeLookahead:
            return !isEntered(state.other);
        default:
            return true;
    }
}

bool RegexAutomaton::isWordBoundary(const State& state, std::string_view subject,
                                    std::size_t place) {
    const auto isWord = [subject](std::size_t at) {
        return at < subject.size() && wordChars().test(static_cast<unsigned char>(subject[at]));
    };
    return (!state.isAtBegin && place > 0 && isWord(place - 1)) != isWord(place);
}

}  // namespace Hox::CppUtil
