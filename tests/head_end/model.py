"""What must hold when the head-end is at rest, kept beside it while it works.

Slices of the central store (those of the foreign service):
    The working and the saved copy are possible after what the owner and the operator have done and
    were answered (slices.py). The store's death returns unsaved changes; an owner that still has
    them pushes them again only if the store has nothing at all of the slice. The owner has what the
    store has.

Trap configuration (the slice of the system monitor):
    The system monitor and the store have the same. It is the last one that was set; after an
    operation on the store, a death of the store or of the system monitor an earlier one may be in
    force again, because the store had not saved, or had an older one saved, or refused a change
    that crossed the operation. At rest a setting is kept.

Latest tables:
    Each has the reports that its process has accepted since its last start, and of each origin the
    last one; a killed or stopped process has forgotten all. A node also has the state of its
    machine, and the store reports its unsaved changes as long as there are any.

System monitor:
    It has its own reports, and of each origin that a node has now, and that is still among the last
    thousand reports of that node, the same report as the node. Of an origin that the node has
    forgotten it has a report that was sent to that node while the system monitor lived, or nothing
    if none was seen at the former rest or it has been restarted since.

Derived severity:
    That of the worst report of the table.

A call that was answered has taken effect between its begin and its end. A call that was not
answered, because its process died, may have taken effect or not; it is never assumed to be either.
A refusal that these rules do not explain also counts as a difference.
"""
import collections
import dataclasses
import math
import threading
import time

from head_end.owned_slice import fingerprint
from head_end.packages import version_of
from head_end.registers import ABSENT, Register
from head_end.slices import Operation, Read, State, Update, possible_states

#: What the operator does that may bring an earlier trap configuration back.
_REVERTING = {"discard", "clear", "import", "death"}


@dataclasses.dataclass(frozen=True)
class Sent:
    """A report that has been sent to a node, perhaps without an answer."""

    begin: float
    end: float
    value: object


class Table:
    """The latest table of one process, without its own reports. Times as in registers.py."""

    def __init__(self):
        self._registers = collections.defaultdict(Register)
        self._deaths = []
        #: Per origin what has been sent since the former rest, and what was there then.
        self.sent = collections.defaultdict(list)

    def report(self, origin, value, begin, end, is_certain):
        if origin not in self._registers:
            for death in self._deaths[-1:]:
                self._registers[origin].write(*death, ABSENT)
        self._registers[origin].write(begin, end, value, is_certain)
        self.sent[origin].append(Sent(begin, end, value))

    def death(self, begin, end):
        self._deaths.append((begin, end))
        for register in self._registers.values():
            register.write(begin, end, ABSENT)

    def allowed(self):
        """Origin to the values of which it must have one."""
        return {origin: register.allowed() for origin, register in self._registers.items()}

    def settle(self, found):
        """This is what the table has at rest."""
        now = time.monotonic()
        for origin, register in self._registers.items():
            register.settle(found.get(origin, ABSENT))
        self.sent.clear()
        for origin, value in found.items():
            self.sent[origin].append(Sent(now, now, value))

    def possible_copies(self, origin, since):
        """What somebody who has observed the process since that time may have got of an origin that
        the process has forgotten."""
        return {sent.value for sent in self.sent[origin] if self._life_end(sent) >= since}

    def _life_end(self, sent):
        """When the process forgot a report at the latest."""
        begin, end = next((death for death in self._deaths if death[1] >= sent.begin),
                          (math.inf, math.inf))
        return end if sent.end < begin else math.inf


class Model:
    """Everything that is expected. Every function may be called by any thread."""

    def __init__(self, programs, nodes, capabilities):
        self.lock = threading.Lock()
        self.tables = {program: Table() for program in programs}
        self.nodes = nodes
        self.slices = {capability: State() for capability in capabilities}
        self.trap_configuration = Register()
        #: What the system monitor had of the nodes' origins at the former rest.
        self.copies = {}
        self.monitor_start = -math.inf
        self._owner = {capability: [] for capability in capabilities}
        self._operator = []
        self._seen_configurations = {ABSENT}
        self._is_disturbed = False

    def report(self, program, origin, value, begin, end, is_certain):
        with self.lock:
            self.tables[program].report(origin, value, begin, end, is_certain)

    def death(self, program, begin, end):
        """A process has ended between these times, in whatever way."""
        with self.lock:
            if program in self.tables:
                self.tables[program].death(begin, end)
            if program == "store":
                self._operator.append(Operation(begin, end, "death"))
            if program in ("store", "sys-mon"):
                self._disturb(begin)

    def start(self, program):
        """A process is about to be started."""
        with self.lock:
            if program == "sys-mon":
                self.monitor_start = time.monotonic()

    def operation(self, kind, begin, end, is_certain):
        with self.lock:
            self._operator.append(Operation(begin, end, kind, is_certain))
            if kind in _REVERTING:
                self._disturb(begin)

    def _disturb(self, begin):
        self._is_disturbed = True
        for value in self._seen_configurations:
            self.trap_configuration.write(begin, math.inf, value, is_certain=False)

    def trap_configuration_set(self, value, begin, end, is_certain):
        """value: ABSENT if it was removed."""
        with self.lock:
            self._seen_configurations.add(value)
            self.trap_configuration.write(begin, math.inf if self._is_disturbed else end, value,
                                          is_certain)

    def settle_trap_configuration(self, value):
        """This is the configuration, as has been seen at rest."""
        with self.lock:
            self.trap_configuration.settle(value)
            self._seen_configurations = {value, ABSENT}
            self._is_disturbed = False

    def owner_read(self, capability, begin, end, values=None, state_id="", same=""):
        seen = version_of(values, state_id) if values is not None else ABSENT
        with self.lock:
            self._owner[capability].append(Read(begin, end, seen, same))

    def owner_update(self, capability, begin, end, base, changes, is_patch, outcome, state_id=""):
        short = tuple(sorted((key, fingerprint(value)) for key, value in changes.items()))
        with self.lock:
            self._owner[capability].append(Update(begin, end, base, short, is_patch, outcome,
                                                  state_id or f"?{begin}"))

    def possible_slice(self, capability):
        """The possible states of a slice now. Raises Impossible."""
        with self.lock:
            return possible_states({self.slices[capability]}, self._owner[capability],
                                   self._operator)

    def steps(self, capability):
        """What has been done to a slice since the former rest, as text."""
        with self.lock:
            both = sorted([*self._owner[capability], *self._operator], key=lambda step: step.begin)
            return [str(step) for step in both]

    def allowed_copies(self, node, origin):
        """What the system monitor may have of an origin that the node has forgotten."""
        with self.lock:
            former, seen = self.copies.get(origin, (ABSENT, -math.inf))
            allowed = self.tables[node].possible_copies(origin, self.monitor_start)
            if self.monitor_start < seen:
                return allowed | {former}
            return allowed | {ABSENT}

    def settle(self, tables, slices):
        """What is there at rest is what the next round starts from, besides the configuration of
        the traps. tables: program to origin to value; slices: capability to State."""
        with self.lock:
            now = time.monotonic()
            for program, found in tables.items():
                self.tables[program].settle(found)
            self.copies = {origin: (value, now) for origin, value in tables["sys-mon"].items()}
            self.slices = dict(slices)
            self._operator.clear()
            for steps in self._owner.values():
                steps.clear()
