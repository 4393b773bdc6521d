"""Packages and keys at the limits of what is accepted, and beyond them."""
import gzip
import io
import random
import tarfile
import time
import zipfile
import zlib

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


def test_a_package_cut_anywhere_is_refused(store):
    for length in [*range(0, len(store.package), 11), *range(len(store.package) - 12,
                                                            len(store.package))]:
        code, text = store.load(store.package[:length])
        assert code == "INTERNAL", length
        assert text.startswith("Unable to unpack to filesystem - Error Archiving error: ")
        store.assert_unchanged(length)


def test_a_plain_tar_cut_inside_an_entry_is_refused(store):
    package = archive({"a": b"x" * 2000, "sys/conf/mb/0/tuner/a/data": b"y" * 2000}, "w")
    for length in [1, 100, 511, 513, 1500, 2500, 3000, 3100, 3600, 5000]:
        code, _ = store.load(package[:length])
        assert code == "INTERNAL", length
        store.assert_unchanged(length)


def test_a_package_with_turned_bits_is_refused_or_the_same(store):
    source = random.Random(SEED)
    answers = []
    for _ in range(120):
        package = bytearray(store.package)
        for _ in range(source.randint(1, 4)):
            package[source.randrange(len(package))] ^= 1 << source.randrange(8)
        code, text = store.load(bytes(package))
        answers.append(code)
        # In full: its times and its state id make the package different in each run.
        case = f"{text}: {package.hex()}"
        assert not (store.service.folder / "config/configuration.temp").exists(), case
        if code == "OK":
            assert saved_files(store.service) == store.packaged, case
            assert store.load(archive(store.before)) == ("OK", ""), case
            assert saved_files(store.service) == store.before, case
        else:
            assert code == "INTERNAL", case
            store.assert_unchanged(case)
    assert answers.count("INTERNAL") > 90
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
    """A key of the slice mb/0/tuner of `total` bytes, including the slice's root."""
    left = total - len("/sys/conf/mb/0/tuner")
    parts = []
    while left > 0:
        size = min(255, left - 1) if left - 1 - 255 != 1 else 200
        parts.append("/" + "k" * size)
        left -= size + 1
    return "".join(parts)


#: 128 components including its slice.
DEEP_KEY = "/a" * 123


@pytest.mark.parametrize("key", ["/" + "x" * 255, "/a/" + "ü" * 127 + "x", long_key(3000), DEEP_KEY],
                         ids=["255 bytes", "255 bytes of UTF-8", "3000 bytes", "128 components"])
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
    (DEEP_KEY + "/b", f"Key has more than 128 components: /sys/conf/mb/0/tuner{DEEP_KEY}/b"),
], ids=["256 bytes", "256 bytes of UTF-8", "3001 bytes", "129 components"])
def test_keys_that_are_longer_are_refused(service, client, key, text):
    tuner = Slice(client)
    tuner.update({"/a": "1"})
    with pytest.raises(grpc.RpcError) as refused:
        tuner.update({key: "1"})
    assert refused.value.code() == grpc.StatusCode.INVALID_ARGUMENT
    assert refused.value.details().startswith(text)
    save(client)
    assert tuner.content() == {"/a": "1"}
    service.assert_alive()


def entry(name, kind=tarfile.REGTYPE, target="", content=b"1", **pax):
    """One tarfile entry with its content."""
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.pax_headers = kind, target, pax
    info.size = len(content) if kind == tarfile.REGTYPE else 0
    return info, content


def tar_of(*entries, form=tarfile.PAX_FORMAT):
    """A package of the entries."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w:gz", format=form) as target:
        for info, content in entries:
            target.addfile(info, io.BytesIO(content) if info.size else None)
    return out.getvalue()


def sparse(size):
    """A sparse file of this size with one byte of data."""
    return entry("holes", content=b"1\n0\n1\n".ljust(512, b"\0") + b"x".ljust(512, b"\0"),
                 **{"GNU.sparse.major": "1", "GNU.sparse.minor": "0", "GNU.sparse.name": "holes",
                    "GNU.sparse.realsize": str(size)})


@pytest.mark.parametrize("bad, reason", [
    (entry("a/../../../precious"), 'Entry with ".." in its name'),
    (entry("sys/conf/mb/0/tuner/.."), 'Entry with ".." in its name'),
    (entry("/etc/precious"), "Entry with an absolute name"),
    (entry("link", tarfile.SYMTYPE, "precious"), "Entry that is neither file nor folder"),
    (entry("partno", tarfile.LNKTYPE, "precious"), "Entry that is neither file nor folder"),
    (entry("pipe", tarfile.FIFOTYPE), "Entry that is neither file nor folder"),
    (entry("device", tarfile.CHRTYPE), "Entry that is neither file nor folder"),
    (entry("a/" * 129 + "data"), "Entry with a name of too many components"),
    (entry("a/" * 20000 + "data"), "Entry with a name "),
    (entry("sys/\udcff/data"), "Entry with a name that is no UTF-8"),
    (sparse(1 << 31), "More bytes than an archive may have"),
    (sparse((8 << 20) + 1), "More bytes than an archive may have"),
], ids=["out of the folder", "dots at the end", "absolute", "link", "hard link", "pipe", "device",
        "129 folders", "20000 folders", "no UTF-8", "2 GiB of a hole", "8 MiB and a byte"])
def test_what_no_package_may_hold_is_refused_at_once(store, tmp_path, bad, reason):
    precious = tmp_path / "precious"
    precious.write_text("0\n")
    if bad[0].linkname:
        bad[0].linkname = str(precious)
    good = [entry(name, content=content) for name, content in store.packaged.items()]
    for entries in ([*good, bad], [bad, *good]):
        begin = time.monotonic()
        code, text = store.load(tar_of(*entries))
        assert time.monotonic() - begin < 5
        assert (code, reason in text) == ("INTERNAL", True), text
        assert text.startswith("Unable to unpack to filesystem - Error Archiving error: ")
        assert not (store.service.folder / "config/configuration.temp").exists()
        store.assert_unchanged(reason)
        assert precious.read_text() == "0\n"
    store.service.assert_alive()


def test_a_package_is_not_decompressed_for_ever(store):
    zeros = bytes(1 << 20)
    bomb = b""
    packer = zlib.compressobj(9, zlib.DEFLATED, 31)
    bomb += packer.compress(archive({"partno": b"0\n"}, "w"))
    for _ in range(2500):
        bomb += packer.compress(zeros)
    bomb += packer.flush()
    begin = time.monotonic()
    code, text = store.load(bomb)
    assert time.monotonic() - begin < 10
    assert code == "INTERNAL"
    assert "more than the archive may hold" in text
    store.assert_unchanged("a bomb")


def test_a_list_of_files_of_this_machine_is_no_package(store, tmp_path):
    precious = tmp_path / "precious"
    precious.write_text("secret")
    listed = f"#mtree\n./partno type=file size=6 contents={precious}\n".encode()
    for package in (listed, gzip.compress(listed)):
        code, _ = store.load(package)
        assert code == "INTERNAL"
        store.assert_unchanged("a list")


@pytest.mark.parametrize("name", ["sys/conf////x/data", "sys/conf/x/data",
                                  "sys/conf/mb/0/tuner/data"])
def test_a_value_in_no_slice_is_refused(store, name):
    code, text = store.load(archive({**store.packaged, name: b"{}"}))
    assert code == "FAILED_PRECONDITION"
    assert "Key is in no slice: /sys/conf/" in text
    store.assert_unchanged(name)
    store.service.assert_alive()


def test_decomposed_characters_stay_as_they_are(start):
    """Two keys that look the same stay two keys, on export and on import."""
    service = start()
    client = service.client()
    values = {"/\u00e4": "composed", "/a\u0308": "decomposed", "/\u212b": "angstrom"}
    tuner = Slice(client)
    tuner.update(values)
    save(client)
    before = saved_files(service)
    package = export_package(client)
    foreign = [tar_of(*(entry(name, content=content) for name, content in before.items()), form=form)
               for form in (tarfile.PAX_FORMAT, tarfile.GNU_FORMAT)]
    for one in (package, *foreign):
        clear(client)
        import_package(client, one)
        assert tuner.content() == values
        assert {name: content for name, content in saved_files(service).items()
                if name.endswith("data")} == {name: content for name, content in before.items()
                                              if name.endswith("data")}
