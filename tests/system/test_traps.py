"""Which reports become traps, and what is in them, to the byte."""
import pathlib
import re
import subprocess

import pytest

from kit.mib import TABLE
from kit.snmp_configuration import remove_manager, set_manager
from kit.snmp_message import TRAP2, VERSION_2C, Variable
from kit.trap_receiver import TrapReceiver, TrapSocket
from kit.traps import PRODUCT, assert_next_trap, report, text, trap_oid
from kit.wait import wait_until

SYS_UP_TIME = "1.3.6.1.2.1.1.3.0"
SNMP_TRAP_OID = "1.3.6.1.6.3.1.1.4.1.0"
ROWS = [(kind, number, severity) for kind, traps in TABLE.items()
        for severity, (_, number) in [("OK", traps[1]), *((bad, traps[0]) for bad in
                                                          ("WARN", "ERROR", "BOOTING", 77))]]
def failures(service):
    return re.findall(r"\[error\] (Failed to send the trap .*)$", service.stdout, re.M)


def sent_to(service, socket):
    client = service.client()
    set_manager(client, trap_port=socket.port)
    return client


@pytest.mark.parametrize("kind, number, severity", ROWS)
def test_the_trap_depends_on_type_and_severity(monitor, trap_socket, kind, number, severity):
    client = sent_to(monitor, trap_socket)
    note = report(client, severity=severity, kind=kind)
    message = trap_socket.next()
    assert trap_oid(message) == f"{PRODUCT}.0.{number}"
    assert message.variables[2].value == note.severity
    assert client.notifications()[0].stateNotification == note


def up_time():
    """Of this machine, in hundredths of a second."""
    return float(pathlib.Path("/proc/uptime").read_text().split()[0]) * 100


def test_the_message_on_the_wire(monitor, trap_socket):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port, community="a community")
    earliest = up_time()
    report(client, "too much", "WARN", source="out/1", extended_info="more")
    message = trap_socket.next()
    latest = up_time()
    assert message.version == VERSION_2C
    assert message.community == b"a community"
    assert message.pdu == TRAP2
    assert (message.error_status, message.error_index) == (0, 0)
    sys_up_time, *others = message.variables
    assert (sys_up_time.oid, sys_up_time.type) == (SYS_UP_TIME, "TimeTicks")
    assert earliest - 1 <= sys_up_time.value <= latest + 1
    assert others == [
        Variable(SNMP_TRAP_OID, "OID", f"{PRODUCT}.0.5"),
        Variable(f"{PRODUCT}.2.1", "INTEGER", 1),
        Variable(f"{PRODUCT}.2.2", "OCTET STRING", b"out/1"),
        Variable(f"{PRODUCT}.2.3", "OCTET STRING", b"too much"),
    ]


def test_a_manager_with_the_mib_reads_names(monitor, tmp_path):
    client = monitor.client()
    with TrapReceiver(tmp_path / "manager") as manager:
        set_manager(client, trap_port=manager.port, community="secret")
        names = []
        for kind, ((bad, _), (good, _)) in TABLE.items():
            report(client, "no signal", "ERROR", kind, source="in/3")
            report(client, "no signal", "OK", kind, source="in/3")
            names += [(bad, 2), (good, 0)]
        for (name, severity), (community, time, *variables) in zip(names,
                                                                   manager.wait_for_traps(6)):
            assert community == "secret"
            assert " = Timeticks: " in time
            oid, *variables = variables
            assert oid.endswith(f" = OID: HALVO-QHED-MIB::{name}")
            assert variables == [f"HALVO-QHED-MIB::qhedSeverity = INTEGER: {severity}",
                                 'HALVO-QHED-MIB::qhedSource = STRING: "in/3"',
                                 'HALVO-QHED-MIB::qhedMessage = STRING: "no signal"']


@pytest.mark.parametrize("sent, received", [
    ("", b""),
    ("Köln ☃ 𝄞\r\n\t\x01\x7f", "Köln ☃ 𝄞\r\n\t\x01\x7f".encode()),
    ("%s %n {} \\ \"'", b"%s %n {} \\ \"'"),
    ("0x41", b"0x41"),
    ("x" * 127, b"x" * 127),
    ("x" * 65000, b"x" * 65000),
    ("before\0after", b"before"),
], ids=["empty", "utf-8", "format", "hex", "127", "65000", "zero-byte"])
def test_texts_arrive_byte_for_byte(monitor, trap_socket, sent, received):
    """Up to a zero byte, which ends a text."""
    client = sent_to(monitor, trap_socket)
    report(client, sent, source="☃/1")
    *_, source, message = trap_socket.next().variables
    assert message.value == received
    assert source.value == "☃/1".encode()
    assert client.notifications()[0].stateNotification.msg == sent


@pytest.mark.parametrize("severity", [-1, -2147483648, 2147483647])
def test_any_number_is_a_severity(monitor, trap_socket, severity):
    report(sent_to(monitor, trap_socket), severity=severity)
    assert trap_socket.next().variables[2].value == severity


@pytest.mark.parametrize("kind", ["Cap_TSState_OverloadX", "Cap_TSState", "cap_tsstate_overload",
                                  "Cap_StateMonitoring_SnmpConfState"])
def test_another_type_is_stored_and_sends_nothing(monitor, trap_socket, kind):
    client = sent_to(monitor, trap_socket)
    note = report(client, kind=kind)
    assert_next_trap(client, trap_socket, "the next one")
    assert client.notifications(index=-2)[1].stateNotification == note


def test_without_a_manager_nothing_is_sent(monitor, trap_socket):
    client = monitor.client()
    note = report(client, "before")
    set_manager(client, trap_port=trap_socket.port)
    report(client, "with")
    remove_manager(client)
    report(client, "without")
    set_manager(client, trap_port=trap_socket.port)
    report(client, "again")
    assert [text(trap_socket.next()) for _ in range(2)] == ["with", "again"]
    assert client.notifications()[-1].stateNotification == note
    assert failures(monitor) == []


def test_each_report_sends_one_trap_in_order(monitor, trap_socket):
    """Also one that repeats the state of its origin."""
    client = sent_to(monitor, trap_socket)
    for number in range(50):
        report(client, str(number), "OK")
    assert [text(trap_socket.next()) for _ in range(50)] == [str(number) for number in range(50)]


def test_the_manager_is_the_last_one_that_was_set(monitor, trap_socket):
    client = sent_to(monitor, trap_socket)
    with TrapSocket() as other:
        set_manager(client, trap_port=other.port)
        report(client, "to the other one")
        set_manager(client, trap_port=trap_socket.port)
        report(client, "to the first one")
        assert text(other.next()) == "to the other one"
        assert text(trap_socket.next()) == "to the first one"


def test_reports_of_other_monitors_are_sent_by_the_system_monitor(start, trap_socket):
    lower = start()
    upper = start("--sys_mon", "--statemon_services", f"127.0.0.1:{lower.port}")
    sent_to(upper, trap_socket)
    report(lower.client(), "from below")
    assert text(trap_socket.next()) == "from below"


def test_a_message_that_no_datagram_can_hold_is_left_out(monitor, trap_socket):
    client = sent_to(monitor, trap_socket)
    report(client, "x" * 100_000)
    assert_next_trap(client, trap_socket, "the next one")
    assert len(client.notifications()[1].stateNotification.msg) == 100_000
    expected = [f"Failed to send the trap HALVO-QHED-MIB::qhedOutputOverloadError to "
                f"udp:127.0.0.1:{trap_socket.port}: Too long"]
    wait_until(lambda: failures(monitor) == expected, what="one error line")


@pytest.fixture
def route(request):
    """How the machine treats an address that nobody has: a kind of route, or none."""
    words = ["ip", "route", "replace", request.param, "203.0.113.1"]
    if request.param:
        subprocess.run(words, check=True)
    yield request.param
    if request.param:
        subprocess.run([*words[:2], "del", *words[3:]], check=True)


@pytest.mark.parametrize("route, reason", [
    (None, "Network is unreachable"), ("unreachable", "No route to host"),
    ("prohibit", "Permission denied"), ("blackhole", "Invalid argument")], indirect=["route"])
def test_a_network_that_takes_no_trap_costs_one_line_per_trap(monitor, trap_socket, route, reason):
    client = monitor.client()
    set_manager(client, "203.0.113.1", 162)
    for number in range(3):
        report(client, str(number))
    assert [entry.stateNotification.msg for entry in client.notifications()] == ["2", "1", "0"]
    expected = ["Failed to send the trap HALVO-QHED-MIB::qhedOutputOverloadError to "
                f"udp:203.0.113.1:162: Failure in sendto ({reason})"]
    wait_until(lambda: failures(monitor) == expected * 3, what="three error lines")
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket, "there")


def test_a_manager_that_comes_later_gets_the_next_trap(monitor):
    """The answer that nobody listens is no error of the next trap."""
    with TrapSocket() as gone:
        client = sent_to(monitor, gone)
    for _ in range(3):
        report(client, "to nobody")
    with TrapSocket(port=gone.port) as manager:
        assert_next_trap(client, manager, "to the newcomer")
    assert failures(monitor) == []
