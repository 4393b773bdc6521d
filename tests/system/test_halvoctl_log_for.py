"""The operator's tool sets log levels for some time."""
import os
import re
import signal
import subprocess

import pytest
from kit.ctl import Ctl, command, environment
from kit.timed_changes import LONG, Records
from kit.wait import wait_until

NAME = "ConfObstreeHandler"
BACK = re.compile(NAME + r": info -> trace, back at (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d\n")


class Levels(Records):
    """The tool with records of its own."""

    def set(self, level, *words):
        return self.ctl.ok("log", "set", "ConfObstree*", level, *words)

    def level(self):
        return self.ctl.ok("log", "ls", "ConfObstree*").lines[1].split()[0]

    def wait_for(self, level):
        wait_until(lambda: self.level() == level, 20, level)


@pytest.fixture
def levels(service, tmp_path):
    running = Levels(service.address, tmp_path / "state")
    yield running
    running.close()


def test_a_level_comes_back(levels):
    assert BACK.fullmatch(levels.set("trace", "--for", "1s").out)
    levels.wait_for("info")
    wait_until(lambda: not levels.contents(), what="the end of the record")


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGHUP])
def test_a_level_comes_back_although_the_tool_was_ended(levels, number):
    """Before it sets the level, so that only the record tells of it, or after that."""
    with subprocess.Popen(
            ["strace", "-qq", "-o", "/dev/null", "-e", "trace=rename",
             "-e", "inject=rename:delay_exit=200000", *command(
                 "-e", levels.ctl.endpoint, "log", "set", "ConfObstree*", "trace", "--for", LONG)],
            env=environment(XDG_STATE_HOME=str(levels.state)), stdout=subprocess.DEVNULL,
            start_new_session=True) as tool:
        wait_until(levels.ids, what="the record")
        os.killpg(tool.pid, number)
        tool.wait(10)
    assert levels.level() == ("info" if number == signal.SIGKILL else "trace")
    if number == signal.SIGHUP:
        assert len(levels.timers()) == 1
    change, = levels.ids()
    assert levels.expire(change).status == 0
    assert levels.level() == "info"


def test_a_level_that_somebody_else_has_set_stays(levels):
    levels.set("trace", "--for", LONG)
    other = Ctl(levels.ctl.endpoint, XDG_STATE_HOME=str(levels.state / "other"))
    other.ok("log", "set", "ConfObstree*", "warn")
    change, = levels.ids()
    assert levels.expire(change).status == 0
    assert levels.level() == "warn" and levels.ids() == []


def test_a_second_time_replaces_the_first(levels):
    levels.set("trace", "--for", "1h")
    assert BACK.fullmatch(levels.set("trace", "--for", "2h").out)
    assert [[(logger["previous"], logger["current"]) for logger in content["loggers"]]
            for content in levels.contents()] == [[("info", "trace")]]
    assert levels.set("debug").out == NAME + ": trace -> debug\n"
    assert levels.contents() == []


def test_the_level_of_before_comes_back_by_hand(levels):
    levels.set("trace", "--for", "1h")
    number, = [path.name for path in levels.folder.iterdir()]
    assert re.search(number + " +log +waiting ", levels.ctl.ok("conf", "pending").out)
    assert levels.ctl.ok("conf", "rollback", number).out == ""
    assert levels.level() == "info" and levels.contents() == []


def test_json_of_a_level_for_some_time(levels):
    change, = levels.set("trace", "--for", "1h", "-o", "json").json["loggers"]
    assert (change["previous"], change["current"]) == ("info", "trace")
    assert re.match(r"\d{4}-\d\d-\d\dT", change["back_at"])


@pytest.mark.parametrize("words", [("x*", "trace", "--for", "1m"), ("*", "trace", "--for", "0"),
                                   ("*", "trace", "--for", "x"), ("*", "loud", "--for", "1m")],
                         ids=range(4))
def test_a_refused_time_or_level_changes_nothing(levels, words):
    assert levels.ctl("log", "set", *words).status == 1
    assert levels.level() == "info" and not levels.folder.exists()
