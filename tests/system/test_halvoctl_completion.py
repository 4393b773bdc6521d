"""A shell completes the words of the operator's tool."""
import os
import pty
import re
import shutil
import signal
import subprocess
import time

import pytest
from kit.configuration import Slice, save
from kit.ctl import Ctl, command, environment
from kit.wait import wait_until


class Shell:
    """A bash on a terminal, in which the tool and its completion are there."""

    def __init__(self, service, folder):
        self.output = b""
        folder = str(folder)
        tool = command()[0]
        variables = environment(HALVO_ENDPOINT=service.address, XDG_STATE_HOME=folder, PS1="ready> ",
                                TERM="dumb", INPUTRC="/dev/null", HOME=folder,
                                PATH=f"{os.path.dirname(tool)}:{os.environ['PATH']}")
        self.process, self._terminal = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execvpe("bash", ["bash", "--norc", "--noprofile", "-i"], variables)
        os.set_blocking(self._terminal, False)
        self.wait_for("ready> ")
        self.type('bind "set bell-style none"; eval "$(halvoctl completion bash)"; echo l"oaded"\n')
        self.wait_for("loaded")

    def type(self, text):
        os.write(self._terminal, text.encode())

    def _read(self):
        try:
            self.output += os.read(self._terminal, 65536)
        except BlockingIOError:
            return

    def wait_for(self, text):
        def is_there():
            self._read()
            return text.encode() in self.output

        wait_until(is_there, 20, lambda: f"{text!r} in {self.output!r}")

    def complete(self, start, wanted):
        """Types the start and the key that completes, and waits for what must be there then."""
        self.output = b""
        self.type("\x15" + start + "\t")
        self.wait_for(wanted)

    def close(self):
        os.kill(self.process, signal.SIGKILL)
        os.waitpid(self.process, 0)
        os.close(self._terminal)


def completed(line, **variables):
    """What the tool prints for a line; it must be silent otherwise."""
    run = subprocess.run(command("__complete", line), capture_output=True, text=True, check=True,
                         timeout=20, env=environment(**variables))
    assert run.stderr == ""
    return run.stdout


@pytest.fixture
def shell(service, tmp_path):
    running = Shell(service, tmp_path)
    yield running
    running.close()


def test_bash_completes_commands_options_and_live_names(shell, client):
    client.create("tuner-1", "Lock", "input/3")
    shell.complete("halvoctl disc", "halvoctl discover ")
    shell.complete("halvoctl conf rollb", "halvoctl conf rollback ")
    shell.complete("halvoctl conf import x --disc", "--discard-unsaved ")
    shell.complete("halvoctl call getCurr", "halvoctl call getCurrentState ")
    shell.complete("halvoctl log set ConfObs", "halvoctl log set ConfObstreeHandler ")
    shell.complete("halvoctl log set ConfObstreeHandler tra", "trace ")
    shell.complete("halvoctl state ok tun", "halvoctl state ok tuner-1/Lock/input/3 ")
    shell.complete("halvoctl watch /state/notifications/latest/tu",
                   "halvoctl watch /state/notifications/latest/tuner-1/")


def test_bash_completes_saved_keys_component_by_component(shell, client):
    Slice(client).update({"/in/3/freq": "474000", "/in/3/name": "x"})
    save(client)
    shell.complete("halvoctl conf get /sys/conf/mb/0/tuner/i", "/sys/conf/mb/0/tuner/in/")
    shell.complete("halvoctl conf get /sys/conf/mb/0/tuner/in/3/f", "/in/3/freq ")
    shell.complete("halvoctl conf owner /sys/conf/mb/0/tuner/in/3/n", "/in/3/name ")


@pytest.mark.parametrize("words", ["conf export", "conf import", "conf ls", "conf get /a", "conf diff",
                                   "conf diff x.hpk", "conf lint", "conf verify", "support", "replay",
                                   "conf status --log", "doctor --program", "log tail"])
def test_bash_completes_files_where_one_is_wanted(shell, tmp_path, words):
    (tmp_path / "a-package.hpk").touch()
    shell.complete(f"halvoctl {words} a-pack", f"halvoctl {words} a-package.hpk ")


def test_a_silent_service_is_not_waited_for(service):
    line = f"halvoctl -e {service.address} call "
    assert "getCurrentState\n" in completed(line)
    service.signal(signal.SIGSTOP)
    start = time.monotonic()
    assert completed(line) == ""
    seconds = time.monotonic() - start
    service.signal(signal.SIGCONT)
    assert seconds < 3  # a machine that does nothing else takes 0.35


def test_the_scripts_are_correct(ctl, tmp_path):
    for name in ("bash", "zsh"):
        script = tmp_path / name
        script.write_text(ctl.ok("completion", name).out)
        if shutil.which(name):
            assert os.system(f"{name} -n {script}") == 0
    assert (tmp_path / "zsh").read_text().startswith("#compdef halvoctl\n")


def test_what_others_have_named_is_completed_only_if_no_shell_reads_more_in_it(ctl, client):
    sources = ["$(touch x)", "`x`", "a b", "~", "a;b", "a'b", 'a"b', "a\\b", "a>b", "[a]", "{a}"]
    for source in [*sources, "in/3.a_b@c%d+e,f=g:h-i"]:
        client.create("x", "T", source)
    assert completed(f"halvoctl -e {ctl.endpoint} state ok x/") == (
        "x/T/in/3.a_b@c%d+e,f=g:h-i\n")
    loggers = completed(f"halvoctl -e {ctl.endpoint} log set ").splitlines()
    assert "ConfObstreeHandler" in loggers
    assert not [name for name in loggers if "(" in name]


def test_pending_changes_are_completed(service, tmp_path):
    ctl = Ctl(service.address, XDG_STATE_HOME=str(tmp_path))
    number = ctl.ok("conf", "guard", "--timeout", "1h", "-o", "json").json["id"]
    assert completed("halvoctl conf confirm ", XDG_STATE_HOME=str(tmp_path)) == number + "\n"
    ctl.ok("conf", "confirm", number)
