"""A change for some time that meets a broken connection, another operator, or another process."""
import fcntl
import os
import pathlib
import signal
import subprocess
import tempfile

import pytest
from kit.configuration import Slice, save
from kit.ctl import command, environment
from kit.faults import Strace
from kit.interposer import Interposer
from kit.timed_changes import LONG, NEW, OLD, PROMISE, Site


@pytest.fixture
def site(service, tmp_path):
    running = Site(service, tmp_path)
    yield running
    running.close()


def restart(site, start):
    """The service again, on its port and with its configuration."""
    return start("--configdir", str(site.service.folder / "config"),
                 port=site.service.port).client()


@pytest.mark.parametrize("call", ["renameat2", "mkdirat"])
def test_a_service_that_dies_in_the_import_is_reverted_later(site, start, call):
    """After or before the step that puts the package in force, which the tool cannot know."""
    with Strace(site.service, f"?mkdir,{call}:signal=KILL"):
        result = site.ctl("conf", "import", site.package, "--confirm", LONG)
        assert site.service.wait_end(20) == -signal.SIGKILL
    assert result.status == 2 and "it may have been imported. Reverts at " in result.err, result
    number, = site.ids()
    assert len(site.timers()) == 1
    client = restart(site, start)
    assert site.expire(number).status == 0
    assert Slice(client).content() == OLD and site.ids() == []


def test_a_service_that_dies_in_the_rollback_is_tried_again(site, start):
    number = site.change()
    site.kill_timers()
    with Strace(site.service, "renameat2:signal=KILL"):
        timer = site.ctl.start("conf", "rollback", number, "--auto")
        assert site.service.wait_end(20) == -signal.SIGKILL
    client = restart(site, start)
    assert timer.wait() == 0 and list(timer.err) == []
    assert Slice(client).content() == OLD and site.ids() == []


def test_what_is_saved_just_after_the_import_is_not_lost(site):
    """Between the import and its answer, as well as at any time after that."""
    def save_something():
        Slice(site.client, "other").update({"/a": "1"})
        save(site.client)

    with Interposer(site.service.address, updateSysConf=save_something) as between:
        site.ctl.endpoint = between.address
        number = site.change()
        assert between.calls[-1] == "updateSysConf"
        result = site.expire(number)
    assert result.status == 4 and "the saved configuration has been changed since" in result.err
    assert Slice(site.client, "other").content() == {"/a": "1"}


@pytest.mark.parametrize("is_own", [True, False])
def test_unsaved_changes_of_just_after_the_import_are_kept(site, is_own):
    """Although the same service had others before, or another one has."""
    def change_something():
        Slice(site.client, "other").update({"/a": "1"})

    if is_own:
        site.tuner.update({"/unsaved": "1"})
    else:
        report_unsaved(site, "elsewhere")
    with Interposer(site.service.address, updateSysConf=change_something) as between:
        site.ctl.endpoint = between.address
        number = site.change(LONG, "--discard-unsaved")
        result = site.expire(number)
    assert result.status == 4 and "there are unsaved changes" in result.err
    assert site.complaint().severity == 2
    assert site.content() == NEW and Slice(site.client, "other").content() == {"/a": "1"}


def test_unsaved_changes_elsewhere_do_not_matter(site):
    report_unsaved(site, "elsewhere")
    number = site.change(LONG, "--discard-unsaved")
    assert site.expire(number).status == 0
    assert site.content() == OLD and site.complaint() is None


def report_unsaved(site, service_id):
    """As a monitored service does."""
    origin = f"{service_id}/Cap_Configuration_SysConfPersisted/sys/conf/update"
    assert site.ctl.ok("state", "report", origin, "warn", "x").out == ""


def test_the_form_of_values_does_not_matter(site, tmp_path):
    """The store keeps the files of a package as they are."""
    folder = tmp_path / "odd"
    folder.mkdir()
    subprocess.run(["tar", "-xzf", site.package, "-C", folder], check=True)
    values = sorted(folder.glob("sys/conf/mb/0/tuner/key/*/data"))
    for value in values:
        value.write_text("\n " + value.read_text().replace(":", " :\t") + "\n\n")
    subprocess.run(["tar", "-czf", site.package, "-C", folder, "."], check=True)
    assert len(values) == len(NEW)
    number = site.change()
    assert site.content() == NEW
    assert site.expire(number).status == 0
    assert site.content() == OLD and site.complaint() is None


def test_ctrl_c_after_the_import_says_what_is_to_come(site):
    """While the tool asks what has become of unsaved changes."""
    report_unsaved(site, "elsewhere")
    runs = []

    def interrupt():
        if runs and "updateSysConf" in between.calls:
            runs[0].send_signal(signal.SIGINT)
            assert runs[0].wait(20) == 130

    with Interposer(site.service.address, getLatestStateNotifications=interrupt) as between:
        runs.append(subprocess.Popen(
            command("-e", between.address, "conf", "import", site.package, "--confirm", LONG,
                    "--discard-unsaved"), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env=environment(XDG_STATE_HOME=str(site.state))))
        out, err = runs[0].communicate(timeout=20)
    number, = site.ids()
    assert out == "" and "hint: it has been imported. Reverts at " in err
    assert err.endswith(f"halvoctl conf confirm {number}\n")


def test_a_record_on_which_a_process_hangs_is_no_endless_wait(site):
    number = site.change()
    site.kill_timers()
    site.make_late(number)
    lock = os.open(site.folder / number, os.O_RDONLY | os.O_DIRECTORY)
    fcntl.flock(lock, fcntl.LOCK_EX)
    try:
        reason = f"another process works on the change {number}"
        for words in (("confirm", number), ("rollback", number)):
            result = site.ctl("conf", *words, "--timeout", "100ms")
            assert (result.status, result.err) == (2, f"halvoctl: {reason}\n")
        result = site.ctl("conf", "rollback", number, "--auto", "--retry", "100ms")
        assert (result.status, result.err) == (2, f"halvoctl: {reason}\n")
    finally:
        os.close(lock)
    assert site.complaint().msg == f"The import {number} is not rolled back: {reason}"
    assert site.content() == NEW and site.ids() == [number]


def test_an_error_stays_while_another_change_has_expired(site):
    numbers = [site.change(), site.change()]
    other = Slice(site.client, "other")
    other.update({"/a": "1"})
    for number in numbers:
        assert site.expire(number).status == 4
    assert site.ctl.ok("conf", "confirm", numbers[0]).out == ""
    assert site.complaint().severity == 2
    assert site.ctl.ok("conf", "confirm", numbers[1]).out == ""
    assert site.complaint().severity == 0


@pytest.fixture
def open_folder():
    """A folder that every user reaches."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o777)
        yield pathlib.Path(folder)


def test_the_unit_of_a_user_runs_as_this_user_and_finds_the_records(site, open_folder):
    """Beside a systemd that only records what it is asked for."""
    asked = open_folder / "asked"
    fake = open_folder / "systemd-run"
    fake.write_text(f'#!/bin/sh\nprintf "%s\\n" "$@" > {asked}\n')
    fake.chmod(0o755)
    package = open_folder / "new.hpk"
    package.write_bytes(site.package.read_bytes())
    run = subprocess.run(
        ["unshare", "-m", "sh", "-c", "mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/system && "
         'exec setpriv --reuid 65534 --regid 65534 --clear-groups "$@"', "sh", *command(
             "-e", site.service.address, "conf", "import", package, "--confirm", LONG)],
        env=environment(HOME=str(open_folder), PATH=f"{open_folder}:{os.environ['PATH']}"),
        capture_output=True, text=True, check=True)
    number = PROMISE.match(run.stdout)[2]
    assert (open_folder / f".local/state/halvo/confirm/{number}/record.json").exists()
    words = asked.read_text().splitlines()
    assert "--uid=65534" in words and f"--setenv=XDG_STATE_HOME={open_folder}/.local/state" in words
    assert words[-4:] == ["conf", "rollback", number, "--auto"]
