"""A head-end of three nodes, each with the real systemd on a separate machine and network, and a system
monitor that observes them and sends traps."""
import time

import pytest

from kit.head_end import HeadEnd
from kit.monitors import reports, wait_until_connected
from kit.snmp_configuration import get_manager, set_manager
from kit.trap_receiver import TrapReceiver
from kit.wait import wait_until

#: From what happens on a node to what the system monitor says, in seconds.
SOON = 1.0
TUNER = "Cap_RFInput_TunerConfedNotLocked"


@pytest.fixture
def head_end(tmp_path, protos):
    nodes = HeadEnd(tmp_path / "nodes", protos, 3)
    yield nodes
    nodes.close()


@pytest.fixture
def receiver(tmp_path):
    daemon = TrapReceiver(tmp_path / "receiver")
    daemon.start()
    yield daemon
    daemon.close()


def assert_soon(condition, what):
    begin = time.monotonic()
    wait_until(condition, 20, what)
    assert time.monotonic() - begin < SOON, what


def states_of_nodes(client):
    """The last text that each node has reported of its machine."""
    return {report.service_id: report.msg for report in reports(client)
            if report.type == "system.systemd-degraded"}


def test_what_happens_on_a_node_shows_in_the_system_monitor_soon(start, head_end):
    monitor = start(*head_end.options)
    client = monitor.client()
    wait_until_connected(client)
    assert reports(client) == []
    head_end.continue_boot()
    names = ["node-1", "node-2", "node-3"]
    wait_until(lambda: states_of_nodes(client) == dict.fromkeys(names, "System booted."), 20,
               lambda: f"the boot of all among {states_of_nodes(client)}\n{head_end.failed_units()}")
    assert client.current_state() == "OK"

    second = head_end.nodes[1]
    second.fail()
    assert_soon(lambda: client.current_state() == "ERROR", "the failure")
    assert states_of_nodes(client)["node-2"] == "Internal system failure."
    second.mend()
    assert_soon(lambda: client.current_state() == "OK", "the end of the failure")
    assert states_of_nodes(client) == {**dict.fromkeys(names, "System booted."),
                                       "node-2": "Internal system status OK."}


def trap_names(receiver, number):
    """The names of the traps so far."""
    return [next(line for line in trap if "::qhed" in line and "OID" in line).split("::")[-1]
            for trap in receiver.wait_for_traps(number)]


def test_traps_of_a_node_arrive_by_name_also_after_a_restart_of_everything(
        start, tmp_path, protos, head_end, receiver):
    head_end.continue_boot()
    monitor = start(*head_end.options)
    client = monitor.client()
    wait_until_connected(client)
    configuration = set_manager(client, trap_port=receiver.port)
    node = head_end.nodes[2].client
    node.create("node-3", TUNER, "tuner/1", "ERROR", "No lock")
    assert trap_names(receiver, 1) == ["qhedTunerMissingSignalLock"]

    monitor.stop()
    head_end.close()
    after = HeadEnd(tmp_path / "after", protos, 1)
    try:
        after.continue_boot()
        again = start(*after.options, "--configdir", str(monitor.folder / "config"))
        wait_until_connected(again.client())
        assert get_manager(again.client()) == configuration
        after.nodes[0].client.create("node-1", TUNER, "tuner/1", "OK", "Locked")
        assert trap_names(receiver, 2)[1] == "qhedTunerHasSignalLock"
    finally:
        after.close()

