"""What may be in a place after writes that overlap or have had no answer."""
import math

import pytest

from head_end.registers import ABSENT, Register


@pytest.fixture
def register():
    return Register()


def test_nobody_has_written(register):
    assert register.allowed() == {ABSENT}


def test_the_last_of_two_writes_counts(register):
    register.write(1, 2, "a")
    register.write(3, 4, "b")
    assert register.allowed() == {"b"}


def test_the_order_of_arrival_here_does_not_matter(register):
    register.write(3, 4, "b")
    register.write(1, 2, "a")
    assert register.allowed() == {"b"}


def test_writes_that_overlap_may_be_in_either_order(register):
    register.write(1, 3, "a")
    register.write(2, 4, "b")
    assert register.allowed() == {"a", "b"}


def test_a_write_without_an_answer_may_have_happened_or_not(register):
    register.write(1, 2, "a")
    register.write(3, 4, "b", is_certain=False)
    assert register.allowed() == {"a", "b"}
    register.write(5, 6, "c", is_certain=False)
    assert register.allowed() == {"a", "b", "c"}


def test_a_certain_write_ends_the_doubt(register):
    register.write(1, 2, "a", is_certain=False)
    register.write(3, 4, "b")
    assert register.allowed() == {"b"}


def test_a_write_that_may_happen_at_any_time_stays_possible(register):
    register.write(1, math.inf, "a", is_certain=False)
    register.write(3, 4, "b")
    assert register.allowed() == {"a", "b"}


def test_what_has_been_seen_at_rest_is_certain(register):
    register.write(1, 3, "a")
    register.write(2, math.inf, "b", is_certain=False)
    register.settle("a")
    assert register.allowed() == {"a"}
