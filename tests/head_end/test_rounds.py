"""The whole head-end under load, with processes that are ended at random, compared with a model
after each round.

HALVO_ROUNDS: how many rounds, 10 by default. HALVO_ROUND_SECONDS: the length of each, 10 by
default. HALVO_SEED: decides about all that happens; by default another one each time, which is
printed.
"""
import os
import random
import sys
import time

import grpc
import pytest

from head_end import comparison, load
from head_end.comparison import Rest
from head_end.packages import versions_of
from head_end.processes import Failure
from kit import configuration

ROUNDS = int(os.environ.get("HALVO_ROUNDS", "10"))
ROUND_SECONDS = float(os.environ.get("HALVO_ROUND_SECONDS", "10"))
SEED = os.environ.get("HALVO_SEED") or str(random.SystemRandom().randrange(10**6))

#: How long the head-end may take to be at rest.
REST_SECONDS = 30


def until_none(what, differences):
    """Waits until there are no differences; raises Failure with the last ones."""
    deadline = time.monotonic() + REST_SECONDS
    while True:
        try:
            found = list(differences())
        except (grpc.RpcError, AssertionError) as error:
            found = [f"{what}: {error!r}"]
        if not found:
            return
        if time.monotonic() > deadline:
            raise Failure("\n".join(found))
        time.sleep(0.05)


class Round:
    """One round of load and the comparison after it."""

    def __init__(self, head_end, number):
        self._head_end = head_end
        self._seed = f"{SEED}/{number}"
        self._number = number

    def run(self):
        begin = time.monotonic()
        actors = self._head_end.work(self._seed, ROUND_SECONDS)
        self._check_failures()
        until_none("discovery", lambda: comparison.discovery_differences(self._head_end))
        self._head_end.start_all()
        for actor in actors:
            actor.join(REST_SECONDS)
        self._check_failures()
        _, owned = self._compare()
        self._wait_until_stored(owned)
        self._use_all()
        rest, owned = self._compare()
        self._wait_until_stored(owned)
        self._settle(rest, owned)
        self._head_end.check()
        seconds = time.monotonic() - begin
        print(f"round {self._number} of seed {SEED}: {len(self._head_end.actions)} actions, "
              f"{seconds:.1f} s", file=sys.stderr, flush=True)

    def _check_failures(self):
        self._fail_on(self._head_end.failures)

    @staticmethod
    def _fail_on(differences):
        found = list(differences)
        if found:
            raise Failure("\n".join(found))

    def _compare(self):
        """Returns what was found."""
        head_end = self._head_end
        answer = head_end.foreign.ask(lambda: False, command="settle")
        owned = comparison.owned_versions(answer["slices"])
        with head_end.store.client() as operator:
            begin, end, _ = load.outcome(self._export, operator)
        head_end.model.operation("export", begin, end, True)
        saved = versions_of(head_end.package)
        self._fail_on(comparison.slice_differences(head_end.model, owned, saved))
        rest = None

        def differences():
            nonlocal rest
            head_end.check()
            rest = Rest.observe(head_end)
            yield from rest.differences(head_end)
            yield from comparison.unsaved_differences(rest.tables["store"], owned, saved)
            yield from comparison.discovery_differences(head_end)

        until_none("rest", differences)
        return rest, owned

    def _export(self, operator):
        self._head_end.package = configuration.export_package(operator)

    def _use_all(self):
        """All works as if nothing had happened."""
        head_end = self._head_end
        owner = load.Owner(head_end, self._seed + "/after")
        for capability in head_end.capabilities:
            result = owner.update(capability, is_patch=True)
            if result != "accepted":
                raise Failure(f"an update of {capability} at rest: {result}")
        for program in head_end.programs:
            reporter = load.Reporter(head_end, program, self._seed + "/after")
            reporter.act()
            reporter.close()
        self._set_trap_configuration()

    def _set_trap_configuration(self):
        """At rest a setting is kept, and reaches the store."""
        head_end = self._head_end
        answer = head_end.foreign.ask(lambda: False, command="settle")
        owned = comparison.owned_versions(answer["slices"])
        configurator = load.TrapConfigurator(head_end, self._seed + "/after")
        try:
            value = configurator.set()
            found = self._wait_until_stored(owned)
            if found != value:
                raise Failure(f"a setting of the traps at rest: {found} instead of {value}")
        finally:
            configurator.close()

    def _wait_until_stored(self, owned):
        """Waits until the store has what the owners have, the system monitor included; it follows
        what the operator has done only after a moment. Returns the configuration of the traps."""
        head_end = self._head_end
        found = None

        def differences():
            nonlocal found
            self._save()
            found = comparison.trap_configuration(head_end)
            yield from comparison.differences_of_all_saved(owned, found, head_end.package)
            yield from comparison.follower_differences(head_end)

        until_none("stored", differences)
        head_end.model.settle_trap_configuration(found)
        return found

    def _save(self):
        head_end = self._head_end
        with head_end.store.client() as operator:
            begin, end, _ = load.outcome(configuration.save, operator)
            head_end.model.operation("save", begin, end, True)
            begin, end, _ = load.outcome(self._export, operator)
            head_end.model.operation("export", begin, end, True)

    def _settle(self, rest, owned):
        self._head_end.model.settle(
            {name: table.values for name, table in rest.tables.items()},
            comparison.settled_states(owned))


def report(head_end, number, error):
    """All that is known about a failed round."""
    steps = "\n".join(f"{capability}: {step}" for capability in head_end.capabilities
                      for step in head_end.model.steps(capability))
    tails = "\n".join(process.tail() for process in head_end.processes)
    actions = "\n".join(head_end.actions)
    return (f"{tails}\n--- steps of the slices\n{steps[-20000:]}\n--- actions\n{actions}\n"
            f"--- round {number} of seed {SEED} has failed:\n{str(error)[:8000]}\n"
            f"--- to run it again: HALVO_SEED={SEED} HALVO_ROUNDS={number} "
            f"HALVO_ROUND_SECONDS={ROUND_SECONDS:g} scripts/head-end")


def test_the_head_end_is_as_the_model_says_after_each_round(head_end):
    print(f"\nseed {SEED}", file=sys.stderr, flush=True)
    number = 0
    try:
        head_end.start_all()
        for number in range(1, ROUNDS + 1):
            Round(head_end, number).run()
        for process in reversed(head_end.processes):
            process.terminate()
    except (Failure, AssertionError, grpc.RpcError) as error:
        pytest.fail(report(head_end, number, error), pytrace=False)
