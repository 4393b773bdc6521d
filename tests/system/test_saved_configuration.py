"""Save, discard, export, import and clear: the working copy, the saved copy, and packages."""
import io
import json
import os
import shutil
import signal
import subprocess
import tarfile
import threading

import grpc
import pytest

from kit.configuration import (STATE_ID, Slice, clear, discard, export_package, import_package, save,
                               texts)
from kit.namespaces import own_machine
from kit.wait import wait_until

SAVED = "config/configuration"


def serial(part_number, kind=0):
    return json.dumps([{"type": str(kind), "serial": "S1", "partnumber": str(part_number),
                        "revision": "2"}])


def saved_files(service):
    root = service.folder / SAVED
    return {str(path.relative_to(root)): path.read_bytes()
            for path in root.rglob("*") if path.is_file()}


def members(package):
    with tarfile.open(fileobj=io.BytesIO(package), mode="r:gz") as archive:
        return {entry.name: archive.extractfile(entry).read()
                for entry in archive if entry.isfile()}


def value_file(text):
    return json.dumps({"@type": "type.googleapis.com/google.protobuf.StringValue", "value": text},
                      separators=(",", ":")).encode()


def slice_files(values):
    """The saved copy of the slice mb/0/tuner, made by other code."""
    state_id = value_file(value_file("made elsewhere").decode())
    return {f"sys/conf/mb/0/tuner{key}/data": content for key, content in
            [(STATE_ID, state_id), *((key, value_file(text)) for key, text in values.items())]}


def tar(files, mode="w:gz", folders=None):
    """A package of folders (name to mode), followed by files (name to content)."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode=mode) as archive:
        for name, rights in (folders or {}).items():
            entry = tarfile.TarInfo(name)
            entry.type, entry.mode = tarfile.DIRTYPE, rights
            archive.addfile(entry)
        for name, content in files.items():
            entry = tarfile.TarInfo(name)
            entry.size = len(content)
            archive.addfile(entry, io.BytesIO(content))
    return out.getvalue()


def code_of(call, *args):
    """The name of the status with which the call is refused."""
    with pytest.raises(grpc.RpcError) as refused:
        call(*args)
    return refused.value.code().name


@pytest.fixture
def tuner(client):
    return Slice(client)


@pytest.fixture
def machine(start, tmp_path):
    """Starts a service on a machine of a given kind."""
    count = iter(range(100))

    def launch(**kind):
        return start(prefix=own_machine(tmp_path / f"m{next(count)}", keep=tmp_path, **kind))

    return launch


def test_a_saved_slice_survives_a_kill(start, service, client, tuner):
    tuner.update({"/a": "1", "/b/c": "2"})
    save(client)
    tuner.update({"/unsaved": "3"})
    service.signal(signal.SIGKILL)
    assert service.wait_end() == -signal.SIGKILL
    again = start("--configdir", str(service.folder / "config"))
    assert Slice(again.client()).content() == {"/a": "1", "/b/c": "2"}


def test_the_state_tells_what_is_unsaved(service, client, tuner):
    for action, text in ((save, "Sysconf saved"), (discard, "Sysconf discard changes"),
                         (clear, "Sysconf discard changes")):
        tuner.state_id = ""
        clear(client)
        tuner.update({"/a": "1"})
        assert client.current_state() == "WARN"
        action(client)
        assert client.current_state() == "OK"
        stored, = client.latest().stateList
        note = stored.stateNotification
        assert (note.service_id, note.type, note.source, note.msg, note.extendedInfo) == (
            service.service_id, "Cap_Configuration_SysConfPersisted", "sys/conf/update", text, "")


def test_every_operation_makes_its_own_report(client, tuner):
    tuner.update({"/a": "1"})
    save(client)
    save(client)
    package = export_package(client)
    discard(client)
    import_package(client, package)
    clear(client)
    notes = [entry.stateNotification.msg for entry in client.notifications(index=-100)]
    assert notes[::-1] == ["Sysconf cap update", "Sysconf saved", "Sysconf saved",
                           "Sysconf discard changes", "Sysconf discard changes",
                           "Sysconf discard changes"]


def test_what_is_refused_makes_no_report(machine):
    client = machine(variant="output:QAM\n").client()
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    save(client)
    before = client.notifications(index=-100)
    for package, code in ((tar({"swvariant": b"output:COFDM\n"}), "INVALID_ARGUMENT"),
                          (tar({"partno": b"many\n"}), "FAILED_PRECONDITION"),
                          (b"garbage", "INTERNAL")):
        assert code_of(import_package, client, package) == code
    assert code_of(client.configuration.updateSysConf,
                   client.protos.configuration.UpdateSysConfReq()) == "INVALID_ARGUMENT"
    assert code_of(tuner.update, {"/b": "2"}, (), True, "stale") == "FAILED_PRECONDITION"
    assert code_of(tuner.update, {"/b": "2", "/c/data": "3"}) == "INVALID_ARGUMENT"
    assert code_of(tuner.update, {"/b": "2", "no-slash": "3"}) == "FAILED_PRECONDITION"
    assert client.notifications(index=-100) == before
    assert client.current_state() == "OK"
    assert tuner.content() == {"/a": "1"}


def test_observers_hear_of_a_discard_and_of_no_update(client, tuner):
    state_id = tuner.update({"/a": "1", "/b": "2"})
    save(client)
    stream = tuner.observe(state_id)
    assert stream.next().observeStatus.statusCode == 6
    tuner.update({"/a": "changed", "/c": "3"})
    discard(client)
    heard = texts(stream.next())
    assert {key: heard[key] for key in ("/a", "/b", "/c")} == {"/a": "1", "/b": "2", "/c": None}
    assert set(heard) == {"/a", "/b", "/c", STATE_ID}
    tuner.state_id = state_id
    tuner.update({"/a": "4"})
    discard(client)
    assert texts(stream.next())["/a"] == "1"


def test_a_package_replaces_everything_and_comes_back_byte_for_byte(service, client, tuner):
    tuner.update({"/a": "1", "/ü/ß": "ä"})
    Slice(client, "other").update({"/x": "9"})
    save(client)
    package = export_package(client)
    assert members(package) == saved_files(service)
    assert members(package)["swvariant"] == b"output:QAM\n"
    before = saved_files(service)
    clear(client)
    assert saved_files(service) == {}
    assert tuner.content() == {}
    import_package(client, package)
    assert saved_files(service) == before
    assert tuner.content() == {"/a": "1", "/ü/ß": "ä"}


def test_a_package_fits_its_machine_only(machine):
    first = machine(variant="output:COFDM\n", serial=serial(100003)).client()
    Slice(first).update({"/a": "1"})
    save(first)
    package = export_package(first)
    assert members(package)["swvariant"] == b"output:COFDM\n"
    assert members(package)["partno"] == b"100003\n"
    twin = machine(variant="output:COFDM\n", serial=serial(100003)).client()
    import_package(twin, package)
    assert Slice(twin).content() == {"/a": "1"}
    for kind, identity in (
            ({"variant": "output:QAM\n", "serial": serial(100003)}, "QAM partNo:100003"),
            ({"variant": "output:COFDM\n", "serial": serial(100004)}, "COFDM partNo:100004"),
            ({"variant": "output:COFDM\n", "serial": serial(5)}, "COFDM partNo:0"),
            ({"variant": "output:XYZ\n", "serial": serial(100003, kind=1)}, "UNKNOWN partNo:0"),
            ({}, "QAM partNo:0")):
        other = machine(**kind)
        with pytest.raises(grpc.RpcError) as refused:
            import_package(other.client(), package)
        assert refused.value.code() == grpc.StatusCode.INVALID_ARGUMENT
        assert (refused.value.details()
                == "The configuration file is not compatible with this system")
        assert Slice(other.client()).content() == {}
        report = (f"Incompatible configuration files. System type output: {identity} "
                  "configuration file type output: COFDM partNo:100003")
        wait_until(lambda: report in other.stdout, what=report)


@pytest.mark.parametrize("marker", ["file", "directory", "link"])
def test_the_marker_forces_a_package_onto_another_machine(machine, marker):
    forced = machine(variant="output:QAM\n", override=marker).client()
    import_package(forced, tar({
        "swvariant": b"output:COFDM\n", "partno": b"100003\n",
        **slice_files({"/a": "forced"})}))
    assert Slice(forced).content() == {"/a": "forced"}


def test_a_marker_that_leads_nowhere_forces_nothing(machine):
    client = machine(variant="output:QAM\n", override="dangling").client()
    assert code_of(import_package, client, tar({"swvariant": b"output:COFDM\n"})) == (
        "INVALID_ARGUMENT")


def test_pipes_and_links_in_the_saved_copy_give_way_to_the_identity(service, client, tmp_path):
    precious = tmp_path / "precious"
    precious.write_text("0\nand more")
    saved = service.folder / SAVED
    for name in ("swvariant.new", "partno"):
        for make in (os.mkfifo, lambda path: path.symlink_to(precious),
                     lambda path: path.hardlink_to(precious)):
            (saved / name).unlink(missing_ok=True)
            make(saved / name)
            exported = members(export_package(client))
            assert exported["partno"] == b"0\n"
            assert exported["swvariant"] == b"output:QAM\n"
            assert precious.read_text() == "0\nand more"


@pytest.mark.parametrize("mode", [0o555, 0o444, 0o000])
def test_folders_that_nobody_may_change_are_no_hindrance(start, mode):
    """Also for a service without root's access to everything."""
    service = start(prefix=["setpriv", "--bounding-set", "-dac_override,-dac_read_search"])
    client = service.client()
    tuner = Slice(client)
    tuner.update({"/own": "1"})
    save(client)
    folder = {"sys/conf/mb/0/tuner": mode}
    import_package(client, tar(slice_files({"/a": "1"}), folders=folder))
    assert tuner.content() == {"/a": "1"}
    scratch = service.folder / "config/configuration.temp"
    (scratch / "a/b/c").mkdir(parents=True)  # possible remains of a crash
    (scratch / "a/b/file").write_text("x")
    (scratch / "a/b").chmod(mode)
    (scratch / "a").chmod(mode)
    save(client)
    assert not scratch.exists()
    clear(client)
    assert tuner.content() == {}


@pytest.mark.parametrize("mode", ["w", "w:bz2", "w:xz"])
def test_any_archive_will_do(client, mode):
    import_package(client, tar(slice_files({"/a": "x"}), mode))
    assert Slice(client).content() == {"/a": "x"}


def test_a_package_may_be_packed_anew_by_hand(client, tmp_path):
    for name, content in slice_files({"/a": "by hand"}).items():
        (tmp_path / "copy" / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / "copy" / name).write_bytes(content)
    subprocess.run(["tar", "-czf", tmp_path / "dots.tar.gz", "-C", tmp_path / "copy", "."], check=True)
    shutil.make_archive(tmp_path / "zipped", "zip", tmp_path / "copy")
    for package in ("dots.tar.gz", "zipped.zip"):
        clear(client)
        import_package(client, (tmp_path / package).read_bytes())
        assert Slice(client).content() == {"/a": "by hand"}


@pytest.mark.parametrize("package", [b"", b"garbage", b"\x00" * 100, b"x" * 3_000_000,
                                     tar({"partno": b"1\n" * 3000})[:90]],
                         ids=["nothing", "text", "zeros", "3 MB", "truncated"])
def test_what_is_no_package_is_refused(service, client, tuner, package):
    tuner.update({"/a": "1"})
    save(client)
    before = saved_files(service)
    with pytest.raises(grpc.RpcError) as refused:
        import_package(client, package)
    assert refused.value.code() == grpc.StatusCode.INTERNAL
    assert refused.value.details().startswith("Unable to unpack to filesystem - Error ")
    assert saved_files(service) == before
    assert tuner.content() == {"/a": "1"}
    service.assert_alive()


def test_an_update_of_no_kind_is_refused(client):
    with pytest.raises(grpc.RpcError) as refused:
        client.configuration.updateSysConf(client.protos.configuration.UpdateSysConfReq())
    assert refused.value.code() == grpc.StatusCode.INVALID_ARGUMENT
    assert refused.value.details() == "Update Type invalid"


def test_a_configuration_that_fits_no_package_is_saved_all_the_same(service, client, tuner):
    tuner.update({f"/{number}": "x" * 10_000 for number in range(60)})
    save(client)
    with pytest.raises(grpc.RpcError) as refused:
        export_package(client)
    assert refused.value.code() == grpc.StatusCode.INTERNAL
    assert refused.value.details().startswith("Unable to pack from filesystem - Error ")
    assert "the buffer is exceeding bufMaxSize" in refused.value.details()
    assert len(saved_files(service)) == 63  # with state id and identity files


def test_clearing_takes_the_programme_guide_along(service, client, tuner):
    tuner.update({"/a": "1"})
    save(client)
    guide = service.folder / "config/epg/today"
    guide.parent.mkdir()
    guide.write_text("news")
    clear(client)
    assert not guide.parent.exists()
    assert set(members(export_package(client))) == {"swvariant", "partno"}
    service.stop()
    assert "Failed to clear EPG data" not in service.stdout


def test_clearing_without_a_programme_guide_is_worth_a_warning(service, client):
    clear(client)
    wait_until(lambda: "Failed to clear EPG data - Success" in service.stdout)
    assert set(members(export_package(client))) == {"swvariant", "partno"}


def test_saving_among_twenty_clients_keeps_one_order_of_events(start):
    """Each writer writes the same number under two keys at once: every saved or observed state
    contains it twice."""
    service = start()
    rounds = 15
    failures = []

    def write(number):
        try:
            own = Slice(service.client(), f"c{number:02}")
            for count in range(rounds):
                own.update({"/first": str(count), "/second": str(count)})
                content = own.content()
                assert content == {"/first": str(count), "/second": str(count)}, content
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    writers = [threading.Thread(target=write, args=(number,)) for number in range(20)]
    for writer in writers:
        writer.start()
    client = service.client()
    saves = 0
    while saves < 5 or any(writer.is_alive() for writer in writers):
        save(client)
        saves += 1
        files = saved_files(service)
        for number in range(20):
            pair = [files.get(f"sys/conf/mb/0/c{number:02}/{key}/data") for key in ("first", "second")]
            assert pair[0] == pair[1]
    for writer in writers:
        writer.join()
    assert failures == []
    save(client)
    service.stop()
    again = start("--configdir", str(service.folder / "config")).client()
    for number in range(20):
        assert set(Slice(again, f"c{number:02}").content().values()) == {str(rounds - 1)}


class OwnedSlice:
    """A slice with a writer and its only observer; knows what it wrote under which state id."""

    def __init__(self, client, capability):
        self.slice = Slice(client, capability)
        self.written = {}
        self.heard = []
        self.acknowledged = 0
        self._update(1)

    def observe(self):
        self.stream = self.slice.observe(self.slice.state_id)
        assert self.stream.next().observeStatus.statusCode == 6

    def _update(self, count):
        state_id = self.slice.update({"/first": str(count), "/second": str(count)})
        self.written[state_id] = count
        self.acknowledged = count

    def write(self, count):
        """Writes a number that is higher than all before; a discard in between makes the own state
        id stale, and the observer gets the one that is in force again."""
        while True:
            try:
                return self._update(count)
            except grpc.RpcError as error:
                assert error.code() == grpc.StatusCode.FAILED_PRECONDITION, error
                self.hear(self.stream.next())

    def hear(self, element):
        found = texts(element)
        assert set(found) == {"/first", "/second", STATE_ID}
        self.slice.state_id = json.loads(found[STATE_ID])["value"]
        assert found["/first"] == found["/second"] == str(self.written[self.slice.state_id])
        self.heard.append(self.written[self.slice.state_id])

    def saved(self, files):
        """The number in the saved copy, which must be one that was written under the saved id."""
        texts_of = [json.loads(files[f"sys/conf/mb/0/{self.slice.conf_id.capabilityId}{key}/data"])
                    for key in ("/first", "/second", STATE_ID)]
        first, second, state_id = (text["value"] for text in texts_of)
        assert first == second
        return int(first), json.loads(state_id)["value"]


def test_twenty_observed_writers_agree_with_saves_and_discards(start):
    """Discards revert unsaved changes. Every answer, every saved copy and every element of an
    observer fits one order of updates, saves and discards."""
    service = start()
    client = service.client()
    slices = [OwnedSlice(service.client(), f"c{number:02}") for number in range(20)]
    save(client)
    for own in slices:
        own.observe()
    rounds = 12
    failures = []

    def work(own):
        try:
            for count in range(2, 2 + rounds):
                own.write(count)
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    writers = [threading.Thread(target=work, args=(own,)) for own in slices]
    for writer in writers:
        writer.start()
    saved = [1] * len(slices)
    discards = 0
    while discards < 6 or any(writer.is_alive() for writer in writers):
        floors = [own.acknowledged for own in slices]
        save(client)
        files = saved_files(service)
        for place, own in enumerate(slices):
            count, state_id = own.saved(files)
            # The answer to this update may still be in flight.
            assert own.written.get(state_id, count) == count
            assert count >= max(saved[place], floors[place] if discards == 0 else 0)
            saved[place] = count
        discard(client)
        discards += 1
    for writer in writers:
        writer.join(60)
        assert not writer.is_alive()
    assert failures == []
    discard(client)
    discards += 1
    for own in slices:
        while len(own.heard) < discards:
            own.hear(own.stream.next())
        assert own.heard == sorted(own.heard), "what is saved never goes back"
    files = saved_files(service)
    assert [own.heard[-1] for own in slices] == [own.saved(files)[0] for own in slices]
    client.introspection.setAllLogLevels(
        client.protos.introspection.SetAllLogLevelsReq(level=0))
    for own in slices:
        own.stream.cancel()
        assert own.stream.rest() == [], "one answer for each discard and none for updates"
    # A slice accepts its next observer when the end of the last one has been noticed.
    ended = "Received FINISHED_STREAMING_CLEANUP call data resetting RAII handle"
    wait_until(lambda: service.stdout.count(ended) == len(slices), what="the end of all streams")
    for own in slices:
        assert set(own.slice.content().values()) == {str(own.heard[-1])}
