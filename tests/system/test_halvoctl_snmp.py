"""The operator's tool sets the manager that gets the traps, and tests it."""
import pytest
from kit.ctl import Ctl
from kit.interposer import Interposer
from kit.mib import TABLE
from kit.snmp_configuration import get_manager
from kit.trap_receiver import TrapReceiver

NONE = "no manager is set: no traps are sent\n"


@pytest.fixture
def ctl(monitor):
    return Ctl(monitor.address)


@pytest.fixture
def receiver(tmp_path):
    with TrapReceiver(tmp_path / "receiver") as running:
        yield running


def test_the_manager_is_set_shown_and_cleared(ctl, monitor):
    client = monitor.client()
    assert ctl.ok("snmp", "show").out == NONE
    assert ctl.ok("snmp", "show", "-o", "json").json == {}
    assert ctl.ok("snmp", "set", "127.0.0.1", "--port", "20162", "--community", "secret").out == ""
    assert ctl.ok("snmp", "show").out == "127.0.0.1 port 20162 community secret\n"
    assert ctl.ok("snmp", "show", "-o", "json").json == {
        "conf": {"managerIp": "127.0.0.1", "trapPort": "20162", "community": "secret"}}
    ctl.ok("snmp", "set", "::1")
    manager = get_manager(client)
    assert (manager.managerIp, manager.trapPort, manager.community) == ("::1", "162", "public")
    assert ctl.ok("snmp", "clear").out == ""
    assert ctl.ok("snmp", "show").out == NONE and get_manager(client) is None


@pytest.mark.parametrize("kind", TABLE)
def test_the_test_arrives_as_two_traps(ctl, monitor, receiver, kind):
    ctl.ok("snmp", "set", "127.0.0.1", "--port", receiver.port)
    result = ctl.ok("snmp", "test", "--type", kind)
    manager = f"127.0.0.1 port {receiver.port} community public"
    assert result.out == f"Reported {kind} bad and OK: two traps for {manager}\n"
    bad, good = receiver.wait_for_traps(2)
    for trap, (name, _) in zip((bad, good), TABLE[kind]):
        assert name in "".join(trap) and "snmp/test" in "".join(trap)
    assert monitor.client().current_state() == "OK"


@pytest.mark.parametrize("number", [0, 1])
def test_a_lost_answer_leaves_no_bad_state(monitor, receiver, number):
    """To the bad report, or to the good one."""
    calls = iter(range(3))

    def lose():
        assert next(calls) != number

    with Interposer(monitor.address, createStateNotification=lose) as between:
        ctl = Ctl(between.address)
        ctl.ok("snmp", "set", "127.0.0.1", "--port", receiver.port)
        result = ctl("snmp", "test")
    assert result.status == 3 and "hint" not in result.err
    assert monitor.client().current_state() == "OK"


def test_json_of_the_test(ctl, receiver):
    ctl.ok("snmp", "set", "127.0.0.1", "--port", receiver.port)
    assert ctl.ok("snmp", "test", "-o", "json").json == {
        "type": "Cap_TSState_Overload",
        "manager": {"managerIp": "127.0.0.1", "trapPort": str(receiver.port),
                    "community": "public"}}
    receiver.wait_for_traps(2)


def test_without_a_manager_nothing_is_tested(ctl, monitor):
    result = ctl("snmp", "test")
    assert (result.status, result.err) == (
        1, "halvoctl: not sent: no manager is set\nhint: halvoctl snmp set MANAGER sets one\n")
    assert monitor.client().notifications() == []


@pytest.mark.parametrize("words", [
    ("127.0.0.1", "--port", "0"), ("127.0.0.1", "--port", "65536"), ("127.0.0.1", "--port", "x"),
    ("127.0.0.1", "--port", ""), ("",), ("127.0.0.1", "--community", ""),
    ("127.0.0.1", "--community", "c" * 257), ()], ids=range(8))
def test_a_manager_that_gets_no_traps_is_not_sent(ctl, monitor, words):
    result = ctl("snmp", "set", *words)
    assert result.status == 1 and result.err and not result.out
    assert get_manager(monitor.client()) is None
    monitor.assert_alive()


def test_only_a_system_monitor_takes_a_manager(service):
    ctl = Ctl(service.address)
    result = ctl("snmp", "set", "127.0.0.1")
    assert result.status == 3 and result.err.startswith("halvoctl: UNAVAILABLE: ")
    assert result.err.endswith("hint: only a system monitor (--sys_mon) sends traps\n")
    assert Ctl("localhost:1")("snmp", "show").status == 2
