"""The operator's tool saves, reverts, exports and imports the configuration."""
import json
import os
import pty
import re
import subprocess

import pytest
from kit.configuration import Slice, save
from kit.ctl import Ctl, command, environment
from kit.namespaces import own_machine
from kit.wait import wait_until

KEYS = {f"/key/{number}": f"value {number}" for number in range(5)}


@pytest.fixture
def tuner(client):
    """A slice with unsaved changes."""
    owned = Slice(client)
    owned.update(KEYS)
    return owned


def answered(service, words, answer):
    """The exit status of the tool on a terminal where the answer is typed."""
    ours, theirs = pty.openpty()
    with subprocess.Popen(command("-e", service.address, *words), stdin=theirs,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          env=environment()) as run:
        os.write(ours, answer.encode() + b"\n")
        _, err = run.communicate(timeout=20)
    os.close(ours)
    os.close(theirs)
    return run.returncode, err


def test_a_round_of_an_operator(ctl, client, service, tuner, tmp_path):
    unsaved = ctl("conf", "status")
    assert unsaved.status == 4 and not unsaved.err
    assert re.fullmatch(service.service_id + r": unsaved since \d\d:\d\d:\d\d \(\d+ s\)\n",
                        unsaved.out)
    assert ctl.ok("conf", "save").out == ""
    assert re.match(service.service_id + ": saved since ", ctl.ok("conf", "status").out)
    package = tmp_path / "a.hpk"
    assert ctl.ok("conf", "export", package).out == ""
    assert not (tmp_path / "a.hpk.part").exists()
    tuner.update({"/late": "x"})
    assert ctl.ok("conf", "revert", "--yes").out == ""
    assert tuner.content() == KEYS
    assert ctl.ok("conf", "clear", "--yes").out == ""
    assert Slice(client).content() == {}
    assert ctl.ok("conf", "import", package).out == "Imported 5 keys in 1 slice.\n"
    assert tuner.content() == KEYS


def test_the_status_as_json_is_since_the_first_unsaved_change(ctl, service, tuner, client):
    assert ctl("conf", "status", "-o", "json").json["services"][0]["is_saved"] is False
    first = ctl("conf", "status", "-o", "json").json["services"][0]["since"]
    for _ in range(3):
        tuner.update({"/a": "x"})
    assert ctl("conf", "status", "-o", "json").json["services"] == [
        {"service_id": service.service_id, "is_saved": False, "since": first}]
    save(client)
    assert ctl.ok("conf", "status", "-o", "json").json["services"][0]["is_saved"] is True


def test_a_service_without_changes_is_saved(ctl):
    assert ctl.ok("conf", "status").out == "saved: nothing has been changed since the start\n"
    assert ctl.ok("conf", "status", "-o", "json").json == {
        "services": [], "slices_in_log": []}


def test_packages_go_through_pipes(ctl, client, service, tuner):
    save(client)
    tuner.update({"/late": "x"})
    run = subprocess.run(command("-e", service.address, "conf", "export", "-"),
                         capture_output=True, check=True, env=environment())
    assert run.stdout[:2] == b"\x1f\x8b"
    assert run.stderr == b"halvoctl: the package is without the unsaved changes\n"
    run = subprocess.run(command("-e", service.address, "conf", "import", "-", "-o", "json"),
                         input=run.stdout, capture_output=True, check=True, env=environment())
    assert json.loads(run.stdout) == {"keys": 5, "slices": 1}
    assert tuner.content() == KEYS


@pytest.mark.parametrize("words", [("revert",), ("clear",)])
def test_what_cannot_be_undone_asks_first(ctl, service, tuner, words):
    result = ctl("conf", *words)
    assert (result.status, result.err) == (
        1, "halvoctl: not sent: there is no terminal to ask at\n"
           "hint: --yes does it without asking\n")
    status, err = answered(service, ["conf", *words], "n")
    assert status == 1 and f" at {service.address}? [y/N] halvoctl: not sent\n" in err
    assert tuner.content() == KEYS
    assert answered(service, ["conf", *words], "y")[0] == 0
    assert tuner.content() == {}


def test_a_refused_import_names_both_machines(ctl, client, start, tuner, tmp_path):
    save(client)
    package = tmp_path / "a.hpk"
    ctl.ok("conf", "export", package)
    other = start(prefix=own_machine(tmp_path / "other", keep=tmp_path, variant="output:COFDM\n"))
    spare = Ctl(other.address)
    result = spare("conf", "import", package)
    assert (result.status, result.out, result.err) == (
        3, "", "halvoctl: INVALID_ARGUMENT: The configuration file is not compatible with this "
               "system\nhint: made for QAM part 0; this machine is COFDM part 0\n")
    other.assert_alive()


def test_a_package_that_cannot_be_read_is_refused_by_the_service(ctl, service, tuner, tmp_path):
    (tmp_path / "p").write_bytes(b"no package")
    result = ctl("conf", "import", tmp_path / "p")
    assert result.status == 3 and not result.out
    assert result.err.startswith("halvoctl: INTERNAL: Unable to unpack to filesystem - Error ")
    service.assert_alive()
    assert tuner.content() == KEYS


def test_a_package_that_would_wipe_everything_is_not_sent(ctl, service, tuner, tmp_path):
    subprocess.run(["tar", "czf", tmp_path / "empty", "-T", "/dev/null"], check=True)
    for package in (tmp_path / "empty", "/dev/null"):
        result = ctl("conf", "import", package)
        assert (result.status, result.err.splitlines()[0]) == (
            1, "halvoctl: not sent: the package has no configuration")
    service.assert_alive()
    assert tuner.content() == KEYS


def test_files_that_cannot_be_used(ctl, client, service, tuner, tmp_path):
    save(client)
    assert ctl("conf", "import", tmp_path / "none").err == (
        f"halvoctl: cannot read {tmp_path}/none\n")
    result = ctl("conf", "export", tmp_path / "none/p")
    assert result.status == 1 and result.err.endswith("No such file or directory\n")
    assert Ctl("localhost:1")("conf", "export", tmp_path / "p").status == 2
    assert not (tmp_path / "p").exists()
    assert Ctl("localhost:1")("conf", "status").status == 2
    for words in ((), ("import",), ("save", "-e", "localhost:1")):
        assert ctl("conf", *words).status == 1
    service.assert_alive()


def test_a_replaced_slice_is_sent_unless_it_wipes_another_one(ctl, client):
    network = Slice(client, "network")
    network.update({"/a": "1"})
    Slice(client, "other").update({"/a": "1"})
    save(client)

    def replace(capability, state_id=""):
        return ctl("call", "updateCapConf", "-d", json.dumps({
            "confId": {"nodeType": "mb", "nodeId": "0", "capabilityId": capability},
            "lastCapConfStateId": state_id}))

    refused = replace("net")
    assert (refused.status, refused.err) == (
        1, "halvoctl: not sent: it would also wipe the slice mb/0/network\n")
    assert network.content() == {"/a": "1"}
    assert replace("network", network.state_id).status == 0
    wait_until(lambda: network.content() == {}, what="the replaced slice")
