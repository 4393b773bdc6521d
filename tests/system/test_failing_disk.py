"""A disk that fails, is full, or loses its power: the answers and the data of the whole program."""
import json

import grpc
import pytest

from kit.configuration import (Slice, clear, discard, export_package, import_package, save)
from kit.faults import ALL_FILE_CALLS, ERRORS, Strace, all_faults, ordinal
from kit.wait import wait_until

UNPACK = "Unable to unpack to filesystem - Error "
PACK = "Unable to pack from filesystem - Error "

REASONS = {"ENOSPC": "No space left on device", "EIO": "Input/output error",
           "EACCES": "Permission denied", "EROFS": "Read-only file system",
           "EMFILE": "Too many open files", "EDQUOT": "Disk quota exceeded"}

FOLDER = "sys/conf/mb/0/tuner/a"  # opened by the store, for what it does in it
VALUE = f"{FOLDER}/b/data"


class Store:
    """A running service with a saved copy, other unsaved changes, and a package with a third copy."""

    def __init__(self, start):
        self.service = start()
        self.client = self.service.client()
        self.folder = self.service.folder / "config"
        self.saved = self.folder / "configuration"
        self.scratch = self.folder / "configuration.temp"
        self.tuner = Slice(self.client)
        self.tuner.update({"/a/b": "packaged", "/c": "1"})
        save(self.client)
        self.package = export_package(self.client)
        self.tuner.update({"/a/b": "saved", "/d": "2"}, patch=False)
        save(self.client)
        self.reset()

    def reset(self):
        """Restores what an operation that was not refused has changed."""
        self.tuner.state_id = ""
        clear(self.client)
        self.tuner.update({"/a/b": "saved", "/d": "2"}, patch=False)
        save(self.client)
        self.tuner.update({"/a/b": "unsaved", "/e": "3"}, patch=False)

    def run(self, operation):
        actions = {"save": save, "clear": clear, "discard": discard, "export": export_package,
                   "import": lambda client: import_package(client, self.package)}
        return actions[operation](self.client)

    def answer(self, operation):
        """The code and the text of the answer."""
        try:
            self.run(operation)
        except grpc.RpcError as error:
            return error.code().name, error.details()
        return "OK", ""

    def files(self):
        """Relative name to content of the saved files, without the identity."""
        return {str(path.relative_to(self.saved)): path.read_bytes()
                for path in self.saved.rglob("data")}

    def state(self):
        """Everything that a refused operation must leave unchanged."""
        return self.files(), self.tuner.content(), self.client.current_state()


@pytest.fixture
def store(start):
    return Store(start)


@pytest.mark.parametrize("operation, call, path, error, code", [
    ("save", "openat:when=1", "configuration.temp", "EMFILE", 9),
    ("save", "mkdirat", "configuration.temp", "ENOSPC", 9),
    ("save", "mkdirat:when=1", f"configuration.temp/{FOLDER}", "EDQUOT", 9),
    ("save", "mkdirat:when=2", f"configuration.temp/{FOLDER}", "ENOSPC", 9),  # of the value
    ("save", "openat:when=2", f"configuration.temp/{FOLDER}", "EROFS", 9),  # of the value
    ("save", "write", f"configuration.temp/{VALUE}~", "ENOSPC", 9),
    ("save", "close", f"configuration.temp/{VALUE}~", "EIO", 9),
    ("save", "renameat", f"configuration.temp/{FOLDER}", "EACCES", 9),
    ("save", "syncfs", "configuration.temp", "EIO", 9),
    ("import", "mkdirat", "configuration.temp", "EIO", 9),
    ("import", "mkdirat", "configuration.temp/sys/conf/mb/0", "ENOSPC", 13),
    ("import", "openat", f"configuration.temp/{VALUE}", "EMFILE", 13),
    ("import", "write", f"configuration.temp/{VALUE}", "EDQUOT", 13),
    ("import", "close", f"configuration.temp/{VALUE}", "EIO", 13),
    ("import", "openat", f"configuration.temp/{FOLDER}/b", "EACCES", 9),  # to be examined
    ("import", "read", f"configuration.temp/{VALUE}", "EIO", 9),
    ("import", "syncfs", "configuration.temp", "ENOSPC", 9),
    ("clear", "mkdirat", "configuration.temp", "EROFS", 9),
    ("clear", "syncfs", "configuration.temp", "EIO", 9),
    ("discard", "openat", f"configuration/{FOLDER}/b", "EMFILE", 9),
    ("discard", "read", f"configuration/{VALUE}", "EIO", 9),
    ("discard", "openat", "configuration", "EACCES", 9),
    ("export", "openat", f"configuration/{VALUE}", "EIO", 13),
    ("export", "read", f"configuration/{VALUE}", "EIO", 13),
    ("export", "rename", "configuration/swvariant.new", "EACCES", 13),
])
def test_a_disk_that_fails_is_told_in_the_answer(store, operation, call, path, error, code):
    before = store.state()
    assert before[2] == "WARN"
    name, _, when = call.partition(":")
    inject = f"{name}:error={error}" + (f":{when}" if when else "")
    with Strace(store.service, inject, path=store.folder / path) as strace:
        answer, text = store.answer(operation)
    assert answer == {9: "FAILED_PRECONDITION", 13: "INTERNAL"}[code], (text, strace.calls())
    if code == 13:
        assert text.startswith(UNPACK if operation == "import" else PACK)
    else:
        assert text.startswith("filesystem error: ")
    if operation != "export":  # its texts have no reason
        assert REASONS[error] in text
        assert str(store.folder / "configuration") in text
    assert store.state() == before
    assert not store.scratch.exists()
    store.run(operation)
    assert not store.scratch.exists()


def test_an_old_copy_that_cannot_be_removed_is_worth_a_warning(store):
    # Its folder has been renamed by then.
    with Strace(store.service, "openat:error=EIO:when=2", path=store.scratch):
        save(store.client)
    assert store.scratch.exists()
    wait_until(lambda: "Left over: filesystem error: cannot open: Input/output error" in
               store.service.stdout)
    store.tuner.update({"/f": "4"})
    discard(store.client)
    assert store.tuner.content() == {"/a/b": "unsaved", "/e": "3"}
    save(store.client)
    assert not store.scratch.exists()


def faults(calls, operation):
    """A selection of calls with different paths, each with one error; or all of them with every
    error."""
    seen = {}
    for call in calls:
        if call.path.startswith("/") and "/config/" in call.path + "/":
            seen.setdefault((call.name, call.path), call)
    places = list(seen.values())
    if all_faults():
        return [(call, error) for call in places for error in ERRORS]
    step = max(len(places) // 4, 1)
    offset = len(operation) % step
    return [(call, ERRORS[number % len(ERRORS)])
            for number, call in enumerate(places[offset::step])]


@pytest.mark.parametrize("operation", ["save", "import", "clear", "discard", "export"])
def test_whatever_fails_an_operation_is_done_or_has_changed_nothing(store, operation):
    with Strace(store.service, calls=ALL_FILE_CALLS) as strace:
        store.run(operation)
    done = store.files()
    calls = strace.calls()
    chosen = faults([call for call in calls if call.name not in ("renameat2", "sync")], operation)
    assert chosen
    refused = 0
    for call, error in chosen:
        store.reset()
        before = store.state()
        inject = f"{call.name}:error={error}:when={ordinal(call, calls)}"
        with Strace(store.service, inject, path=call.place):
            answer, text = store.answer(operation)
        case = (call, error, answer, text)
        if answer == "OK":
            assert set(store.files()) == set(done), case
            assert operation == "export" or store.client.current_state() == "OK", case
        else:
            refused += 1
            assert answer in ("FAILED_PRECONDITION", "INTERNAL"), case
            assert store.state() == before, case
        assert not store.scratch.exists() or "Left over" in store.service.stdout, case
        discard(store.client)
        assert store.tuner.content() == texts_of(store.files()), case
    print(f"{operation}: {len(chosen)} faults, {refused} refused")


def texts_of(files):
    """Key to text of the slice in saved files."""
    prefix = "sys/conf/mb/0/tuner"
    return {name[len(prefix):-len("/data")]: json.loads(content)["value"]
            for name, content in files.items() if "__csid" not in name}


@pytest.mark.parametrize("operation", ["save", "import", "clear"])
def test_a_new_copy_is_on_the_disk_before_it_is_in_force(store, operation):
    with Strace(store.service, calls=ALL_FILE_CALLS) as strace:
        store.run(operation)
    calls = [call for call in strace.calls() if call.changes or call.name == "sync"]
    order = [call.name for call in calls if call.name in ("syncfs", "renameat2", "sync")]
    assert order == ["syncfs", "renameat2", "sync"]
    flush = next(number for number, call in enumerate(calls) if call.name == "syncfs")
    assert calls[flush].path == str(store.scratch)
    late = {call.name for call in calls[flush:]} - {"syncfs", "renameat2", "sync"}
    assert late <= {"unlink", "unlinkat", "rmdir", "write"}, "what removes the old copy, and the log"


SMALL_DISK = """
mount -t tmpfs -o size=256k tmpfs "$1"
shift
exec "$@"
"""


@pytest.mark.parametrize("operation", ["save", "import"])
def test_a_full_disk_keeps_the_old_copy(start, tmp_path, operation):
    values = {f"/{number:02}": "x" * 5000 for number in range(60)}
    large = start().client()
    Slice(large).update(values)
    save(large)
    package = export_package(large)
    folder = tmp_path / "s1/config"
    folder.mkdir(parents=True)
    service = start(prefix=["unshare", "-m", "sh", "-ec", SMALL_DISK, "sh", str(folder)])
    client = service.client()
    tuner = Slice(client)
    tuner.update({"/small": "1"})
    save(client)
    tuner.update(values)
    with pytest.raises(grpc.RpcError) as refused:
        save(client) if operation == "save" else import_package(client, package)
    assert refused.value.code().name == ("FAILED_PRECONDITION" if operation == "save" else "INTERNAL")
    assert "No space left on device" in refused.value.details()
    assert client.current_state() == "WARN"
    assert tuner.content() == {"/small": "1", **values}
    discard(client)
    assert tuner.content() == {"/small": "1"}
    tuner.state_id = ""
    clear(client)
    tuner.update({"/small": "2"})
    save(client)
    assert client.current_state() == "OK"


def test_a_start_that_cannot_read_a_value_saves_no_emptiness(start):
    service = start()
    client = service.client()
    Slice(client).update({"/a": "1", "/b": "2"})
    save(client)
    service.stop()
    saved = service.folder / "config/configuration"
    broken = saved / "sys/conf/mb/0/tuner/a/data"
    broken.chmod(0)
    without_rights = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]
    again = start("--configdir", str(service.folder / "config"), ready=False, prefix=without_rights)
    assert again.wait_end(20) < 0
    assert "Permission denied" in again.stderr
    assert str(broken) in again.stderr
    broken.chmod(0o640)
    third = start("--configdir", str(service.folder / "config"))
    assert Slice(third.client()).content() == {"/a": "1", "/b": "2"}
