"""Every value is saved, readable for its owner and group only, by one service at a time."""
import base64
import json

import grpc
import pytest
from google.protobuf import any_pb2, struct_pb2, wrappers_pb2

from kit.client import Stream
from kit.configuration import Slice, clear, discard, export_package, import_package, save
from kit.wait import wait_until


class RawSlice(Slice):
    """A slice of values of any type."""

    def put(self, values):
        request = self.protos.configuration.UpdateCapConfReq(
            confId=self.conf_id, isPatch=True, lastCapConfStateId=self.state_id)
        for key, value in values.items():
            pair = request.capConfChangeset.node_change_map[key].nodePairList.add()
            pair.currentMessage.CopyFrom(value)
        self.state_id = self.client.configuration.updateCapConf(request).capConfStateId

    def packed(self):
        """Key to type and bytes of each value, without the state id."""
        request = self.protos.configuration.ObserveCapConfReq(confId=self.conf_id)
        stream = Stream(self.client.configuration.observeCapConf(request))
        found = {key: exact(changes.nodePairList[0].currentMessage)
                 for key, changes in stream.next().node_change_map.items() if key != "/__csid"}
        stream.cancel()
        return found


def exact(value):
    return value.type_url, value.value


def packed(message):
    value = any_pb2.Any()
    value.Pack(message)
    return value


def raw(type_name, content):
    return any_pb2.Any(type_url="type.googleapis.com/" + type_name, value=content)


def deep(levels):
    struct = struct_pb2.Struct()
    inner = struct
    for _ in range(levels):
        inner = inner.get_or_create_struct("a")
    return struct


VALUES = {
    "/text": packed(wrappers_pb2.StringValue(value="ä\n")),
    "/lookalike": packed(wrappers_pb2.StringValue(value='{"@type":"a","@bytes":"eA=="}')),
    "/unknown": raw("vendor.Unknown", bytes(range(256))),
    "/unknown/inside": packed(raw("vendor.Unknown", b"\x08\x01")),
    "/unknown/empty": raw("vendor.Unknown", b""),
    "/unknown/field": raw("google.protobuf.StringValue", b"\x0a\x01x\x10\x05"),
    "/list": packed(struct_pb2.ListValue(values=[struct_pb2.Value(string_value="a")])),
    "/deep": packed(deep(40)),
    "/nan": packed(struct_pb2.Value(number_value=float("nan"))),
    "/zero": packed(wrappers_pb2.DoubleValue(value=-0.0)),
    "/none": any_pb2.Any(),
}


EXACT = {key: exact(value) for key, value in VALUES.items()}


def saved(service):
    return service.folder / "config/configuration"


def test_values_of_any_type_are_there_after_a_restart(start):
    service = start()
    client = service.client()
    tuner = RawSlice(client)
    tuner.put(VALUES)
    save(client)
    root = saved(service) / "sys/conf/mb/0/tuner"
    assert json.loads((root / "unknown/data").read_text()) == {
        "@type": "type.googleapis.com/vendor.Unknown",
        "@bytes": base64.b64encode(bytes(range(256))).decode()}
    assert json.loads((root / "text/data").read_text()) == {
        "@type": "type.googleapis.com/google.protobuf.StringValue", "value": "ä\n"}
    package = export_package(client)
    discard(client)
    assert tuner.packed() == EXACT
    clear(client)
    import_package(client, package)
    assert tuner.packed() == EXACT
    service.stop()
    again = start("--configdir", str(service.folder / "config"))
    assert RawSlice(again.client()).packed() == EXACT
    again.stop()
    assert "Loading an empty value" not in again.stdout


def test_a_file_without_json_is_an_empty_value_and_worth_a_warning(start):
    service = start()
    client = service.client()
    tuner = RawSlice(client)
    tuner.put({"/a": packed(wrappers_pb2.StringValue(value="1"))})
    save(client)
    service.stop()
    file = saved(service) / "sys/conf/mb/0/tuner/a/data"
    file.write_text("no JSON")
    again = start("--configdir", str(service.folder / "config"))
    assert RawSlice(again.client()).packed() == {"/a": ("", b"")}
    wait_until(lambda: f"there is no JSON of a known type in {file}" in again.stdout)


@pytest.mark.parametrize("mask", ["000", "077", "777"])
def test_what_is_saved_is_for_owner_and_group_alone(start, mask):
    # The folder of the test is created with the umask of the tests.
    service = start(prefix=["sh", "-c", f'umask {mask}; exec "$@"', "sh"])
    client = service.client()
    tuner = Slice(client)

    def rights():
        root = saved(service)
        return {(path.is_dir(), oct(path.stat().st_mode & 0o7777))
                for path in [root, *root.rglob("*")]}

    assert rights() == {(True, "0o750")}
    tuner.update({"/a/b": "1"})
    save(client)
    assert rights() == {(True, "0o750"), (False, "0o640")}
    package = export_package(client)
    assert rights() == {(True, "0o750"), (False, "0o640")}
    import_package(client, package)
    assert rights() == {(True, "0o750"), (False, "0o640")}
    clear(client)
    assert rights() == {(True, "0o750")}


def test_a_folder_is_for_one_service_at_a_time(start):
    service = start()
    client = service.client()
    Slice(client).update({"/a": "1"})
    save(client)
    folder = service.folder / "config"
    second = start("--configdir", str(folder), ready=False)
    assert second.wait_end(20) < 0
    assert f"Another service uses the configuration folder {folder}" in second.stderr
    service.assert_alive()
    save(client)
    third = start("--configdir", str(folder), ready=False)
    assert third.wait_end(20) < 0, "the folder has been replaced in between"
    service.process.kill()
    service.wait_end()
    last = start("--configdir", str(folder))
    assert Slice(last.client()).content() == {"/a": "1"}


@pytest.mark.parametrize("broken", ["", "broken"])
def test_a_slice_whose_state_id_cannot_be_read_can_be_updated(start, broken):
    service = start()
    client = service.client()
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    Slice(client, "other").update({"/x": "2"})
    save(client)
    service.stop()
    (saved(service) / "sys/conf/mb/0/tuner/__csid/data").write_text(broken)
    again = start("--configdir", str(service.folder / "config"))
    tuner = Slice(again.client())
    stream = tuner.observe("whatever")
    value = wrappers_pb2.StringValue()
    assert stream.next().node_change_map["/__csid"].nodePairList[0].currentMessage.Unpack(value)
    stream.cancel()
    tuner.state_id = json.loads(value.value)["value"]
    tuner.update({"/a": "2"})
    assert tuner.content() == {"/a": "2"}
    warning = "The saved state id of /sys/conf/mb/0/tuner cannot be read"
    wait_until(lambda: warning in again.stdout)
    assert "/sys/conf/mb/0/other cannot be read" not in again.stdout


def test_a_key_that_no_package_may_hold_is_loaded_with_a_warning(start):
    service = start()
    client = service.client()
    Slice(client).update({"/a": "1"})
    save(client)
    package = export_package(client)
    service.stop()
    root = saved(service) / "sys/conf/mb/0/tuner"
    (root / "data").mkdir()
    (root / "data/data").write_bytes((root / "a/data").read_bytes())
    again = start("--configdir", str(service.folder / "config"))
    client = again.client()
    assert Slice(client).content() == {"/a": "1", "/data": "1"}
    wait_until(lambda: "Key has the reserved component data: /sys/conf/mb/0/tuner/data" in
               again.stdout)
    with pytest.raises(grpc.RpcError) as refused:
        import_package(client, export_package(client))
    assert "/sys/conf/mb/0/tuner/data" in refused.value.details()
    import_package(client, package)


def test_a_discard_refuses_a_key_that_the_tree_does_not_take(start):
    service = start()
    client = service.client()
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    save(client)
    tuner.update({"/a": "2"})
    bad = saved(service) / "sys/conf/mb/0/tuner/a*"
    bad.mkdir()
    (bad / "data").write_text("{}")
    with pytest.raises(grpc.RpcError) as refused:
        discard(client)
    assert refused.value.code() == grpc.StatusCode.FAILED_PRECONDITION
    assert "/sys/conf/mb/0/tuner/a*" in refused.value.details()
    assert tuner.content() == {"/a": "2"}
    assert client.current_state() == "WARN"
    save(client)
    service.assert_alive()
