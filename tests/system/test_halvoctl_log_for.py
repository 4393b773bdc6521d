"""The operator's tool sets log levels for some time."""
import json
import os
import re
import signal
import subprocess

import pytest
from kit.ctl import Ctl, command, environment
from kit.wait import wait_until

NAME = "ConfObstreeHandler"
BACK = re.compile(NAME + r": info -> trace, back at (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d\n")


class Levels:
    """The tool with records of its own."""

    def __init__(self, service, state):
        self.state = state
        self.records = state / "halvo/confirm"
        self.ctl = Ctl(service.address, XDG_STATE_HOME=str(state))

    def set(self, level, *words):
        return self.ctl.ok("log", "set", "ConfObstree*", level, *words)

    def level(self):
        return self.ctl.ok("log", "ls", "ConfObstree*").lines[1].split()[0]

    def wait_for(self, level):
        wait_until(lambda: self.level() == level, 20, level)

    def contents(self):
        return [json.loads(path.read_text()) for path in self.records.glob("*/record.json")]

    def close(self):
        for path in self.records.glob("*/record.json"):
            path.unlink()  # its timer ends


@pytest.fixture
def levels(service, tmp_path):
    running = Levels(service, tmp_path / "state")
    yield running
    running.close()


def test_a_level_comes_back(levels):
    assert BACK.fullmatch(levels.set("trace", "--for", "1s").out)
    levels.wait_for("info")
    wait_until(lambda: not levels.contents(), what="the end of the record")


def test_a_level_comes_back_although_the_tool_was_killed(levels):
    tool = subprocess.Popen(
        command("-e", levels.ctl.endpoint, "log", "set", "ConfObstree*", "trace", "--for", "2s"),
        env=environment(XDG_STATE_HOME=str(levels.state)), stdout=subprocess.DEVNULL)
    levels.wait_for("trace")
    os.kill(tool.pid, signal.SIGKILL)
    tool.wait(10)
    levels.wait_for("info")


def test_a_level_that_somebody_else_has_set_stays(levels):
    levels.set("trace", "--for", "2s")
    other = Ctl(levels.ctl.endpoint, XDG_STATE_HOME=str(levels.state / "other"))
    other.ok("log", "set", "ConfObstree*", "warn")
    wait_until(lambda: not levels.contents(), 20, "the end of the record")
    assert levels.level() == "warn"


def test_a_second_time_replaces_the_first(levels):
    levels.set("trace", "--for", "1h")
    assert BACK.fullmatch(levels.set("trace", "--for", "2h").out)
    assert [[(logger["previous"], logger["current"]) for logger in content["loggers"]]
            for content in levels.contents()] == [[("info", "trace")]]
    assert levels.set("debug").out == NAME + ": trace -> debug\n"
    assert levels.contents() == []


def test_the_level_of_before_comes_back_by_hand(levels):
    levels.set("trace", "--for", "1h")
    number, = [path.name for path in levels.records.iterdir()]
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
    assert levels.level() == "info" and not levels.records.exists()
