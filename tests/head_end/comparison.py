"""Compares the head-end at rest with the model."""
import dataclasses
import json

from google.protobuf import wrappers_pb2

from head_end.assembly import MONITOR_CAPABILITY
from head_end.owned_slice import packed_value
from head_end.packages import slices_of, version_of, versions_of
from head_end.registers import ABSENT
from head_end.slices import Impossible, State
from kit import dns_sd
from kit.snmp_configuration import get_manager

_UNSAVED = ("store", "Cap_Configuration_SysConfPersisted", "sys/conf/update")
_TRAPS_DISABLED = ("sys-mon", "Cap_StateMonitoring_SnmpConfState", "snmp")
_MACHINE = {"running": ("OK", "Internal system status OK."),
            "degraded": ("ERROR", "Internal system failure.")}

#: The room of the archive of reports.
_ARCHIVE = 1000


def machine_origin(node):
    return node, "system.systemd-degraded", "system/systemd"


class Table:
    """The latest table of one program and the severity that it derives."""

    def __init__(self, program):
        with program.client() as client:
            answer = client.latest()
            self.severity = client.current_state()
            self._names = client.protos.state.StateSeverity.Name
        self._next_index = answer.latestStateNotificationIndex
        self.stored = {
            (note.service_id, note.type, note.source): entry
            for entry in answer.stateList for note in [entry.stateNotification]}
        self.values = {origin: entry.stateNotification.SerializeToString()
                       for origin, entry in self.stored.items()}

    def text_of(self, origin):
        """Severity and message of an origin; ABSENT if there is none."""
        if origin not in self.stored:
            return ABSENT
        note = self.stored[origin].stateNotification
        return self._names(note.severity), note.msg

    def is_in_archive(self, origin):
        return self.stored[origin].index >= self._next_index - _ARCHIVE

    def worst(self):
        severities = {self._names(entry.stateNotification.severity)
                      for entry in self.stored.values()}
        return next((name for name in ("ERROR", "WARN") if name in severities), "OK")


def _short(value):
    return repr(value)[:300]


def _one_of(what, found, allowed):
    if found not in allowed:
        yield (f"{what}: {_short(found)} instead of one of "
               f"{[_short(value) for value in allowed]}")


def trap_configuration(head_end):
    """The three texts that the system monitor has; ABSENT for none."""
    with head_end.monitor.client() as client:
        manager = get_manager(client)
    return (manager.managerIp, manager.trapPort, manager.community) if manager else ABSENT


@dataclasses.dataclass
class Rest:
    """What was found at rest."""

    tables: dict
    configuration: object

    @classmethod
    def observe(cls, head_end):
        return cls({program.name: Table(program) for program in head_end.programs},
                   trap_configuration(head_end))

    def differences(self, head_end):
        """What is not as the model says, as texts."""
        model = head_end.model
        for name, table in self.tables.items():
            if table.severity != table.worst():
                yield f"current state of {name}: {table.severity} instead of {table.worst()}"
            yield from self._differences_of_own(name, table, head_end)
        yield from self._differences_of_copies(model)
        yield from _one_of("trap configuration", self.configuration,
                           model.trap_configuration.allowed())

    def _differences_of_own(self, name, table, head_end):
        """The reports that were sent to the program itself, and its own ones."""
        model = head_end.model
        expected = model.tables[name].allowed()
        for origin, allowed in expected.items():
            yield from _one_of(f"latest of {origin} at {name}", table.values.get(origin, ABSENT),
                               allowed)
        own = {_UNSAVED} if name == "store" else {_TRAPS_DISABLED} if name == "sys-mon" else set()
        if name in model.nodes:
            origin = machine_origin(name)
            yield from _one_of(f"machine of {name}", table.text_of(origin),
                               [_MACHINE[head_end.manager.state]])
            own = {origin}
        if name != "sys-mon":
            for origin in set(table.values) - set(expected) - own:
                yield f"nobody has reported {origin} at {name}"

    def _differences_of_copies(self, model):
        """What the system monitor has of the nodes."""
        monitor = self.tables["sys-mon"]
        of_nodes = {}
        for node in model.nodes:
            table = self.tables[node]
            for origin in {*table.values, *model.tables[node].sent, machine_origin(node)}:
                of_nodes[origin] = node
                found = monitor.values.get(origin, ABSENT)
                what = f"copy of {origin} of {node} at sys-mon"
                if origin not in table.values:
                    yield from _one_of(what, found, model.allowed_copies(node, origin))
                elif table.is_in_archive(origin):
                    yield from _one_of(what, found, [table.values[origin]])
        known = {*of_nodes, *model.tables["sys-mon"].allowed(), *model.copies, _TRAPS_DISABLED}
        for origin in set(monitor.values) - known:
            yield f"nobody has reported {origin} to sys-mon"


def _matches(version, found):
    """Whether a possible version is the one that was found; the state id of an update without an
    answer is not known."""
    if version is ABSENT or found is ABSENT:
        return version is found
    return version == found or (version.state_id.startswith("?")
                                and version.values == found.values)


def slice_differences(model, owned, saved):
    """owned, saved: capability to the Version of the owner and of the saved copy."""
    for capability in model.slices:
        pair = owned[capability], saved.get(capability, ABSENT)
        try:
            states = model.possible_slice(capability)
        except Impossible as error:
            yield f"slice {capability}: {error}"
            continue
        if not any(_matches(state.working, pair[0]) and _matches(state.saved, pair[1])
                   for state in states):
            yield (f"slice {capability}: its owner and the saved copy have {pair}, possible are "
                   f"{states}")


def owned_versions(slices):
    """What the foreign service says that it owns: capability to Version, or ABSENT."""
    return {capability: version_of(values, state_id) if state_id else ABSENT
            for capability, (values, state_id) in slices.items()}


def differences_of_all_saved(owned, configuration, package):
    """After a save the package is what the owners have."""
    saved = versions_of(package)
    for capability, version in owned.items():
        yield from _one_of(f"slice {capability} in the package", saved.get(capability, ABSENT),
                           [version])
    yield from _one_of("trap configuration in the package", trap_configuration_in(package),
                       [configuration])
    for capability in set(saved) - {*owned, MONITOR_CAPABILITY}:
        yield f"nobody has stored the slice {capability}"


def settled_states(owned):
    """All copies of each slice are the same after a save and an export."""
    return {capability: State(version, version, version) for capability, version in owned.items()}


def unsaved_differences(table, owned, saved):
    """Unsaved changes are a warning."""
    if any(version != saved.get(capability, ABSENT) for capability, version in owned.items()):
        severity = (table.text_of(_UNSAVED) or ("nothing", ""))[0]
        yield from _one_of("unsaved changes at the store", severity, ["WARN"])


def follower_differences(head_end):
    """The system monitor has the store's state id, and no change that the store lacks: it has heard
    of all that the operator has done."""
    folder = head_end.monitor.folder / "config"
    file = folder / MONITOR_CAPABILITY / "__csid/data"
    followed = json.loads(file.read_text())["value"] if file.exists() else ""
    _, state_id = slices_of(head_end.package).get(MONITOR_CAPABILITY, ({}, ""))
    yield from _one_of("state id of the system monitor", followed, [state_id])
    for file in folder.glob("*.unstored"):
        yield f"not stored: {file.read_bytes()}"


def trap_configuration_in(package):
    """The three texts of the system monitor's slice; ABSENT for none."""
    values, _ = slices_of(package).get(MONITOR_CAPABILITY, ({}, ""))
    if "/snmp" not in values:
        return ABSENT
    text = wrappers_pb2.StringValue()
    assert packed_value(values["/snmp"]).Unpack(text)
    manager = json.loads(text.value)
    return tuple(manager.get(name, "") for name in ("managerIp", "trapPort", "community"))


def discovery_differences(head_end):
    """Exactly those that are ready are found; one that is starting may be."""
    expected, tolerated = {}, set()
    for program in head_end.programs:
        monitor = "system" if program is head_end.monitor else "uservice"
        names = {f"configuration_{program.name}", f"state_monitoring_{monitor}_{program.name}"}
        if program.is_ready():
            expected.update(dict.fromkeys(names, program.port))
        elif program.is_up:
            tolerated |= names
    found = {instance.name: instance.port for instance in dns_sd.browse(head_end.bus, seconds=5)
             if instance.name not in tolerated}
    if found != expected:
        yield f"on the network: {found} instead of {expected}"
