"""What the model expects of the tables, the copies of the system monitor and its configuration."""
import pytest

from head_end.model import Model
from head_end.registers import ABSENT

ORIGIN = ("svc", "Type", "src")


@pytest.fixture
def model():
    return Model(["store", "sys-mon", "node-1"], ["node-1"], ["tuner"])


def settle(model, node=(), monitor=()):
    model.settle({"store": {}, "node-1": dict(node), "sys-mon": dict(monitor)}, {})


def allowed(model, program="node-1"):
    return model.tables[program].allowed().get(ORIGIN, {ABSENT})



def test_the_last_accepted_report_is_in_the_table(model):
    model.report("node-1", ORIGIN, "a", 1, 2, True)
    model.report("node-1", ORIGIN, "b", 3, 4, True)
    assert allowed(model) == {"b"}


def test_a_process_that_has_ended_has_forgotten_it(model):
    model.report("node-1", ORIGIN, "a", 1, 2, True)
    model.death("node-1", 3, 4)
    assert allowed(model) == {ABSENT}
    model.report("node-1", ORIGIN, "b", 5, 6, True)
    assert allowed(model) == {"b"}


def test_a_report_during_the_death_is_there_or_not_also_if_it_is_the_first_of_its_origin(model):
    model.death("node-1", 3, 4)
    model.report("node-1", ORIGIN, "a", 2, 5, True)
    assert allowed(model) == {"a", ABSENT}


def test_another_process_forgets_nothing(model):
    model.report("node-1", ORIGIN, "a", 1, 2, True)
    model.death("store", 3, 4)
    assert allowed(model) == {"a"}


def test_the_monitor_may_have_what_a_node_has_forgotten(model):
    model.report("node-1", ORIGIN, "a", 1, 2, True)
    model.death("node-1", 3, 4)
    assert model.allowed_copies("node-1", ORIGIN) == {"a", ABSENT}


def test_the_monitor_keeps_what_it_had_at_rest(model):
    settle(model, {ORIGIN: "a"}, {ORIGIN: "a"})
    model.death("node-1", 1e9, 1e9 + 1)
    assert model.allowed_copies("node-1", ORIGIN) == {"a"}


def test_a_monitor_that_was_started_after_the_node_has_forgotten_has_nothing(model):
    settle(model, {ORIGIN: "a"}, {ORIGIN: "a"})
    model.death("node-1", 1e9, 1e9 + 1)
    model.death("sys-mon", 1e9 + 2, 1e9 + 3)
    model.monitor_start = 1e9 + 4
    assert model.allowed_copies("node-1", ORIGIN) == {ABSENT}


def test_a_monitor_that_was_started_before_that_may_have_it(model):
    settle(model, {ORIGIN: "a"}, {ORIGIN: "a"})
    model.death("sys-mon", 1e9, 1e9 + 1)
    model.monitor_start = 1e9 + 2
    model.death("node-1", 1e9 + 3, 1e9 + 4)
    assert model.allowed_copies("node-1", ORIGIN) == {"a", ABSENT}


def test_the_configuration_is_the_last_one_that_was_set(model):
    model.trap_configuration_set("x", 1, 2, True)
    model.trap_configuration_set("y", 3, 4, True)
    model.trap_configuration_set(ABSENT, 5, 6, True)
    assert model.trap_configuration.allowed() == {ABSENT}


@pytest.mark.parametrize("happens", [lambda model: model.operation("discard", 3, 4, True),
                                     lambda model: model.death("store", 3, 4),
                                     lambda model: model.death("sys-mon", 3, 4)])
def test_an_earlier_one_may_be_back_but_no_other(model, happens):
    model.trap_configuration_set("x", 1, 2, True)
    happens(model)
    model.trap_configuration_set("y", 5, 6, True)
    assert model.trap_configuration.allowed() == {"x", "y", ABSENT}


def test_a_save_brings_nothing_back(model):
    model.trap_configuration_set("x", 1, 2, True)
    model.operation("save", 3, 4, True)
    model.trap_configuration_set("y", 5, 6, True)
    assert model.trap_configuration.allowed() == {"y"}


def test_what_was_seen_at_rest_is_changed_by_nothing_but_a_setting(model):
    model.operation("discard", 1, 2, True)
    model.settle_trap_configuration("x")
    assert model.trap_configuration.allowed() == {"x"}
    model.trap_configuration_set("y", 3, 4, True)
    assert model.trap_configuration.allowed() == {"y"}


def test_a_slice_is_followed_from_one_rest_to_the_next(model):
    model.owner_update("tuner", 1, 2, "", {"/a": "1"}, True, "accepted", "100")
    model.operation("save", 3, 4, True)
    model.death("store", 5, 6)
    model.owner_read("tuner", 7, 8, same="100")
    state, = model.possible_slice("tuner")
    assert state.working == state.saved and state.working.values == (("/a", "1"),)
    model.settle({"store": {}, "node-1": {}, "sys-mon": {}}, {"tuner": state})
    model.owner_read("tuner", 9, 10, same="100")
    assert model.possible_slice("tuner") == {state}
