"""The configuration store: slices with state ids, kept in memory until an operation saves them."""
import itertools
import re
import signal
import threading

import grpc
import pytest
from google.protobuf import any_pb2

from kit.configuration import STATE_ID, Slice, texts

@pytest.fixture
def tuner(client):
    return Slice(client)


def test_a_slice_is_pushed_patched_and_replaced(tuner):
    first = tuner.update({"/a": "1", "/b/c": "2"}, state_id="anything")
    second = tuner.update({"/a": "3"}, removed=["/never"])
    assert first.isdigit() and second.isdigit() and first != second
    assert tuner.content() == {"/a": "3", "/b/c": "2"}
    tuner.update({"/d": "4"}, removed=["/a"])
    assert tuner.content() == {"/b/c": "2", "/d": "4"}
    tuner.update({"/e": "5"}, patch=False)
    assert tuner.content() == {"/e": "5"}
    tuner.update(patch=False)
    assert tuner.content() == {}


def test_a_stale_state_id_is_refused(tuner):
    tuner.update({"/a": "1"})
    with pytest.raises(grpc.RpcError) as refused:
        tuner.update({"/a": "2"}, state_id="stale")
    assert refused.value.code() == grpc.StatusCode.FAILED_PRECONDITION
    assert refused.value.details() == "ConfState identifier didnt match"
    assert tuner.content() == {"/a": "1"}


def test_an_observer_gets_nothing_everything_or_only_an_answer(client, tuner):
    stream = tuner.observe()
    element = stream.next()
    assert (element.observeStatus.statusCode, len(element.node_change_map)) == (0, 0)
    stream.cancel()
    state_id = tuner.update({"/a": "1"})
    Slice(client, "other").update({"/x": "9"})
    found = texts(tuner.observe("stale").next())
    assert found["/a"] == "1" and set(found) == {"/a", STATE_ID}
    assert f'"value":"{state_id}"' in found[STATE_ID]


def test_an_observer_that_is_up_to_date_gets_only_the_answer(tuner):
    state_id = tuner.update({"/a": "1"})
    element = tuner.observe(state_id).next()
    assert element.observeStatus.statusCode == 6
    assert element.observeStatus.errorMessage == ""
    assert len(element.node_change_map) == 0


def test_unsaved_configuration_shows_as_a_warning(service, client, tuner):
    assert client.current_state() == "OK"
    tuner.update({"/a": "1"})
    assert client.current_state() == "WARN"
    stored, = client.latest().stateList
    note = stored.stateNotification
    assert (note.service_id, note.type, note.source, note.msg, note.extendedInfo) == (
        service.service_id, "Cap_Configuration_SysConfPersisted", "sys/conf/update",
        "Sysconf cap update", "")
    assert client.protos.state.StateSeverity.Name(note.severity) == "WARN"
    assert note.timeStamp.seconds > 0


def test_a_restart_keeps_what_lies_in_the_directory_and_nothing_else(start, tmp_path):
    service = start()
    tuner = Slice(service.client())
    tuner.update({"/unsaved": "lost"})
    assert (service.folder / "config/configuration").is_dir()
    assert list((service.folder / "config/configuration").iterdir()) == []
    service.stop()
    saved = tmp_path / "s1/config/configuration/sys/conf/mb/0/tuner/kept"
    saved.mkdir(parents=True)
    (saved / "data").write_text(
        '{"@type":"type.googleapis.com/google.protobuf.StringValue","value":"from the file"}')
    (saved / "data~").write_text("half a fi")
    again = Slice(start().client())
    again.update({"/new": "x"})
    assert again.content() == {"/kept": "from the file", "/new": "x"}


def test_a_killed_service_starts_again(start):
    service = start()
    Slice(service.client()).update({"/a": "1"})
    service.signal(signal.SIGKILL)
    assert service.wait_end() == -signal.SIGKILL
    assert Slice(start().client()).content() == {}


@pytest.mark.parametrize("key, code, text", [
    ("no-slash", "FAILED_PRECONDITION", "PathError: Initial character of path must be '/'; path = no-slash. ("),
    ("/a//b", "FAILED_PRECONDITION", "PathError: Key must not contain // (two slashes in a row; path = /a//b. ("),
    ("/a/*", "FAILED_PRECONDITION", "PathError: Only key_pattern's may contain *; path = /a/*. ("),
    ("/", "FAILED_PRECONDITION", "PathError: Final character of path must not be '/' ; path = /sys/conf/mb/0/tuner/. ("),
    ("/data", "INVALID_ARGUMENT", "Key has the reserved component data: /sys/conf/mb/0/tuner/data"),
    ("/" + "x" * 256, "INVALID_ARGUMENT", "Key has a component of more than 255 bytes: "),
    ("/" + "/".join(["x" * 200] * 15), "INVALID_ARGUMENT", "Key is longer than 3000 bytes: "),
    ("/" + "/".join(["x" * 200] * 500), "INVALID_ARGUMENT", "Key is longer than 3000 bytes: "),
    ("/" + "/".join(["ü" * 100] * 20), "INVALID_ARGUMENT", "Key is longer than 3000 bytes: "),
    ("/" + "/".join(["ü" * 128] * 11), "INVALID_ARGUMENT", "Key has a component of more than 255 "),
    ("/a\nb", "INVALID_ARGUMENT", "Key has a line end or a zero byte: /sys/conf/mb/0/tuner/a\\nb"),
    ("/a/\r", "INVALID_ARGUMENT", "Key has a line end or a zero byte: /sys/conf/mb/0/tuner/a/\\r"),
    ("/a\0b", "INVALID_ARGUMENT", "Key has a line end or a zero byte: /sys/conf/mb/0/tuner/a\\0b"),
])
def test_a_key_that_cannot_be_kept_is_refused(service, tuner, key, code, text):
    tuner.update({"/a": "1"})
    with pytest.raises(grpc.RpcError) as refused:
        tuner.update({"/ok": "2", key: "3"}, patch=False)
    assert refused.value.code().name == code
    assert refused.value.details().startswith(text)
    assert tuner.content() == {"/a": "1"}
    service.assert_alive()


def test_values_of_types_unknown_here_pass_through(tuner):
    request = tuner.protos.configuration.UpdateCapConfReq(confId=tuner.conf_id, isPatch=True)
    foreign = any_pb2.Any(type_url="type.googleapis.com/Some.Foreign.Type", value=b"\x0a\x01x")
    request.capConfChangeset.node_change_map["/a"].nodePairList.add(currentMessage=foreign)
    tuner.client.configuration.updateCapConf(request)
    element = tuner.observe("stale").next()
    assert element.node_change_map["/a"].nodePairList[0].currentMessage == foreign


def test_an_entry_without_pairs_ends_the_process_with_two_reports_in_the_log(start, protos):
    service = start(log_to_file=True)
    request = protos.configuration.UpdateCapConfReq()
    request.confId.nodeType, request.confId.nodeId, request.confId.capabilityId = "mb", "0", "x"
    request.capConfChangeset.node_change_map["/a"].SetInParent()
    with pytest.raises(grpc.RpcError):
        service.client().configuration.updateCapConf(request)
    assert service.wait_end(20) == -signal.SIGABRT
    errors = re.findall(r"\]\[error\]\[[\w.]+:\d+\] (.*?)\n(?=\[\d{4}-|\Z)", service.log, re.S)
    assert len(errors) == 2, service.log
    assert re.fullmatch(
        re.escape("Assertion failed: [CHECK failed: (index) < (current_size_): ] \nat:")
        + r"\S*slice_update\.cpp:\d+\nAborting process!", errors[0]), errors[0]
    assert errors[1] == "Stacktrace: Not available"
    assert service.stderr == ""


def test_a_second_observer_of_a_slice_ends_the_process(start):
    service = start()
    tuner = Slice(service.client())
    first = tuner.observe()
    first.next()
    tuner.observe()
    assert service.wait_end(20) == -signal.SIGABRT


def test_two_capabilities_under_load_never_wait_for_each_other(start):
    service = start()
    stop = threading.Event()
    failures = []

    def run(action):
        client = service.client()
        try:
            action(client)
            while not stop.is_set():
                action(client)
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    slices = {}
    numbers = itertools.count()

    def update(client):
        own = slices.setdefault(threading.get_ident(), Slice(client, f"c{next(numbers)}"))
        own.update({f"/{number}": "x" for number in range(10)})

    def create(client):
        client.create(severity="ERROR")
        client.notifications(index=-10)

    threads = [threading.Thread(target=run, args=(action,))
               for action in (update, create) for _ in range(3)]
    watcher = service.client().observe("/state/**")
    for thread in threads:
        thread.start()
    for _ in range(300):
        watcher.next()
    stop.set()
    for thread in threads:
        thread.join(20)
        assert not thread.is_alive()
    assert failures == []
