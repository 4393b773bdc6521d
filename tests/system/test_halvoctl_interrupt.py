"""Ctrl-C while the operator's tool waits for its user."""
import os
import pty

import pytest
from kit.configuration import Slice
from kit.ctl import command, environment
from kit.wait import wait_until


class Terminal:
    """The tool on a terminal of its own."""

    def __init__(self, service, *words):
        self.output = b""
        self.process, self._terminal = pty.fork()
        if self.process == 0:
            os.execve(command()[0], command("-e", service.address, *words), environment())

    def wait_for(self, text):
        def is_there():
            self.output += os.read(self._terminal, 65536)
            return text.encode() in self.output

        wait_until(is_there, 20, lambda: f"{text!r} in {self.output!r}")

    def ctrl_c(self):
        """Returns the exit status."""
        os.write(self._terminal, b"\x03")
        _, status = os.waitpid(self.process, 0)
        return os.waitstatus_to_exitcode(status)

    def close(self):
        os.close(self._terminal)


@pytest.fixture
def terminal(service):
    running = []

    def run(*words):
        running.append(Terminal(service, *words))
        return running[-1]

    yield run
    for each in running:
        each.close()


def is_reading(process):
    """Whether a thread of it waits for what is typed."""
    tasks = f"/proc/{process}/task"
    for task in os.listdir(tasks):
        with open(f"{tasks}/{task}/wchan", encoding="utf-8") as place:
            if "poll" in place.read():
                return True
    return False


def test_at_a_question(terminal, client):
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    asked = terminal("conf", "clear")
    asked.wait_for("? [y/N] ")
    assert asked.ctrl_c() == 130
    assert tuner.content() == {"/a": "1"}


@pytest.mark.parametrize("words", [("conf", "import", "-"), ("call", "updateSysConf", "-d", "-"),
                                   ("conf", "lint", "-")], ids=range(3))
def test_where_it_reads_its_input(terminal, client, words):
    running = terminal(*words)
    wait_until(lambda: is_reading(running.process), what="a tool that reads")
    assert running.ctrl_c() == 130
    assert client.current_state() == "OK"
