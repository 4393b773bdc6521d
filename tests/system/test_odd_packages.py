"""Packages and keys at the edges of what is taken, and beyond them."""
import gzip
import io
import random
import subprocess
import tarfile
import zipfile

import grpc
import pytest

from kit.configuration import Slice, clear, discard, export_package, import_package, save

LIMIT = 524288
SEED = 20240611


def archive(files, mode="w:gz"):
    out = io.BytesIO()
    if mode == "zip":
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as target:
            for name, content in files.items():
                target.writestr(name, content)
        return out.getvalue()
    with tarfile.open(fileobj=out, mode=mode) as target:
        for name, content in files.items():
            entry = tarfile.TarInfo(name)
            entry.size = len(content)
            target.addfile(entry, io.BytesIO(content))
    return out.getvalue()


def saved_files(service):
    root = service.folder / "config/configuration"
    return {str(path.relative_to(root)): path.read_bytes()
            for path in root.rglob("*") if path.is_file()}


class Store:
    """A running service with a saved copy, and a package with another one."""

    def __init__(self, service):
        self.service = service
        self.client = service.client()
        self.tuner = Slice(self.client)
        self.tuner.update({f"/{number}": f"packaged {number}" for number in range(5)})
        save(self.client)
        self.package = export_package(self.client)
        self.packaged = saved_files(service)
        self.tuner.update({"/kept": "1"}, patch=False)
        save(self.client)
        self.before = saved_files(service)

    def load(self, package):
        """Imports the package and returns the code and the text of the answer."""
        try:
            import_package(self.client, package)
        except grpc.RpcError as error:
            return error.code().name, error.details()
        return "OK", ""

    def assert_unchanged(self, what):
        assert saved_files(self.service) == self.before, what
        assert self.tuner.content() == {"/kept": "1"}, what


@pytest.fixture
def store(service):
    return Store(service)


def test_random_bytes_are_refused(store):
    source = random.Random(SEED)
    compressed_head = gzip.compress(b"", mtime=0)[:10]
    for _ in range(60):
        package = source.randbytes(source.choice([1, 2, 10, 100, 511, 512, 1024, 10240, 100000]))
        if source.random() < 0.3:
            package = compressed_head + package
        code, text = store.load(package)
        assert code == "INTERNAL", package[:40]
        assert text.startswith("Unable to unpack to filesystem - Error Archiving error: ")
        store.assert_unchanged(package[:40])
    store.service.assert_alive()


def test_a_package_cut_anywhere_is_whole_or_refused(store):
    for length in [*range(1, len(store.package), 11), *range(len(store.package) - 12,
                                                            len(store.package))]:
        code, text = store.load(store.package[:length])
        if code == "OK":  # only padding and the checksum are missing
            assert saved_files(store.service) == store.packaged, length
            import_package(store.client, archive(store.before))
            assert saved_files(store.service) == store.before
            continue
        assert code == "INTERNAL", length
        assert text.startswith("Unable to unpack to filesystem - Error Archiving error: ")
        store.assert_unchanged(length)


def test_a_plain_tar_cut_inside_an_entry_is_refused(store):
    package = archive({"a": b"x" * 2000, "sys/conf/mb/0/tuner/a/data": b"y" * 2000}, "w")
    for length in [1, 100, 511, 513, 1500, 2500, 3000, 3100, 3600, 5000]:
        code, _ = store.load(package[:length])
        assert code == "INTERNAL", length
        store.assert_unchanged(length)


def test_a_mutilated_package_replaces_all_or_nothing(store):
    source = random.Random(SEED)
    answers = []
    for _ in range(80):
        package = bytearray(store.package)
        for _ in range(source.randint(1, 4)):
            package[source.randrange(len(package))] = source.randrange(256)
        code, text = store.load(bytes(package))
        answers.append(code)
        # In full: with its times and its state id the package is another one in each run.
        case = f"{text}: {package.hex()}"
        if code == "OK":
            assert not (store.service.folder / "config/configuration.temp").exists(), case
            assert store.load(archive(store.before)) == ("OK", ""), case
            assert saved_files(store.service) == store.before, case
        else:
            assert code in ("INTERNAL", "INVALID_ARGUMENT", "FAILED_PRECONDITION"), case
            store.assert_unchanged(case)
    assert answers.count("INTERNAL") > 20
    store.service.assert_alive()


@pytest.mark.parametrize("wrap", [
    lambda files: archive(files, "zip"),
    lambda files: archive(files, "w"),
    lambda files: gzip.compress(archive(files, "zip")),
    lambda files: gzip.compress(archive(files, "w:gz")),
], ids=["zip", "tar", "zip in gzip", "gzip twice"])
def test_a_package_may_be_another_kind_of_archive(store, wrap):
    assert store.load(wrap(store.packaged)) == ("OK", "")
    assert saved_files(store.service) == store.packaged
    assert store.tuner.content() == {f"/{number}": f"packaged {number}" for number in range(5)}


@pytest.mark.parametrize("kind", ["zip", "w", "w:gz"])
def test_an_archive_inside_a_package_is_a_file_like_others(store, kind):
    inner = archive({"sys/conf/mb/0/tuner/evil/data": b"{}"}, kind)
    files = {**store.packaged, "inner": inner, "sys/conf/mb/0/tuner/inner.zip": inner}
    assert store.load(archive(files)) == ("OK", "")
    assert saved_files(store.service) == files
    assert "/evil" not in store.tuner.content()
    with tarfile.open(fileobj=io.BytesIO(export_package(store.client)), mode="r:gz") as exported:
        assert exported.extractfile("inner").read() == inner


def test_a_package_of_3_megabytes_is_taken_and_one_of_5_is_not(store):
    blob = random.Random(SEED).randbytes(3_000_000)
    files = {**store.packaged, "blob": blob}
    assert store.load(archive(files)) == ("OK", "")
    assert saved_files(store.service) == files
    with pytest.raises(grpc.RpcError) as refused:
        export_package(store.client)
    assert "the buffer is exceeding bufMaxSize" in refused.value.details()
    code, _ = store.load(archive({**files, "more": blob[:2_000_000]}))
    assert code == "RESOURCE_EXHAUSTED"
    assert saved_files(store.service) == files
    store.service.assert_alive()


def test_the_limit_of_an_export_holds_to_the_byte(service, client):
    identity = {"swvariant": b"output:QAM\n", "partno": b"0\n"}
    room = LIMIT - 1536 - 32 - sum(map(len, identity.values()))
    for directories, taken in ((0, room), (3, room - 2 * 32)):
        name = "d/" * directories + "blob"
        for size, fits in ((taken - 1, True), (taken, True), (taken + 1, False)):
            clear(client)
            import_package(client, archive({**identity, name: b"x" * size}))
            if fits:
                package = export_package(client)
                assert len(package) < LIMIT
                clear(client)
                import_package(client, package)
                assert saved_files(service) == {**identity, name: b"x" * size}
                continue
            with pytest.raises(grpc.RpcError) as refused:
                export_package(client)
            assert refused.value.code() == grpc.StatusCode.INTERNAL
            assert refused.value.details().startswith(
                "Unable to pack from filesystem - Error Archiving error: "
                "the buffer is exceeding bufMaxSize")


def test_a_state_id_of_the_whole_that_cannot_be_read_prevents_nothing(store, start):
    files = {**store.packaged, "__csid/data": b"broken"}
    assert store.load(archive(files)) == ("OK", "")
    assert saved_files(store.service) == files
    assert store.tuner.content() == {f"/{number}": f"packaged {number}" for number in range(5)}
    discard(store.client)
    store.service.assert_alive()
    store.service.stop()
    again = start("--configdir", str(store.service.folder / "config"))
    assert Slice(again.client()).content() == {f"/{number}": f"packaged {number}"
                                               for number in range(5)}


def long_key(total):
    """A key of the slice mb/0/tuner that is so long with the slice's root."""
    left = total - len("/sys/conf/mb/0/tuner")
    parts = []
    while left > 0:
        size = min(255, left - 1) if left - 1 - 255 != 1 else 200
        parts.append("/" + "k" * size)
        left -= size + 1
    return "".join(parts)


@pytest.mark.parametrize("key", ["/" + "x" * 255, "/a/" + "ü" * 127 + "x", long_key(3000)],
                         ids=["255 bytes", "255 bytes of UTF-8", "3000 bytes"])
def test_the_longest_keys_are_saved_packed_and_loaded(start, key):
    assert len(("/sys/conf/mb/0/tuner" + key).encode()) <= 3000
    service = start()
    client = service.client()
    tuner = Slice(client)
    tuner.update({key: "1"})
    save(client)
    package = export_package(client)
    before = saved_files(service)
    clear(client)
    assert tuner.content() == {}
    import_package(client, package)
    assert saved_files(service) == before
    assert tuner.content() == {key: "1"}
    service.stop()
    again = start("--configdir", str(service.folder / "config"))
    assert Slice(again.client()).content() == {key: "1"}


@pytest.mark.parametrize("key, text", [
    ("/" + "x" * 256, "Key has a component of more than 255 bytes: /sys/conf/mb/0/tuner/x"),
    ("/a/" + "ü" * 128, "Key has a component of more than 255 bytes: /sys/conf/mb/0/tuner/a/"),
    (long_key(3001), "Key is longer than 3000 bytes: /sys/conf/mb/0/tuner/k"),
], ids=["256 bytes", "256 bytes of UTF-8", "3001 bytes"])
def test_keys_one_byte_longer_are_refused(service, client, key, text):
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    with pytest.raises(grpc.RpcError) as refused:
        tuner.update({key: "1"})
    assert refused.value.code() == grpc.StatusCode.INVALID_ARGUMENT
    assert refused.value.details().startswith(text)
    save(client)
    assert tuner.content() == {"/a": "1"}
    service.assert_alive()


#: As many levels as a key may have, more than the service is given descriptors.
DEEP_KEY = "/a" * 1400
FEW_DESCRIPTORS = ["prlimit", "--nofile=1024"]


@pytest.fixture
def start_with_few(start, tmp_path):
    """Starts services with few descriptors; whatever depth they leave behind goes in the end, which
    pytest could not do."""
    yield lambda *args: start(*args, prefix=FEW_DESCRIPTORS)
    subprocess.run(["rm", "-rf", *map(str, tmp_path.glob("s*/config"))], check=True)


def test_a_key_may_have_more_levels_than_there_are_descriptors(start_with_few):
    service = start_with_few()
    client = service.client()
    tuner = Slice(client)
    tuner.update({DEEP_KEY: "1"})
    save(client)
    save(client)
    tuner.update({DEEP_KEY: "2"})
    discard(client)
    assert tuner.content() == {DEEP_KEY: "1"}
    package = export_package(client)
    clear(client)
    assert tuner.content() == {}
    import_package(client, package)
    assert tuner.content() == {DEEP_KEY: "1"}
    service.stop()
    again = start_with_few("--configdir", str(service.folder / "config"))
    tuner = Slice(again.client())
    assert tuner.content() == {DEEP_KEY: "1"}
    clear(tuner.client)
    assert tuner.content() == {}
    assert list((service.folder / "config/configuration").iterdir()) == []


@pytest.mark.parametrize("levels", [1200, 3000], ids=["1200 levels", "longer than a path"])
def test_a_deep_package_leaves_nothing_in_the_way(start_with_few, levels):
    store = Store(start_with_few())
    scratch = store.service.folder / "config/configuration.temp"
    deep = {"a/" * levels + "file": b"x"}
    foreign = archive({"partno": b"100013\n", **deep})
    assert store.load(foreign) == (
        "INVALID_ARGUMENT", "The configuration file is not compatible with this system")
    assert not scratch.exists()
    cut = archive({**deep, "rest": bytes(2000)}, "w")
    code, _ = store.load(cut[:cut.index(b"rest")] + b"garbage")
    assert code == "INTERNAL"
    assert scratch.exists()
    save(store.client)
    assert not scratch.exists()
    store.assert_unchanged(levels)


def test_a_package_with_a_path_that_is_too_long_is_refused(start_with_few):
    store = Store(start_with_few())
    code, text = store.load(archive({**store.before, "a/" * 3000 + "file": b"x"}))
    assert code == "FAILED_PRECONDITION"
    assert text.startswith("filesystem error: ")
    assert not (store.service.folder / "config/configuration.temp").exists()
    store.assert_unchanged("a long path")
