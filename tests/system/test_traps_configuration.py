"""The configuration of the manager: set, read, removed, refused, kept over restarts."""
import os
import re
import signal
import stat
import time

import grpc
import pytest

from kit.memory import is_sanitized, resident_bytes
from kit.namespaces import own_path
from kit.paths import mib_folder
from kit.snmp_configuration import get_manager, remove_manager, set_manager
from kit.trap_receiver import TrapSocket
from kit.traps import assert_next_trap, refused_managers, report
from kit.wait import wait_until

SAVED = "config/state_monitoring_uservice/snmp/data"
MESSAGE_TYPE = "type.googleapis.com/Hox.Capability.StateMonitoring.Api.SnmpConfiguration"


def snmp_reports(client):
    return [entry.stateNotification
            for entry in client.notifications(typeRegEx="^Cap_StateMonitoring_SnmpConfState$")]


def test_what_is_set_can_be_read_until_it_is_removed(monitor):
    client = monitor.client()
    assert get_manager(client) is None
    for community in ("public", "ein Wörtchen"):
        configuration = set_manager(client, "127.0.0.1", "1620", community)
        assert get_manager(client) == configuration
    remove_manager(client)
    assert get_manager(client) is None


def test_only_a_system_monitor_can_be_configured(service, client):
    with pytest.raises(grpc.RpcError) as failure:
        set_manager(client)
    assert failure.value.code() == grpc.StatusCode.UNAVAILABLE
    assert failure.value.details() == "Cannot configure SNMP on non-system state monitor"
    assert get_manager(client) is None
    remove_manager(client)
    assert client.notifications() == []
    assert not (service.folder / SAVED).exists()


def test_the_removal_ends_the_traps_and_is_reported(monitor, trap_socket):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)
    earliest = int(time.time())
    remove_manager(client)
    latest = time.time()
    note, = snmp_reports(client)
    assert earliest <= note.timeStamp.seconds <= latest
    note.ClearField("timeStamp")
    assert note == client.notification(
        service_id=monitor.service_id, type="Cap_StateMonitoring_SnmpConfState", source="snmp",
        severity="OK", msg="SNMP configuration disabled.")
    report(client, "to nobody")
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket, "to the manager")


def test_a_removal_without_a_configuration_is_not_reported(monitor):
    client = monitor.client()
    remove_manager(client)
    assert client.notifications() == []
    set_manager(client)
    for _ in range(2):
        remove_manager(client)
    assert len(client.notifications()) == 1


UNUSABLE = {
    "unknown-name": {"manager_ip": "no-such-host.invalid"},
    "malformed-number": {"manager_ip": "127.0.0.256"},
    "no-address": {"manager_ip": ""},
    "address-with-port": {"manager_ip": "127.0.0.1:162"},
    "option": {"manager_ip": "--help"},
    "command": {"manager_ip": "$(halt)"},
    "other-transport": {"manager_ip": "tcp:127.0.0.1"},
    "file": {"manager_ip": "unix:/tmp/manager"},
    "long-name": {"manager_ip": "x" * 100_000},
    "zero-byte": {"manager_ip": "127.0.0.1\0"},
    "empty-community": {"community": ""},
    "community-of-257": {"community": "x" * 257},
    "community-of-1000": {"community": "x" * 1000},
    **{f"port-{port or 'empty'}": {"trap_port": port}
       for port in ("abc", "", "0", "-1", "65536", "70000", "162 ", "+162", "0x50", "9" * 100)},
}


@pytest.mark.parametrize("unusable", UNUSABLE.values(), ids=UNUSABLE)
def test_a_manager_that_cannot_be_used_leaves_the_former_one(monitor, trap_socket, unusable):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    configuration = set_manager(client, **{"trap_port": trap_socket.port, **unusable})
    wait_until(lambda: refused_managers(monitor), what="the error line")
    assert_next_trap(client, trap_socket)
    assert get_manager(client) == configuration
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)
    assert refused_managers(monitor) == 1


def test_the_first_manager_that_cannot_be_used_gets_nothing(monitor):
    client = monitor.client()
    set_manager(client, community="")
    report(client)
    remove_manager(client)
    assert [note.msg for note in snmp_reports(client)] == ["SNMP configuration disabled."]
    wait_until(lambda: refused_managers(monitor) == 1, what="one error line")


def test_a_request_without_a_configuration_sets_an_empty_one(monitor, trap_socket):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    client.state.setSnmpConf(client.protos.state.SetSnmpConfReq())
    assert get_manager(client) == client.protos.state.SnmpConfiguration()
    wait_until(lambda: refused_managers(monitor) == 1, what="one error line")
    assert_next_trap(client, trap_socket)


@pytest.mark.parametrize("length", [1, 256])
def test_the_shortest_and_the_longest_community(monitor, trap_socket, length):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port, community="x" * length)
    report(client)
    assert trap_socket.next().community == b"x" * length


def test_the_same_values_again_change_nothing(monitor, trap_socket):
    client = monitor.client()
    for number in range(3):
        set_manager(client, trap_port=trap_socket.port)
        assert_next_trap(client, trap_socket, str(number))


def test_an_observer_sees_the_configuration(monitor):
    client = monitor.client()
    configuration = set_manager(client, community="first")
    stream = client.observe("/snmp")

    def next_change():
        element = stream.next()
        assert element.observeStatus.statusCode == 0
        assert list(element.node_change_map) == ["/snmp"]
        pair, = element.node_change_map["/snmp"].nodePairList
        return pair

    def unpacked(value):
        found = client.protos.state.SnmpConfiguration()
        assert value.Unpack(found)
        return found

    assert unpacked(next_change().currentMessage) == configuration
    other = set_manager(client, community="second")
    change = next_change()
    assert unpacked(change.prevMessage) == configuration
    assert unpacked(change.currentMessage) == other
    remove_manager(client)
    change = next_change()
    assert unpacked(change.prevMessage) == other
    assert not change.HasField("currentMessage")
    stream.cancel()


def again(start, former, *args, **kwargs):
    """The next program with the configuration folder of one that has ended."""
    return start(*(args or ["--sys_mon"]), "--configdir", str(former.folder / "config"), **kwargs)


def test_the_configuration_is_kept_over_a_restart(start, monitor, trap_socket):
    configuration = set_manager(monitor.client(), trap_port=trap_socket.port)
    monitor.stop()
    client = again(start, monitor).client()
    assert get_manager(client) == configuration
    assert_next_trap(client, trap_socket)
    remove_manager(client)
    assert len(client.notifications()) == 2


def killed(service):
    service.signal(signal.SIGKILL)
    assert service.wait_end() == -signal.SIGKILL


@pytest.mark.parametrize("times", [1, 5])
def test_what_has_been_answered_survives_a_kill(start, monitor, trap_socket, times):
    client = monitor.client()
    for number in range(times):
        configuration = set_manager(client, trap_port=trap_socket.port, community=f"c{number}")
    killed(monitor)
    client = again(start, monitor).client()
    assert get_manager(client) == configuration
    assert_next_trap(client, trap_socket)


@pytest.mark.parametrize("end", [killed, lambda service: service.stop()], ids=["kill", "stop"])
def test_a_removal_is_kept_over_a_restart(start, monitor, trap_socket, end):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    remove_manager(client)
    end(monitor)
    client = again(start, monitor).client()
    assert get_manager(client) is None
    assert client.notifications() == []
    configuration = set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)
    assert get_manager(client) == configuration


def test_the_file_of_the_configuration(monitor):
    """Nobody but owner and group reads the community."""
    client = monitor.client()
    file = monitor.folder / SAVED
    set_manager(client, "10.0.0.1", "162", "secret")
    assert file.read_text() == ('{"@type":"' + MESSAGE_TYPE + '","managerIp":"10.0.0.1",'
                                '"trapPort":"162","community":"secret"}')
    assert stat.S_IMODE(file.stat().st_mode) == 0o640
    assert stat.S_IMODE(file.parent.stat().st_mode) == 0o750
    remove_manager(client)
    assert not file.exists()


@pytest.mark.parametrize("content", [
    "", "no JSON", '{"@type":"type.googleapis.com/google.protobuf.StringValue","value":"x"}',
    '{"@type":"' + MESSAGE_TYPE + '","@bytes":"////"}',
], ids=["empty", "not-json", "other-type", "other-bytes"])
def test_a_damaged_file_counts_as_an_empty_configuration(start, tmp_path, trap_socket, content):
    file = tmp_path / "s0" / SAVED
    file.parent.mkdir(parents=True)
    file.write_text(content)
    service = start("--sys_mon")
    client = service.client()
    assert get_manager(client) == client.protos.state.SnmpConfiguration()
    wait_until(lambda: refused_managers(service) == 1, what="one error line")
    configuration = set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)
    killed(service)
    assert get_manager(again(start, service).client()) == configuration


def test_another_role_does_not_touch_the_file(start, monitor):
    """The machine is a system monitor again later."""
    configuration = set_manager(monitor.client())
    monitor.stop()
    other = again(start, monitor, "--logstdout")
    assert get_manager(other.client()) is None
    remove_manager(other.client())
    other.stop()
    assert get_manager(again(start, monitor).client()) == configuration


def descriptors(service):
    return len(os.listdir(f"/proc/{service.process.pid}/fd"))


@pytest.mark.parametrize("manager_ip", ["127.0.0.1", "::1", "localhost", "no such host"])
def test_a_thousand_managers_leave_nothing_behind(monitor, trap_socket, manager_ip):
    client = monitor.client()

    def set_managers(number):
        for index in range(number):
            set_manager(client, manager_ip, 1024 + index)

    set_managers(100)
    # An open session has one socket, whether or not the last one could be opened.
    set_manager(client, trap_port=trap_socket.port)
    before, memory = descriptors(monitor), resident_bytes(monitor)
    set_managers(1000)
    set_manager(client, trap_port=trap_socket.port)
    assert descriptors(monitor) == before
    if not is_sanitized():
        # Less than a session each; LeakSanitizer finds less.
        assert resident_bytes(monitor) - memory < 1_000_000
    assert_next_trap(client, trap_socket)


@pytest.mark.parametrize("manager_ip", ["127.0.0.1", "udp:127.0.0.1", "::1", "[::1]", "udp6:::1",
                                        "udp6:[::1]"])
def test_ways_to_write_an_address(monitor, manager_ip):
    client = monitor.client()
    with TrapSocket("::1" if "::1" in manager_ip else "127.0.0.1") as socket:
        set_manager(client, manager_ip, socket.port)
        assert_next_trap(client, socket)


def test_the_library_needs_no_folder_of_its_own(start, trap_socket):
    service = start("--sys_mon", environment={"SNMP_PERSISTENT_DIR": "/dev/null/state"})
    client = service.client()
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)
    assert service.stderr == ""
    assert not re.search(r"\[(warning|error)\]", service.stdout)


def test_without_the_mib_the_first_trap_ends_the_program(start, trap_socket, tmp_path):
    """A package without it cannot be used; it must not pretend to send."""
    service = start("--sys_mon", prefix=own_path(mib_folder(), tmp_path), log_to_file=True)
    client = service.client()
    set_manager(client, trap_port=trap_socket.port)
    with pytest.raises(grpc.RpcError):
        report(client)
    assert service.wait_end() == -signal.SIGABRT
    assert "Failed to add oid. Is the trapname present in the MIB?" in service.log
