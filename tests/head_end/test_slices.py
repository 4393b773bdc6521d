"""Which contents of a slice explain the answers that its owner and the operator have got."""
import pytest

from head_end.slices import (ABSENT, Impossible, Operation, Read, State, Update, Version,
                             possible_states)

OLD = Version.of({"/a": "1", "/b": "2"}, "100")
START = State(OLD, OLD, ABSENT)


def update(begin, end, changes, base="100", outcome="accepted", state_id="200", is_patch=True):
    return Update(begin, end, base, tuple(sorted(changes.items())), is_patch, outcome, state_id)


def working(owner=(), operator=(), start=START):
    """The possible working copies, without their state ids."""
    return {state.working and state.working.values
            for state in possible_states({start}, list(owner), list(operator))}


def content(**values):
    return tuple((f"/{key}", value) for key, value in sorted(values.items()))


def test_a_patch_changes_single_keys_and_removes_others():
    assert working([update(1, 2, {"/a": ABSENT, "/c": "3"})]) == {content(b="2", c="3")}


def test_any_other_update_replaces_all():
    assert working([update(1, 2, {"/c": "3"}, is_patch=False)]) == {content(c="3")}


def test_a_slice_that_is_not_there_takes_every_update():
    assert working([update(1, 2, {"/c": "3"}, base="x")], start=State()) == {content(c="3")}


@pytest.mark.parametrize("base, outcome", [("99", "accepted"), ("100", "refused")])
def test_an_answer_that_does_not_fit_the_state_id_is_impossible(base, outcome):
    with pytest.raises(Impossible):
        working([update(1, 2, {"/c": "3"}, base=base, outcome=outcome)])


def test_a_refused_update_changes_nothing():
    assert working([update(1, 2, {"/c": "3"}, base="99", outcome="refused")]) == {OLD.values}


def test_an_update_without_an_answer_has_happened_or_not():
    one = update(1, 2, {"/c": "3"}, outcome="unknown", state_id="?1")
    assert working([one]) == {OLD.values, content(a="1", b="2", c="3")}


def test_it_may_happen_after_the_owner_has_observed_again():
    one = update(1, 2, {"/c": "3"}, outcome="unknown", state_id="?1")
    assert working([one, Read(3, 4, same="100")]) == {OLD.values, content(a="1", b="2", c="3")}


def test_but_not_after_another_update():
    one = update(1, 2, {"/c": "3"}, outcome="unknown", state_id="?1")
    two = update(3, 4, {"/d": "4"})
    assert working([one, two]) == {content(a="1", b="2", d="4")}


def test_nor_after_the_death_of_the_store():
    one = update(1, 2, {"/c": "3"}, outcome="unknown", state_id="?1")
    assert working([one], [Operation(3, 4, "death")]) == {OLD.values}
    with pytest.raises(Impossible):
        working([one, Read(5, 6, Version.of({"/a": "1", "/b": "2", "/c": "3"}, "300"))],
                [Operation(3, 4, "death")])


def test_nor_before_it_was_sent():
    one = update(5, 6, {"/c": "3"}, outcome="unknown", state_id="?1")
    states = possible_states({START}, [one], [Operation(1, 2, "save")])
    assert {state.saved for state in states} == {OLD}


def test_the_owner_learns_its_state_id_by_observing():
    one = update(1, 2, {"/c": "3"}, outcome="unknown", state_id="?1")
    seen = Version.of({"/a": "1", "/b": "2", "/c": "3"}, "300")
    states = possible_states({START}, [one, Read(4, 5, seen)], [Operation(3, 3.5, "save")])
    assert states == {State(seen, seen, ABSENT), State(seen, OLD, ABSENT)}


@pytest.mark.parametrize("read", [
    Read(3, 4, OLD), Read(3, 4), Read(3, 4, same="100"),
    Read(3, 4, Version.of({"/a": "1"}, "200"))], ids=["former", "nothing", "same", "other"])
def test_an_observation_that_gets_anything_but_the_content_is_impossible(read):
    with pytest.raises(Impossible):
        working([update(1, 2, {"/c": "3"}), read])


@pytest.mark.parametrize("kind, expected", [
    ("discard", {OLD.values}), ("death", {OLD.values}), ("clear", {ABSENT}), ("import", {ABSENT}),
    ("save", {content(c="3")}), ("export", {content(c="3")})])
def test_what_an_operation_leaves_of_an_unsaved_change(kind, expected):
    assert working([update(1, 2, {"/c": "3"}, is_patch=False)],
                   [Operation(3, 4, kind)]) == expected


@pytest.mark.parametrize("kind", ["discard", "clear", "import"])
def test_an_operation_without_an_answer_has_happened_or_not(kind):
    assert content(c="3") in working([update(1, 2, {"/c": "3"}, is_patch=False)],
                                     [Operation(3, 4, kind, is_certain=False)])


def test_an_import_brings_back_what_was_saved_when_the_package_was_made():
    assert working([update(3, 4, {"/c": "3"})],
                   [Operation(1, 2, "export"), Operation(5, 6, "save"),
                    Operation(7, 8, "import")]) == {OLD.values}


def test_an_update_and_an_operation_that_overlap_may_be_in_either_order():
    assert working([update(1, 5, {"/c": "3"}, is_patch=False)],
                   [Operation(2, 4, "discard")]) == {OLD.values, content(c="3")}


def test_and_the_next_answer_says_in_which():
    owner = [update(1, 5, {"/c": "3"}, is_patch=False), Read(6, 7, same="200")]
    assert working(owner, [Operation(2, 4, "discard")]) == {content(c="3")}


def test_a_save_that_was_not_answered_before_a_death_decides_what_is_left():
    owner = [update(1, 2, {"/c": "3"}, is_patch=False)]
    operator = [Operation(3, 4, "save", is_certain=False), Operation(3.5, 5, "death")]
    assert working(owner, operator) == {OLD.values, content(c="3")}
    assert working([*owner, Read(6, 7, OLD)], operator) == {OLD.values}


def test_an_accepted_and_saved_update_that_is_gone_is_impossible():
    with pytest.raises(Impossible, match="nothing explains"):
        working([update(1, 2, {"/c": "3"}), Read(7, 8, OLD)],
                [Operation(3, 4, "save"), Operation(5, 6, "death")])
