"""The operator's tool shows and reports states, and sets log levels."""
import json
import os
import pty
import re
import subprocess
import time

import pytest
from kit.configuration import Slice
from kit.ctl import Ctl, command, environment
from kit.wait import wait_until

HEADING = "SEVERITY  AGE  SERVICE  TYPE  SOURCE  TEXT"


def words(line):
    return re.split(r"  +", line)


def test_the_state_shows_what_decides_it(ctl, client, service):
    assert ctl.ok("state").out == f"OK     {service.address}\n"
    client.create("tuner-1", "Cap_Tuner_Lock", "input/3", "WARN", msg="lock lost",
                  seconds=int(time.time()) - 130)
    client.create("fine", "T", "s")
    Slice(client).update({"/a": "1"})
    result = ctl.ok("state")
    lines = [words(line) for line in result.lines]
    assert lines[0] == ["WARN", f" {service.service_id} at {service.address}".strip()]
    assert lines[1:] == [
        ["SEVERITY", "AGE", "SERVICE", "TYPE", "SOURCE", "TEXT"],
        ["WARN", "2m", "tuner-1", "Cap_Tuner_Lock", "input/3", "lock lost"],
        ["WARN", lines[3][1], service.service_id, "Cap_Configuration_SysConfPersisted",
         "sys/conf/update", "Sysconf cap update"]]
    client.create("tuner-1", "Cap_Tuner_Lock", "input/3", "ERROR", msg="\x1b[31m\n")
    lines = ctl.ok("state").lines
    assert lines[0].startswith("ERROR  ") and len(lines) == 3
    assert words(lines[2]) == ["ERROR", "-", "tuner-1", "Cap_Tuner_Lock", "input/3",
                               "\\x1b[31m\\n"]


def test_the_state_as_json(ctl, client, service):
    client.create("a", "T", "s", "ERROR")
    state = ctl.ok("state", "-o", "json").json
    assert (state["endpoint"], state["service_id"], state["current_state"]) == (
        service.address, "", "ERROR")
    assert [entry["stateNotification"]["service_id"] for entry in state["deciding"]] == ["a"]


def test_a_severity_may_be_an_exit_status(ctl, client):
    assert ctl("state", "--fail-on", "warn").status == 0
    client.create("a", "T", "s", "WARN")
    result = ctl("state", "--fail-on", "warn")
    assert result.status == 4 and result.out.startswith("WARN ") and not result.err
    assert ctl("state", "--fail-on", "error").status == 0
    assert ctl("state", "--fail-on", "OK").status == 4


def test_several_endpoints_have_a_state_each(start):
    one, other = start(), start()
    other.client().create("a", "T", "s", "ERROR")
    ctl = Ctl(one.address)
    assert [line.split()[0] for line in ctl.ok("state", "-e", other.address).lines] == [
        "OK", "ERROR", "SEVERITY", "ERROR"]
    result = ctl("state", "-e", "localhost:1", "-e", other.address, "--fail-on", "error")
    assert result.status == 2 and "localhost:1: UNAVAILABLE" in result.err
    assert len(result.lines) == 4
    assert Ctl("localhost:1")("state").status == 2


def test_reports_are_listed_oldest_first_and_filtered(ctl, client):
    now = int(time.time())
    client.create("a", "Type_One", "s", "OK", msg="0", seconds=now - 1000)
    client.create("b", "Type_Two", "s", "WARN", msg="1", seconds=now - 100)
    client.create("a", "Type_Two", "s", "ERROR", msg="2", seconds=now - 10)

    def texts(*filters):
        lines = ctl.ok("state", "list", "-o", "jsonl", *filters).lines
        return "".join(json.loads(line)["stateNotification"]["msg"] for line in lines)

    assert texts() == "012"
    assert texts("--severity", "warn") == "12"
    assert texts("--type", "_Two$") == "12"
    assert texts("--service", "a") == "02"
    assert texts("--last", "2") == "12"
    assert texts("--last", "1", "--service", "b") == "1"
    assert texts("--since", "2m") == "12"
    assert texts("--since", "2m", "--last", "1") == "2"
    assert texts("--service", "none") == ""
    table = ctl.ok("state", "list", "--last", "1").lines
    assert [words(line) for line in table] == [
        words(HEADING), ["ERROR", words(table[1])[1], "a", "Type_Two", "s", "2"]]
    assert len(ctl.ok("state", "list", "-o", "json").json["reports"]) == 3


def test_a_report_is_stored_with_the_time_of_now(ctl, client):
    before = time.time()
    assert ctl.ok("state", "report", "svc/Type/deep/source", "error", "grüße",
                  "--info", "more").out == ""
    stored = client.notifications()[0].stateNotification
    assert (stored.service_id, stored.type, stored.source, stored.severity, stored.msg,
            stored.extendedInfo) == ("svc", "Type", "deep/source", 2, "grüße", "more")
    assert before - 1 <= stored.timeStamp.seconds <= time.time()
    assert ctl.ok("state", "ok", "svc/Type/deep/source").out == ""
    assert client.current_state() == "OK"


@pytest.mark.parametrize("arguments", [
    ("report", "svc/Type", "warn"), ("report", "svc//s", "warn"), ("report", "/T/s", "warn"),
    ("report", "svc/T/s*", "warn"), ("report", "svc/T/.x./y", "warn"),
    ("report", "svc/T/s/", "warn"), ("report", "svc/T/s", "bad"), ("ok", "svc/T/unknown"),
    ("list", "--type", "a" * 1001), ("list", "--last", "0"), ("list", "--since", "x"),
    ("list", "--severity", "x")], ids=range(12))
def test_a_refused_input_is_not_sent(ctl, client, service, arguments):
    result = ctl("state", *arguments)
    assert result.status == 1 and not result.out and result.err, result
    service.assert_alive()
    assert client.notifications() == []


def test_a_type_filter_that_is_no_expression_is_refused_by_the_service(ctl, client):
    client.create()
    result = ctl("state", "list", "--type", "(")
    assert result.status == 3 and result.err.startswith("halvoctl: FAILED_PRECONDITION: ")


def shown_on_terminal(service, **variables):
    """What a terminal gets of the state."""
    ours, theirs = pty.openpty()
    subprocess.run(command("-e", service.address, "state"), stdout=theirs, timeout=20, check=True,
                   env=environment(**variables))
    shown = os.read(ours, 65536).decode()
    os.close(ours)
    os.close(theirs)
    return shown


def test_colours_are_for_terminals_and_on_demand(ctl, client, service):
    client.create("a", "T", "s", "ERROR")
    assert "\x1b[31mERROR\x1b[0m" in shown_on_terminal(service)
    assert "\x1b[31mERROR\x1b[0m" in shown_on_terminal(service, NO_COLOR="")
    assert "\x1b" not in shown_on_terminal(service, NO_COLOR="1")
    assert "\x1b[31mERROR\x1b[0m" in ctl.ok("state", "--color", "always", NO_COLOR="1").out
    assert "\x1b" not in ctl.ok("state").out
    assert "\x1b" not in ctl.ok("state", "--color", "never").out


def test_loggers_are_listed_and_set_by_pattern(ctl, client):
    table = [words(line) for line in ctl.ok("log", "ls").lines]
    assert table[0] == ["LEVEL", "LOGGER"] and ["info", "ConfObstreeHandler"] in table
    assert ctl.ok("log", "ls", "Conf*").lines == ["LEVEL  LOGGER", "info   ConfObstreeHandler"]
    assert ctl.ok("log", "set", "ConfObstree*", "trace").lines == [
        "ConfObstreeHandler: info -> trace"]
    assert ctl.ok("log", "set", "ConfObstree*", "trace").out == ""
    name = "conf_obstree_handler.h::Hox::Capability::Configuration::ConfObstreeHandler"
    assert ctl.ok("log", "ls", name, "-o", "json").json == {
        "logger": [{"name": name, "level": "trace"}]}
    changes = ctl.ok("log", "set", "*", "warn", "-o", "json").json["loggers"]
    assert {change["current"] for change in changes} == {"warn"}
    assert {"trace", "info"} == {change["previous"] for change in changes}
    assert {line.split()[0] for line in ctl.ok("log", "ls").lines[1:]} == {"warn"}


def test_the_end_of_a_log_is_printed_and_followed(start, tmp_path):
    service = start(log_to_file=True)
    ctl = Ctl(service.address)
    wait_until(lambda: " is ready, " in service.log, what="the last record of the start")
    lines = service.log.splitlines()
    assert ctl.ok("log", "tail", "-n", "2", service.log_file).lines == [
        line.replace("\t", "\\t") for line in lines[-2:]]
    tail = ctl.start("log", "tail", "-f", "-n", "0", service.log_file)
    (tmp_path / "package").write_text("none")

    def refused_import():
        assert ctl("conf", "import", tmp_path / "package").status == 3
        return list(tail.out)

    # Until it is there: nothing says when it has begun.
    wait_until(refused_import, what="a line of the log")
    assert tail.interrupt() == 130
    assert set(tail.out) <= {line.replace("\t", "\\t") for line in service.log.splitlines()}
    assert ctl("log", "tail", tmp_path / "none").err == (
        f"halvoctl: cannot read the log {tmp_path}/none\n")


def test_a_log_that_never_rests_can_be_left(service, tmp_path):
    busy = tmp_path / "busy.log"
    busy.touch()
    with subprocess.Popen(["sh", "-c", 'while :; do echo line; done >"$0"', str(busy)]) as writer:
        tail = Ctl(service.address).start("log", "tail", "-f", busy)
        tail.out.wait_for("line", times=1000)
        status = tail.interrupt()
        writer.kill()
    assert status == 130


def test_the_time_of_one_run(ctl):
    start = time.monotonic()
    ctl.ok("state")
    print(f"halvoctl state took {(time.monotonic() - start) * 1000:.0f} ms")


@pytest.mark.parametrize("arguments", [("ls", "None*"), ("set", "None*", "info"),
                                       ("set", "*", "loud"), ()], ids=range(4))
def test_unknown_loggers_and_levels_are_usage_errors(ctl, arguments):
    result = ctl("log", *arguments)
    assert result.status == 1 and not result.out and result.err
