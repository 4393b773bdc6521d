"""scripts/with-daemons: a command with a bus and an mDNS daemon that end with it."""
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import pytest

from kit.lines import Lines
from kit.paths import ROOT
from kit.wait import wait_until

SCRIPT = str(ROOT / "scripts/with-daemons")
ADDRESS = re.compile(r"DBUS_SYSTEM_BUS_ADDRESS=(unix:abstract=(\S+)) avahi-browse")
PRINTS_ADDRESS = 'echo "$DBUS_SYSTEM_BUS_ADDRESS"'


def run(*command, **options):
    return subprocess.run([SCRIPT, *command], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60, check=False, **options)


class Running:
    """The script with a command that runs until it is ended."""

    def __init__(self, *command, folder="/tmp"):
        self.process = subprocess.Popen(
            [SCRIPT, *(command or ("sleep", "infinity"))], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True,
            env={**os.environ, "TMPDIR": str(folder)})
        self.output = Lines(self.process.stdout)
        self.errors = Lines(self.process.stderr)
        self.address = self.errors.wait_for_match(ADDRESS).group(1)

    def wait_for_command(self, name):
        """Waits until the process has become the command."""
        file = pathlib.Path(f"/proc/{self.process.pid}/comm")
        wait_until(lambda: file.read_text() == f"{name}\n", what=f"the start of {name}")

    def end(self, number):
        self.process.send_signal(number)
        return self.process.wait(10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.output.close()
        self.errors.close()


def daemons_of(address):
    """Names of the daemons that serve or use the bus of this address."""
    found = set()
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            words = (entry / "cmdline").read_bytes().split(b"\0")
            if words[0] == b"avahi-daemon":
                if address.encode() in (entry / "environ").read_bytes():
                    found.add("avahi-daemon")
            elif words[0] == b"dbus-daemon":
                file = pathlib.Path(words[1].decode().partition("=")[2])
                if address in (entry / "root" / file.relative_to("/")).read_text():
                    found.add("dbus-daemon")
        except OSError:
            continue  # has just ended
    return found


def is_served(address):
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex("\0" + address.partition("=")[2]) == 0


def wait_for_end_of_daemons(address):
    wait_until(lambda: not is_served(address) and not daemons_of(address),
               what="the end of both daemons")


def instances(address):
    """The lines of a foreign browser, resolved."""
    return subprocess.run(
        ["avahi-browse", "-rtp", "_capability._tcp"], check=True, capture_output=True, text=True,
        timeout=60, env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}).stdout.splitlines()


def test_the_command_can_publish_at_once_and_another_process_finds_it():
    with Running("avahi-publish", "-s", "here", "_capability._tcp", "5005", "a=b") as running:
        wait_until(lambda: any(line.startswith("=;lo;IPv4;here;_capability._tcp;local;")
                               and line.endswith(';127.0.0.1;5005;"a=b"')
                               for line in instances(running.address)), what="the instance")
        assert daemons_of(running.address) == {"dbus-daemon", "avahi-daemon"}
        running.end(signal.SIGTERM)
        wait_for_end_of_daemons(running.address)


@pytest.mark.parametrize("command, status", [
    (("true",), 0),
    (("sh", "-c", "exit 7"), 7),
    (("sh", "-c", "kill -9 $$"), -signal.SIGKILL),
    (("no-such-command",), 127),
    (("/etc/passwd",), 126),
], ids=["success", "failure", "signal", "not-found", "not-executable"])
def test_the_exit_status_is_the_commands(command, status):
    result = run(*command)
    assert result.returncode == status
    wait_for_end_of_daemons(ADDRESS.search(result.stderr).group(1))


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
def test_the_daemons_end_with_a_command_that_a_signal_ends(number):
    with Running() as running:
        running.wait_for_command("sleep")
        assert daemons_of(running.address) == {"dbus-daemon", "avahi-daemon"}
        assert running.end(number) == -number
        wait_for_end_of_daemons(running.address)


def test_an_interrupt_from_the_terminal_reaches_the_command_alone():
    """The daemons are still there while the command handles it."""
    handler = "sleep 1; avahi-browse -tp _capability._tcp && echo served; exit 3"
    with Running("sh", "-c", f"trap '{handler}' INT; echo ready; while :; do sleep 0.1; done"
                 ) as running:
        running.output.wait_for("ready")
        os.killpg(running.process.pid, signal.SIGINT)
        assert running.process.wait(20) == 3
        running.output.wait_for("served")
        wait_for_end_of_daemons(running.address)


def keepers_of(address):
    """Process ids of the parents of the daemons."""
    found = set()
    for entry in pathlib.Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and address.encode() in (entry / "environ").read_bytes() and (
                    entry / "comm").read_text() == "avahi-daemon\n":
                found.add(int(re.search(r"^PPid:\s*(\d+)$", (entry / "status").read_text(),
                                        re.M).group(1)))
        except OSError:
            continue
    return found


def test_the_daemons_end_with_their_killed_keeper_and_the_command_stays(tmp_path):
    with Running(folder=tmp_path) as running:  # nobody removes the folder of the daemons
        running.wait_for_command("sleep")
        keeper, = keepers_of(running.address)
        assert keeper != running.process.pid
        os.kill(keeper, signal.SIGKILL)
        wait_for_end_of_daemons(running.address)
        assert running.process.poll() is None


def test_two_at_once_have_buses_of_their_own():
    with Running() as first, Running() as second:
        assert first.address != second.address
        assert daemons_of(first.address) == daemons_of(second.address) == {
            "dbus-daemon", "avahi-daemon"}
        first.end(signal.SIGTERM)
        wait_for_end_of_daemons(first.address)
        assert daemons_of(second.address) == {"dbus-daemon", "avahi-daemon"}
        assert instances(second.address) == []


def test_the_command_inherits_nothing_but_the_address(tmp_path):
    """It runs where the caller is, as the caller would have started it."""
    report = """pwd; env | cut -d= -f1 | grep -vE '^(_|PWD|SHLVL|OLDPWD)$' | sort; ls /proc/$$/fd
                grep -E '^Sig(Blk|Ign|Cgt)' /proc/self/status; ls -l /proc/$$/ns
                ps -o sid=,pgid= -p $$; cat"""

    def output(*prefix):
        environment = {"PATH": os.environ["PATH"], "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/no"}
        return subprocess.run(
            [*prefix, "sh", "-c", report], cwd=tmp_path, input="typed", capture_output=True,
            text=True, timeout=60, check=True, env=environment).stdout

    def without_times(text):
        return re.sub(r"^(l\S+).* (\w+ -> )", r"\1 \2", text, flags=re.M)
    assert without_times(output(SCRIPT)) == without_times(output())
    assert output(SCRIPT).endswith("typed")


def test_nobody_waits_for_the_daemons_output():
    """The end of the command is the end of its output; the daemons may live a moment longer."""
    started = time.monotonic()
    result = subprocess.run(f"{SCRIPT} sh -c '{PRINTS_ADDRESS}' 2>&1 | cat", shell=True,
                            capture_output=True, text=True, timeout=60, check=True)
    address = result.stdout.splitlines()[-1]
    assert address == ADDRESS.search(result.stdout).group(1)
    assert time.monotonic() - started < 20
    wait_for_end_of_daemons(address)


def test_without_root_it_says_so():
    result = run("true", user=65534, group=65534, extra_groups=[])
    assert result.returncode == 125
    assert result.stderr == (
        "with-daemons: only root can start the mDNS daemon: run it with sudo\n")


def test_without_a_command_it_prints_its_usage():
    result = run()
    assert result.returncode == 125
    assert "usage: scripts/with-daemons <command> [arguments]" in result.stderr


@pytest.mark.parametrize("behaviour, what", [
    ("exit 4", "has ended with status 4"),
    ("exec sleep infinity", "does not serve"),
], ids=["ends", "is-silent"])
def test_a_daemon_that_does_not_serve_is_reported_with_its_output(tmp_path, behaviour, what):
    (tmp_path / "avahi-daemon").write_text(f"#!/bin/sh\necho 'no licence'\n{behaviour}\n")
    (tmp_path / "avahi-daemon").chmod(0o755)
    result = run("echo", "never", env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"})
    assert result.returncode == 125
    assert result.stdout == ""
    assert result.stderr == (f"with-daemons: avahi-daemon {what}. Its output:\nno licence\n\n"
                             "with-daemons: the daemons do not run\n")


def test_an_interrupt_while_the_daemons_start_leaves_nothing(tmp_path):
    process = subprocess.Popen(
        [SCRIPT, "true"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE, text=True, env={**os.environ, "TMPDIR": str(tmp_path)})
    wait_until(lambda: list(tmp_path.iterdir()), what="the folder of the daemons")
    process.send_signal(signal.SIGINT)
    assert process.wait(10) == -signal.SIGINT
    assert process.stderr.read() == ""
    process.stderr.close()
    wait_until(lambda: not list(tmp_path.iterdir()), what="the end of the daemons")
