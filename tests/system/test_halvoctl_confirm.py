"""The operator's tool changes the configuration for some time: it reverts unless it is confirmed."""
import json
import os
import pty
import re
import signal
import subprocess
import time

import pytest
from kit.configuration import Slice, save
from kit.ctl import command, environment
from kit.node import Node
from kit.paths import program
from kit.timed_changes import LONG, NEW, OLD, PROMISE, SHORT, Site
from kit.wait import wait_until


@pytest.fixture
def site(service, tmp_path):
    running = Site(service, tmp_path)
    yield running
    running.close()


def test_a_confirmed_import_stays(site):
    before = time.time()
    result = site.ctl.ok("conf", "import", site.package, "--confirm", "1m")
    clock, number = PROMISE.match(result.out).groups()
    assert clock in [time.strftime("%H:%M:%S", time.localtime(before + 60 + late))
                     for late in range(3)]
    assert site.content() == NEW
    assert site.ids() == [number]
    assert site.ctl.ok("conf", "confirm", number).out == ""
    assert site.ids() == [] and not (site.folder / number).exists()
    wait_until(lambda: not site.timers(), what="the end of the timer")
    assert site.content() == NEW and site.complaint() is None


def test_an_import_that_nobody_confirms_is_rolled_back(site):
    number = site.change(SHORT)
    site.wait_for_end(number)
    assert site.content() == OLD
    assert site.ctl.ok("conf", "status").status == 0
    assert site.complaint() is None and site.client.current_state() == "OK"
    late = site.ctl("conf", "confirm", number)
    assert (late.status, late.err) == (
        1, f'halvoctl: no change "{number}" is pending\n'
           "hint: halvoctl conf pending lists all\n")


def test_an_import_that_was_changed_and_saved_meanwhile_is_kept(site):
    number = site.change()
    later = Slice(site.client, "other")
    later.update({"/a": "1"})
    save(site.client)
    assert site.expire(number).status == 4
    report = site.complaint()
    assert (report.severity, report.msg) == (
        2, f"The import {number} is not rolled back: the saved configuration has been changed "
           "since")
    assert report.extendedInfo == (f"halvoctl conf confirm {number} keeps what is there, "
                                   f"halvoctl conf rollback {number} reverts it")
    assert site.content() == NEW and later.content() == {"/a": "1"} and site.ids() == [number]
    refused = site.ctl("conf", "rollback")
    assert (refused.status, refused.err) == (
        1, f"halvoctl: import {number}: the saved configuration has been changed since\n"
           "halvoctl: not sent: there is no terminal to ask at\n"
           "hint: --yes does it without asking\n")
    assert site.ctl("conf", "rollback", "--yes").status == 0
    assert site.content() == OLD and later.content() == {} and site.ids() == []
    assert site.client.current_state() == "OK"


def test_unsaved_changes_of_meanwhile_are_kept(site):
    number = site.change()
    other = Slice(site.client, "other")
    other.update({"/a": "1"})
    assert site.expire(number).status == 4
    report = site.complaint()
    assert report.msg == f"The import {number} is not rolled back: there are unsaved changes"
    assert site.content() == NEW and other.content() == {"/a": "1"} and site.ids() == [number]
    assert [change["state"] for change in site.pending()] == ["EXPIRED"]
    assert site.ctl.ok("conf", "confirm").out == ""
    assert site.ids() == [] and site.complaint().severity == 0


def test_new_state_ids_alone_are_no_change(site):
    number = site.change()
    Slice(site.client).learn().update(NEW)
    save(site.client)
    assert site.expire(number).status == 0
    assert site.content() == OLD and site.complaint() is None


def test_unsaved_changes_are_not_lost_by_an_import(site):
    site.tuner.update({"/unsaved": "1"})
    refused = site.ctl("conf", "import", site.package, "--confirm", LONG)
    assert (refused.status, refused.err) == (
        4, f"halvoctl: not sent: unsaved changes of {site.service.service_id} would be lost\n"
           "hint: halvoctl conf save keeps them, --discard-unsaved loses them for good\n")
    assert site.content() == {**OLD, "/unsaved": "1"} and not site.folder.exists()
    number = site.change(LONG, "--discard-unsaved")
    assert site.content() == NEW
    assert site.ctl.ok("conf", "rollback", number).out == ""
    assert site.content() == OLD


def test_the_pending_changes_are_listed(site):
    assert site.ctl.ok("conf", "pending").out == "nothing is pending\n"
    assert site.pending() == []
    number = site.change()
    table = site.ctl.ok("conf", "pending").lines
    assert re.split("  +", table[0]) == ["ID", "CHANGE", "STATE", "REVERTS AT", "ENDPOINT"]
    assert re.fullmatch(number + r"  import  waiting  (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d *  " +
                        site.service.address, table[1])
    change, = site.pending()
    assert (change["id"], change["kind"], change["endpoint"], change["state"]) == (
        number, "IMPORT", site.service.address, "WAITING")


def test_several_changes_need_an_id(site):
    first, second = site.change(), site.change()
    refused = site.ctl("conf", "confirm")
    assert refused.status == 1 and first in refused.err and second in refused.err
    assert site.ctl.ok("conf", "confirm", first).status == 0
    assert site.ids() == [second]


def test_the_loss_of_the_terminal_does_not_stop_the_timer(site):
    child, terminal = pty.fork()
    if child == 0:
        os.execve(command()[0], command("-e", site.service.address, "conf", "import", site.package,
                                        "--confirm", LONG),
                  environment(XDG_STATE_HOME=str(site.state)))
    assert b"Reverts at" in os.read(terminal, 1000)
    os.close(terminal)
    os.waitpid(child, 0)
    number, = site.ids()
    assert len(site.timers()) == 1
    assert site.expire(number).status == 0
    assert site.content() == OLD


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTSTP])
def test_neither_hangup_nor_ctrl_z_stops_the_import(site, number):
    with subprocess.Popen(
            ["strace", "-qq", "-o", "/dev/null", "-e", "trace=rename,renameat",
             "-e", "inject=rename:delay_exit=200000", *command(
                 "-e", site.service.address, "conf", "import", site.package, "--confirm", LONG)],
            stdout=subprocess.PIPE, text=True, env=environment(XDG_STATE_HOME=str(site.state)),
            start_new_session=True) as run:
        wait_until(lambda: list(site.folder.glob("*/old.hpk")), what="the begin of a record")
        os.killpg(run.pid, number)
        assert PROMISE.match(run.communicate(timeout=20)[0])
    assert site.content() == NEW and len(site.timers()) == 1


def test_after_a_loss_of_power_the_record_is_there(site):
    number = site.change()
    site.kill_timers()
    assert [change["state"] for change in site.pending()] == ["EXPIRED"]
    assert site.ctl("conf", "pending").status == 4
    assert site.ctl.ok("conf", "rollback", number).out == ""
    assert site.content() == OLD and site.pending() == []


def test_a_killed_tool_leaves_a_complete_record_or_none(site):
    """At each of its renames, which are the steps of the record and of what follows."""
    for step in range(1, 6):
        subprocess.run(
            ["strace", "-qq", "-o", "/dev/null", "-e", "trace=rename",
             "-e", f"inject=rename:signal=KILL:when={step}", *command(
                 "-e", site.service.address, "conf", "import", site.package, "--confirm", LONG)],
            stdout=subprocess.DEVNULL, env=environment(XDG_STATE_HOME=str(site.state)), check=False)
        assert site.content() == (NEW if step > 3 else OLD)
        for number in site.ids():
            assert {path.name for path in (site.folder / number).iterdir()} >= {
                "old.hpk", "new.hpk", "record.json"}
            assert site.ctl.ok("conf", "rollback", number).out == ""
        assert site.content() == OLD
    assert site.ctl.ok("conf", "rollback", site.change()).out == ""
    assert list(site.folder.iterdir()) == []


def test_the_record_is_on_the_disk_before_the_package_is_sent(site, tmp_path):
    trace = tmp_path / "trace"
    subprocess.run(
        ["strace", "-y", "-s", "3000", "-o", trace, "-e",
         "trace=fsync,rename,mkdir,sendmsg,clone3,vfork", *command(
             "-e", site.service.address, "conf", "import", site.package, "--confirm", LONG)],
        check=True, stdout=subprocess.DEVNULL, env=environment(XDG_STATE_HOME=str(site.state)))
    lines = trace.read_text().splitlines()
    sent = next(number for number, line in enumerate(lines) if "updateSysConf" in line)
    before = [line for line in lines[:sent] if str(site.folder) in line]
    folder = str(site.folder / site.ids()[0])

    def place(pattern):
        return next(number for number, line in enumerate(before) if re.search(pattern, line))

    assert place(r"mkdir.*" + folder) < place(r"fsync\(\d+<" + str(site.folder) + ">")
    for name in ("old.hpk", "new.hpk", "record.json"):
        path = re.escape(f"{folder}/{name}")
        renamed = place(rf'rename\("{path}\.part", "{path}"\)')
        assert place(rf"fsync\(\d+<{path}\.part>") < renamed
        assert any(re.search(rf"fsync\(\d+<{folder}>", line) for line in before[renamed:])


def test_a_refused_package_leaves_no_record(site, tmp_path):
    bad = tmp_path / "bad"
    bad.write_bytes(b"no package")
    result = site.ctl("conf", "import", bad, "--confirm", LONG)
    assert result.status == 3 and "Unable to unpack" in result.err
    assert list(site.folder.iterdir()) == []
    wait_until(lambda: not site.timers(), what="the end of the timer")
    assert site.content() == OLD


def test_without_an_answer_the_timer_goes_on(site):
    """The service is stopped as soon as the record is there, before or after it gets the package."""
    with subprocess.Popen(
            command("-e", site.service.address, "--timeout", "1s", "conf", "import", site.package,
                    "--confirm", LONG), stderr=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env=environment(XDG_STATE_HOME=str(site.state))) as run:
        wait_until(site.ids, what="the record")
        site.service.signal(signal.SIGSTOP)
        out, err = run.communicate(timeout=20)
    number, = site.ids()
    assert out or (run.returncode == 2 and "it may have been imported. Reverts at " in err)
    assert len(site.timers()) == 1
    site.service.signal(signal.SIGCONT)
    assert site.expire(number).status == 0
    assert site.content() == OLD


def test_a_service_that_is_away_is_rolled_back_when_it_is_back(site, start):
    number = site.change()
    site.service.signal(signal.SIGKILL)
    site.service.wait_end()
    site.make_late(number)
    assert [change["state"] for change in site.pending()] == ["REVERTING"]
    site.ctl.start("conf", "rollback", number, "--auto")
    back = start("--configdir", str(site.service.folder / "config"), port=site.service.port)
    site.wait_for_end(number)
    assert Slice(back.client()).content() == OLD


def test_a_service_that_stays_away_leaves_the_record(site):
    number = site.change()
    site.service.signal(signal.SIGKILL)
    site.service.wait_end()
    result = site.ctl("conf", "rollback", number, "--auto", "--retry", "1s")
    assert result.status == 2 and site.ids() == [number]


def test_a_guard_discards_what_nobody_confirms(site):
    result = site.ctl.ok("conf", "guard", "--timeout", LONG)
    number = re.fullmatch(r"Unsaved changes are discarded at (?:\S+ )?\d\d:\d\d:\d\d unless you run: "
                          r"halvoctl conf confirm ([0-9a-f]{4})\n", result.out)[1]
    site.tuner.update({"/late": "x"})
    assert site.expire(number).status == 0
    assert site.content() == OLD and site.ctl("conf", "status").status == 0


def test_a_guard_that_is_confirmed_or_saved_under_keeps_the_changes(site):
    number = site.ctl.ok("conf", "guard", "--timeout", LONG, "-o", "json").json["id"]
    site.tuner.update({"/late": "x"})
    refused = site.ctl("conf", "guard", "--timeout", LONG)
    assert refused.status == 4 and "unsaved changes" in refused.err
    assert site.ctl.ok("conf", "confirm", number).out == ""
    assert site.content() == {**OLD, "/late": "x"}
    save(site.client)
    number = site.ctl.ok("conf", "guard", "--timeout", LONG, "-o", "json").json["id"]
    site.tuner.update({"/later": "x"})
    save(site.client)
    assert site.expire(number).status == 4
    assert site.complaint().msg == (
        f"The guard {number} is not rolled back: the saved configuration has been changed since")
    assert site.content() == {**OLD, "/late": "x", "/later": "x"}


def test_json_of_a_change(site):
    out = site.ctl.ok("conf", "import", site.package, "--confirm", LONG, "-o", "json").json
    assert (out["keys"], out["slices"], site.ids()) == (4, 1, [out["id"]])
    assert re.match(r"\d{4}-\d\d-\d\dT", out["reverts_at"])


@pytest.mark.parametrize("words", [
    ("import", "{package}", "--confirm", "0"), ("import", "{package}", "--confirm", "soon"),
    ("import", "{package}", "--discard-unsaved"), ("import", "none", "--confirm", "1m"),
    ("guard",), ("guard", "--timeout", "0s"), ("confirm",), ("confirm", "../x"), ("confirm", "12g4"),
    ("rollback",), ("rollback", "1234"), ("rollback", "--auto")], ids=range(12))
def test_a_refused_input_changes_nothing(site, words):
    result = site.ctl("conf", *[word.format(package=site.package) for word in words])
    assert result.status == 1 and not result.out and result.err, result
    assert site.content() == OLD and not site.folder.exists()


@pytest.mark.parametrize("words", [("import", "{package}", "--confirm", LONG), ("pending",)])
def test_records_are_not_below_the_working_folder(site, words):
    result = site.ctl("conf", *[word.format(package=site.package) for word in words],
                      XDG_STATE_HOME="state")
    assert (result.status, result.err) == (1, "halvoctl: XDG_STATE_HOME is no absolute path\n")
    assert site.content() == OLD


def test_records_need_a_place(site):
    result = site.ctl("conf", "import", site.package, "--confirm", LONG,
                      XDG_STATE_HOME="/proc/none")
    assert result.status == 1 and result.err.startswith("halvoctl: cannot write /proc/none")
    assert site.content() == OLD


def test_systemd_keeps_the_timer(protos, tmp_path):
    node = Node(tmp_path, protos, "node")
    try:
        node.continue_boot()
        node.wait_until_active()
        site = NodeSite(node, tmp_path)
        number = site.change("1h")
        assert "halvo-confirm-" + number in node.run("systemctl", "list-timers", "--no-legend")
        assert [change["state"] for change in site.pending()] == ["WAITING"]
        assert site.run("conf", "confirm", number) == ""
        assert "halvo-confirm" not in node.run("systemctl", "list-timers", "--no-legend")
        assert Slice(node.client).content() == NEW
        site.prepare()
        number = site.change("1s")
        wait_until(lambda: not site.pending(), 20, "the rollback")
        assert Slice(node.client).content() == OLD
        assert "halvo-confirm" not in node.run("systemctl", "list-units", "--failed")
    finally:
        node.close()


class NodeSite:
    """The tool on a machine whose service has OLD, and a package with NEW."""

    def __init__(self, node, folder):
        self.node = node
        self.package = folder / "new.hpk"
        self.tuner = Slice(node.client)
        self.tuner.update(NEW, patch=False)
        save(node.client)
        assert self.run("conf", "export", self.package) == ""
        self.prepare()

    def prepare(self):
        self.tuner.learn().update(OLD, patch=False)
        save(self.node.client)

    def run(self, *words):
        """What it says; nothing on success."""
        return self.node.run(str(program().parent / "halvoctl"), "-e", self.node.url,
                             *map(str, words))

    def pending(self):
        return json.loads(self.run("conf", "pending", "-o", "json"))["changes"]

    def change(self, time_limit):
        return PROMISE.match(self.run("conf", "import", self.package, "--confirm", time_limit))[2]
