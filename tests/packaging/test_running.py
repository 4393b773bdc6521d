"""How the installed service starts, fails, comes back, and plays its roles."""
import json
import os
import signal

import pytest

from kit.mib import TABLE, product
from kit.packaged_machine import SERVICE
from kit.paths import ROOT
from kit.trap_receiver import TrapSocket
from kit.wait import wait_until


def kill(machine):
    machine.check("kill", "-s", "KILL", str(machine.pid()))


def fail_an_assertion(machine):
    """By a second observer of a slice; which of them is the second does not matter."""
    machine.observe_twice()
    assert "Assertion failed: [" in machine.log()


@pytest.mark.parametrize("end", [kill, fail_an_assertion])
def test_a_service_that_was_ended_comes_back_with_what_was_saved(installed, end):
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    installed.change("/in/2/freq", "474000")
    old = installed.pid()
    end(installed)
    wait_until(lambda: installed.pid() not in (0, old), 10, "a new process")
    installed.wait_until_active()
    assert installed.show("NRestarts") == "1"
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_sighup_ends_the_service_for_good(installed):
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    installed.change("/in/2/freq", "474000")
    installed.check("kill", "-s", "HUP", str(installed.pid()))
    wait_until(lambda: installed.show("ActiveState") == "inactive", 5, "the end")
    assert [installed.show(name) for name in ("Result", "NRestarts", "ExecMainCode", "ExecMainStatus")
            ] == ["success", "0", str(os.CLD_KILLED), str(signal.SIGHUP.value)]
    installed.check("systemctl", "start", SERVICE)
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_a_wrong_option_fails_at_once(installed):
    installed.set_options("HALVO_OPTS=--no-such-option")
    installed.run("systemctl", "restart", SERVICE)
    wait_until(lambda: installed.show("ActiveState") == "failed", 5, "the failure")
    assert (installed.show("NRestarts"), installed.show("ExecMainStatus")) == ("0", "1")
    assert "no-such-option" in installed.log()


def test_a_taken_port_is_told_in_the_journal(installed):
    # The instance has a port and a name of its own, so only the settings of the first are wrong.
    installed.start_instance("other", 5015)
    installed.set_options("HALVO_PORT=5015")
    installed.run("systemctl", "restart", SERVICE)
    wait_until(lambda: installed.show("ActiveState") == "failed", 20, "the failure")
    assert "localhost:5015" in installed.log()


@pytest.mark.parametrize("options", [
    "--node_mon", "--sys_mon", "--sys_mon --statemon_services 127.0.0.1:7777"])
def test_each_role_starts_and_stops(installed, options):
    installed.set_options(f"HALVO_OPTS={options}")
    installed.check("systemctl", "restart", SERVICE)
    installed.wait_until_active()
    installed.check("systemctl", "stop", SERVICE, seconds=3)
    assert installed.show("Result") == "success"


def test_a_trap_arrives_at_its_receiver(installed, unpacked):
    installed.set_options("HALVO_OPTS=--sys_mon")
    installed.check("systemctl", "restart", SERVICE)
    installed.wait_until_active()
    receiver = installed.ip.rsplit(".", 1)[0] + ".1"
    with TrapSocket(receiver) as socket:
        installed.check("halvoctl", "call", "setSnmpConf", "-d", json.dumps({"conf": {
            "managerIp": receiver, "trapPort": str(socket.port), "community": "public"}}))
        installed.check("halvoctl", "state", "report", "me/Cap_TSState_Overload/out/1", "warn", "lost")
        oid = socket.next().variables[1]
        (_, number), _ = TABLE["Cap_TSState_Overload"]
        assert oid.value == f"{product(unpacked / 'usr/share/snmp/mibs')}.0.{number}"


def test_two_instances_have_their_own_logs_and_names(installed):
    ports = {"east": 5015, "west": 5025}
    for name, port in ports.items():
        installed.start_instance(name, port)
    for name, port in ports.items():
        installed.check("halvoctl", "-e", f"localhost:{port}", "ping")
        installed.check("test", "-s", f"/var/log/halvo/halvo-{name}.log")
        installed.ctl("-e", f"localhost:{port}", "conf", "import", "/etc/hostname")
        installed.check("journalctl", "--sync")
        assert "Unable to unpack" in installed.check("journalctl", "-q", "-t", f"halvo-{name}")
        assert installed.run("stat", "-c", "%U", f"/var/lib/halvo/{name}").strip() == "halvo"


def test_the_marker_lets_a_foreign_package_pass(installed):
    installed.shell("echo output:COFDM > /etc/sw_variant; chmod 644 /etc/sw_variant")
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    installed.check("halvoctl", "conf", "export", "/root/a.hpk")
    installed.shell("echo output:QAM > /etc/sw_variant")
    assert installed.ctl("conf", "import", "/root/a.hpk").returncode == 3
    installed.shell("touch /tmp/headend_override_compat_check")
    installed.check("halvoctl", "conf", "import", "/root/a.hpk")


def test_the_example_for_authors_builds_against_the_packages(installed):
    installed.shell(f"cd {ROOT}; AUTOPKGTEST_TMP=/root sh debian/tests/lamp", seconds=240)


def test_the_test_of_the_installed_package_passes(installed):
    installed.shell(f"{ROOT}/debian/tests/serves")
