"""Kills and failing disks during save, import, clear and export: the whole program."""
import re
import shutil
import signal

import grpc
import pytest

from kit.configuration import Slice, clear, discard, export_package, import_package, save
from kit.faults import Strace, all_faults
from kit.memory import WITHOUT_LEAK_SEARCH

KEYS = [0, 1, 10] if all_faults() else [0, 1]


def values(kind, keys):
    return {f"/g{number % 3}/{kind if number % 2 else 'both'}{number}": kind
            for number in range(keys)}


class Prepared:
    """An initial configuration folder: a saved copy, and the remains of a crash beside it."""

    def __init__(self, start, keys):
        self._start = start
        self.keys = keys
        service = start()
        client = service.client()
        tuner = Slice(client)
        tuner.update(values("packaged", keys))
        save(client)
        self.package = export_package(client)
        tuner.update(values("old", keys), patch=False)
        save(client)
        self._state_id = tuner.state_id
        service.stop()
        self._folder = service.folder / "config"
        left = self._folder / "configuration.temp/left"
        left.mkdir(parents=True)
        (left / "over").write_text("from a crash")
        (self._folder / "epg").mkdir()
        (self._folder / "epg/today").write_text("news")
        self._count = 0

    def service(self, **kwargs):
        """A new service on its own folder with unsaved changes, and a client."""
        folder = self._folder.parent / f"case{self._count}"
        self._count += 1
        shutil.copytree(self._folder, folder)
        service = self._start("--configdir", str(folder), environment=WITHOUT_LEAK_SEARCH, **kwargs)
        service.config = folder
        client = service.client()
        tuner = Slice(client)
        tuner.state_id = self._state_id
        tuner.update(values("new", self.keys), patch=False)
        return service, client

    def restart(self, service):
        again = self._start("--configdir", str(service.config))
        return again, again.client()

    def run(self, operation, client):
        actions = {"save": save, "clear": clear, "discard": discard, "export": export_package,
                   "import": lambda target: import_package(target, self.package)}
        return actions[operation](client)

    def after(self, operation):
        """The saved configuration after the operation."""
        kind = {"save": "new", "import": "packaged"}.get(operation, "old")
        return {} if operation == "clear" else values(kind, self.keys)


@pytest.fixture
def prepare(start):
    return lambda keys: Prepared(start, keys)


def chosen(places, exchange):
    """All places, or some: the ends, those around the exchange, and one in the middle of each part.
    """
    if all_faults():
        return places
    before = [place for place in places if place < exchange]
    behind = [place for place in places if place > exchange]
    some = {*before[:1], *before[len(before) // 2:][:1], *before[-1:], *behind[:1],
            *behind[len(behind) // 2:][:1], *behind[-1:]}
    return [place for place in places if place in some or place == exchange]


def kill_at(prepared, operation, calls, place):
    """Kills a service at the entry of one call of the operation and returns the remains."""
    call = calls[place]
    service, client = prepared.service()
    if call.name.startswith("open"):
        case = service.config.name
        fault = Strace(service, f"{call.name}:signal=KILL",
                       path=re.sub(r"/case\d+/", f"/{case}/", call.path))
    else:
        same = sum(other.name == call.name for other in calls[:place + 1])
        fault = Strace(service, f"{call.name}:signal=KILL:when={same}")
    with fault as strace:
        with pytest.raises(grpc.RpcError):
            prepared.run(operation, client)
        assert service.wait_end(20) == -signal.SIGKILL
    assert strace.calls()[-1].name == call.name
    return service


@pytest.mark.parametrize("keys", KEYS)
@pytest.mark.parametrize("operation", ["save", "import", "clear", "export"])
def test_a_kill_leaves_the_whole_old_or_the_whole_new_copy(prepare, operation, keys):
    prepared = prepare(keys)
    service, client = prepared.service()
    with Strace(service) as strace:
        prepared.run(operation, client)
    calls = [call for call in strace.calls() if call.changes]
    names = [call.name for call in calls]
    exchange = names.index("renameat2") if operation != "export" else len(calls)
    for place in chosen(list(range(len(calls))), exchange):
        service = kill_at(prepared, operation, calls, place)
        again, client = prepared.restart(service)
        loaded = Slice(client).content()
        expected = prepared.after(operation if place > exchange else "nothing")
        assert loaded == expected, (place, calls[place])
        save(client)
        assert not (service.config / "configuration.temp").exists()
        assert Slice(client).content() == expected
        again.signal(signal.SIGKILL)  # faster than a normal end
        again.wait_end()


def test_a_discard_changes_no_file(prepare):
    prepared = prepare(1)
    service, client = prepared.service()
    with Strace(service) as strace:
        discard(client)
    calls = strace.calls()
    assert calls and not [call for call in calls if call.changes]
    assert Slice(client).content() == prepared.after("discard")


@pytest.mark.parametrize("error, number", [("ENOSPC", 28), ("EIO", 5), ("EACCES", 13)])
@pytest.mark.parametrize("operation", ["save", "import", "clear"])
def test_an_exchange_that_fails_ends_the_process(prepare, operation, error, number):
    prepared = prepare(1)
    service, client = prepared.service(log_to_file=True)
    with Strace(service, f"renameat2:error={error}"):
        with pytest.raises(grpc.RpcError):
            prepared.run(operation, client)
        assert service.wait_end(20) == -signal.SIGABRT
    assert f"atomic rename exchange failed with errno {number}" in service.log
    _, client = prepared.restart(service)
    assert Slice(client).content() == prepared.after("nothing")


def reports(client, elements):
    """The texts of the reports in elements of an observe stream."""
    texts = []
    for element in elements:
        for _, changes in sorted(element.node_change_map.items()):
            stored = client.protos.state.StoredNotification()
            assert changes.nodePairList[0].currentMessage.Unpack(stored)
            texts.append(stored.stateNotification.msg)
    return texts


@pytest.mark.parametrize("operation, expected",
                         [("save", ["Sysconf saved"]), ("import", []), ("clear", [])])
def test_a_save_is_told_ahead_of_its_work_and_others_behind_it(prepare, operation, expected):
    prepared = prepare(1)
    service, client = prepared.service()
    stream = client.observe("/state/notifications/archive/**")
    assert reports(client, [stream.next()]) == ["Sysconf cap update"]
    # The delay lets elements in flight reach the observer before the end.
    with Strace(service, "renameat2:error=EIO:delay_enter=2s:when=1"):
        with pytest.raises(grpc.RpcError):
            prepared.run(operation, client)
        assert service.wait_end(20) == -signal.SIGABRT
    assert reports(client, stream.rest()) == expected


def test_a_save_that_is_refused_says_again_that_there_is_something_unsaved(prepare):
    prepared = prepare(1)
    service, client = prepared.service()
    stream = client.observe("/state/notifications/archive/**")
    assert reports(client, [stream.next()]) == ["Sysconf cap update"]
    with Strace(service, "syncfs:error=ENOSPC"):
        with pytest.raises(grpc.RpcError):
            save(client)
    assert reports(client, [stream.next()]) == ["Sysconf saved"]
    assert reports(client, [stream.next()]) == ["Sysconf cap update"]
    assert client.current_state() == "WARN"
    save(client)
    assert reports(client, [stream.next()]) == ["Sysconf saved"]
    assert client.current_state() == "OK"


def test_a_guide_that_cannot_be_removed_stays_unnoticed(prepare):
    prepared = prepare(0)
    service, client = prepared.service()
    with Strace(service, "openat:error=EIO", path=service.config / "epg"):
        clear(client)
    assert (service.config / "epg/today").exists()
    assert Slice(client).content() == {}
    service.stop()
    assert "Failed to clear EPG data" not in service.stdout
