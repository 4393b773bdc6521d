"""What a slice of the central store may contain, from what its owner and the operator have done.

The owner of a slice makes one call after the other, and so does the operator with the whole store;
a death of the store is one more step of the operator. Calls of the two may overlap, and then took
effect in either order. So the contents that are possible are those of all merged sequences in which
no call precedes one that had ended before it began. In each of them every answer must be the right
one:

- An update is accepted if the slice is not there or its state id is the one that the update names,
  and refused otherwise. A patch changes single keys, any other update replaces all of them.
- An observation gets the content and its state id, or the word that the id is the same, or nothing
  if the slice is not there.
- A save copies the working copy of the slice to the saved one; a discard, or the death of the
  store, copies it back. A wipe removes both. An export copies the saved copy to the package, an
  import replaces both copies by it.

An update without an answer may take effect at any time until the store dies, but only as long as
its state id is still the current one. An operation without an answer took effect or did not.
"""
import bisect
import dataclasses
import itertools

#: The slice is in neither copy.
ABSENT = None


@dataclasses.dataclass(frozen=True)
class Version:
    """The content of a slice and its state id. values: pairs of key and value, sorted."""

    values: tuple
    state_id: str

    @classmethod
    def of(cls, values, state_id):
        return cls(tuple(sorted(values.items())), state_id)


@dataclasses.dataclass(frozen=True)
class State:
    """All copies of one slice, each a Version or ABSENT."""

    working: object = ABSENT
    saved: object = ABSENT
    package: object = ABSENT

    def versions(self):
        return self.working, self.saved, self.package


@dataclasses.dataclass(frozen=True)
class Update:
    """A push by the owner. changes: pairs of key and value, ABSENT for a removed key. outcome:
    accepted, refused or unknown. state_id: the new one, in an accepted update; a name of its own in
    an unknown one."""

    begin: float
    end: float
    base: str
    changes: tuple
    is_patch: bool
    outcome: str
    state_id: str = ""

    def is_based_on(self, working):
        return working is ABSENT or working.state_id == self.base

    def applied(self, state):
        values = dict(state.working.values) if self.is_patch and state.working else {}
        for key, value in self.changes:
            values.pop(key, None)
            if value is not ABSENT:
                values[key] = value
        return dataclasses.replace(state, working=Version.of(values, self.state_id))

    def results(self, state):
        """The states after it; none if its outcome was impossible."""
        if self.outcome == "unknown":
            return [state]  # see _Merge._with_orphans
        if self.is_based_on(state.working) != (self.outcome == "accepted"):
            return []
        return [self.applied(state)] if self.outcome == "accepted" else [state]


@dataclasses.dataclass(frozen=True)
class Read:
    """The answer to an observation by the owner: a Version or ABSENT. same: its state id is
    current, the content is not known."""

    begin: float
    end: float
    seen: object = ABSENT
    same: str = ""

    def results(self, state):
        working = state.working
        if self.same:
            return [state] if working and working.state_id == self.same else []
        if not self.seen or not working:
            return [state] if self.seen == working else []
        if working == self.seen:
            return [state]
        # The owner learns the state id of an update that had no answer.
        if working.state_id.startswith("?") and working.values == self.seen.values:
            return [_renamed(state, working.state_id, self.seen.state_id)]
        return []


def _renamed(state, former, state_id):
    return State(*(dataclasses.replace(version, state_id=state_id)
                   if version and version.state_id == former else version
                   for version in state.versions()))


@dataclasses.dataclass(frozen=True)
class Operation:
    """Something that happens to the whole store: save, discard, clear, export, import or death."""

    begin: float
    end: float
    kind: str
    is_certain: bool = True

    def results(self, state):
        working, saved, package = state.versions()
        after = {"save": State(working, working, package),
                 "discard": State(saved, saved, package),
                 "death": State(saved, saved, package),
                 "clear": State(ABSENT, ABSENT, package),
                 "export": State(working, saved, saved),
                 "import": State(package, package, package)}[self.kind]
        return [after] if self.is_certain or after == state else [after, state]


class Impossible(Exception):
    """No order of the calls explains the answers."""


class _Merge:
    """The states after each pair of a number of the owner's steps and of the operator's."""

    def __init__(self, start, owner, operator):
        self._owner = owner
        self._operator = operator
        self._ends = [operation.end for operation in operator]
        self._orphans = [(index, update) for index, update in enumerate(owner)
                         if isinstance(update, Update) and update.outcome == "unknown"]
        self._states = {(0, 0): self._with_orphans(start, 0, 0)}

    def final_states(self):
        sizes = len(self._owner), len(self._operator)
        for i, j in itertools.product(*(range(size + 1) for size in sizes)):
            if (i, j) != (0, 0):
                self._states[i, j] = self._with_orphans(self._reached(i, j), i, j)
        if not self._states[sizes]:
            furthest = max((place for place, states in self._states.items() if states), key=sum)
            raise Impossible(f"nothing explains what comes after {self._last(furthest)}; next are "
                             f"{self._next(furthest)}; the states there are "
                             f"{self._states[furthest]}")
        return self._states[sizes]

    def _reached(self, i, j):
        owner = self._owner[i - 1] if i else None
        operator = self._operator[j - 1] if j else None
        found = set()
        if owner and not (operator and operator.begin > owner.end):
            for state in self._states[i - 1, j]:
                found.update(owner.results(state))
        if operator and not (owner and owner.begin > operator.end):
            for state in self._states[i, j - 1]:
                found.update(operator.results(state))
        return found

    def _with_orphans(self, states, i, j):
        """The states, and those in which updates without an answer take effect now."""
        states = set(states)
        for index, update in self._orphans:
            has_begun = index < i or (index == i and not self._precedes(index, j))
            if not has_begun or self._is_dead(update, j):
                continue
            states |= {update.applied(state) for state in states
                       if update.is_based_on(state.working)}
        return states

    def _precedes(self, index, j):
        """Whether a step of the operator that has not been made precedes the owner's step."""
        return bisect.bisect_left(self._ends, self._owner[index].begin) > j

    def _is_dead(self, update, j):
        return any(operation.kind == "death" and operation.begin > update.begin
                   for operation in self._operator[:j])

    def _last(self, place):
        return [steps[count - 1] if count else None
                for steps, count in zip((self._owner, self._operator), place)]

    def _next(self, place):
        return [steps[count] if count < len(steps) else None
                for steps, count in zip((self._owner, self._operator), place)]


def possible_states(start, owner, operator):
    """The states of the slice after all steps; each sequence in its order. Raises Impossible if
    there is none."""
    return _Merge(start, owner, operator).final_states()
