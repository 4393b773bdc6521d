"""A node monitor on a separate machine with the real systemd."""
import pytest

from kit.wait import wait_until


def reports(node):
    """Oldest first: severity, origin and text of each."""
    state = node.protos.state
    stored = node.client.state.getStateNotifications(state.GetStateNotificationsReq()).stateList
    return [(state.StateSeverity.Name(report.severity), report.service_id, report.type,
             report.source, report.msg)
            for report in (entry.stateNotification for entry in reversed(stored))]


def wait_for(node, severity):
    wait_until(lambda: node.client.current_state() == severity, 20, severity)


def report(severity, text):
    return (severity, "node", "system.systemd-degraded", "system/systemd", text)


def test_the_boot_a_failure_and_its_end_are_reported(node):
    node.wait_until_active()
    assert node.state() == "starting"
    wait_for(node, "BOOTING")
    assert reports(node) == []
    node.continue_boot()
    wait_for(node, "OK")
    assert node.state() == "running"
    booted = report("OK", "System booted.")
    assert reports(node) == [booted]

    node.fail()
    wait_for(node, "ERROR")
    assert node.state() == "degraded"
    failed = report("ERROR", "Internal system failure.")
    assert reports(node) == [booted, failed]

    node.mend()
    wait_for(node, "OK")
    mended = report("OK", "Internal system status OK.")
    assert reports(node) == [booted, failed, mended]


def test_a_service_that_starts_on_a_running_machine_says_so(node):
    node.continue_boot()
    wait_until(lambda: node.state() == "running", 20, "the boot")
    node.run("systemctl", "restart", "halvo.service")
    wait_until(lambda: reports(node) == [report("OK", "Internal system status OK.")], 20)


@pytest.mark.parametrize("command", [["restart", "dbus"], ["daemon-reexec"]],
                         ids=["bus", "systemd"])
def test_a_watch_survives_what_it_watches(node, command):
    node.continue_boot()
    wait_until(lambda: node.state() == "running", 20, "the boot")
    wait_for(node, "OK")
    node.run("systemctl", *command)
    wait_until(lambda: node.state() == "running", 20, "systemd")
    node.fail()
    wait_for(node, "ERROR")
    node.mend()
    wait_for(node, "OK")


def test_the_service_ends_while_it_watches(node):
    node.continue_boot()
    wait_until(lambda: node.state() == "running", 20, "the boot")
    node.run("systemctl", "stop", "halvo.service")
    assert node.run("systemctl", "show", "-P", "ExecMainStatus", "halvo.service") == "0\n"
    assert node.state() == "running"
