"""Packages of all kinds, good and bad, byte by byte as a service may get them."""
import gzip
import io
import random
import tarfile

IDENTITY = {"swvariant": "output:QAM\n", "partno": "0\n"}

#: The saved form of a text.
TEXT = '{"@type":"type.googleapis.com/google.protobuf.StringValue","value":"x"}'

VALUE = {"sys/conf/mb/0/tuner/a/data": TEXT}


def entry(name, content="", kind=tarfile.REGTYPE, target=""):
    """One entry of an archive and its content."""
    info = tarfile.TarInfo(name)
    info.type, info.linkname = kind, target
    content = content if isinstance(content, bytes) else content.encode()
    info.size = len(content) if kind in (tarfile.REGTYPE, tarfile.XHDTYPE) else 0
    return info, content


def folder(name):
    return entry(name, kind=tarfile.DIRTYPE)


def package(files, *more):
    """The bytes of a package of these files (name to text) and further entries."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w:gz", format=tarfile.GNU_FORMAT) as archive:
        for info, content in (*(entry(name, text) for name, text in files.items()), *more):
            archive.addfile(info, io.BytesIO(content) if info.size else None)
    return out.getvalue()


def _good(*more, **files):
    return lambda: package({**IDENTITY, **VALUE, **files}, *more)


def _value(name, text=TEXT):
    return _good(entry(f"sys/conf/{name}/data", text))


def _saved(text):
    return _value("mb/0/tuner/wrong", text)


def _misfit(members):
    return _saved('{"@type":"type.googleapis.com/google.protobuf.StringValue",' + members + "}")


#: Name to the status with which a service refuses the package, "" if it takes it although
#: something is wrong with it, and to what makes the package.
BAD_PACKAGES = {
    "above 4 MiB": ("RESOURCE_EXHAUSTED",
                    _good(entry("large", random.Random(1).randbytes(4_300_000)))),
    "no archive above 4 MiB": ("RESOURCE_EXHAUSTED", lambda: b"x" * 4_300_000),
    "absolute": ("INTERNAL", _good(entry("/absolute", "x"))),
    "out of the folder": ("INTERNAL", _good(entry("a/../../b", "x"))),
    "link": ("INTERNAL", _good(entry("link", kind=tarfile.SYMTYPE, target="/etc"))),
    "hard link": ("INTERNAL", _good(entry("link", kind=tarfile.LNKTYPE, target="partno"))),
    "pipe": ("INTERNAL", _good(entry("pipe", kind=tarfile.FIFOTYPE))),
    "no UTF-8": ("INTERNAL", _good(entry("a\udcff", "x"))),
    "no name": ("INTERNAL", _good(entry(".", "x"))),
    "component of 256 bytes": ("INTERNAL", _value("mb/0/tuner/" + "k" * 256)),
    "129 components": ("INTERNAL", _value("mb/0/tuner" + "/a" * 124)),
    "129 folders": ("INTERNAL", _good(folder("a/" * 129))),
    "file above a file": ("INTERNAL", _good(entry("a", "x"), entry("a/b", "x"))),
    "file after a folder": ("INTERNAL", _good(folder("x/"), entry("x", "x"))),
    "folder below a file": ("INTERNAL", _good(entry("x", "x"), folder("x/y/"))),
    "40,001 entries": ("INTERNAL", _good(*[folder("d/")] * 39_998)),
    "above 8 MiB": ("INTERNAL", _good(entry("large", bytes(8 << 20)))),
    "empty file": ("INTERNAL", lambda: b""),
    "no archive": ("INTERNAL", lambda: b"no package"),
    "list of files": ("INTERNAL", lambda: b"#mtree\n./partno type=file contents=/etc/hostname\n"),
    "cut": ("INTERNAL", lambda: package({**IDENTITY, **VALUE})[:-20]),
    "wrong checksum": ("INTERNAL", lambda: package(IDENTITY)[:-8] + bytes(8)),
    "more after the end": ("INTERNAL", lambda: package({**IDENTITY, **VALUE}) + b"more"),
    "warning of the reader": ("INTERNAL", _good(entry("x", "garbage\n", kind=tarfile.XHDTYPE),
                                                entry("y", "x"))),
    "in no slice": ("FAILED_PRECONDITION", _value("a")),
    "data": ("FAILED_PRECONDITION", _value("mb/0/tuner/in/data/x")),
    "data~": ("FAILED_PRECONDITION", _value("mb/0/tuner/in/data~/x")),
    "star": ("FAILED_PRECONDITION", _value("mb/0/tuner/*")),
    "key above 3000 bytes": ("FAILED_PRECONDITION",
                             _value("mb/0/tuner" + ("/" + "k" * 200) * 15)),
    "part number": ("FAILED_PRECONDITION", _good(partno="none\n")),
    "part number of another machine": ("FAILED_PRECONDITION",
                                       _good(partno="none\n", swvariant="output:COFDM\n")),
    "folder of the identity": ("FAILED_PRECONDITION",
                               lambda: package({**VALUE, "partno": "0\n"}, folder("swvariant/"))),
    "empty value": ("", _saved("{}")),
    "no JSON": ("", _saved("no json")),
    "no type": ("", _saved('{"value":"@type"}')),
    "wrong field": ("", _misfit('"value":{}')),
    "wrong number": ("", _misfit('"value":1.5')),
    "field after null": ("", _misfit('"value":null,"more":1')),
    "no identity": ("", lambda: package(VALUE)),
    "twins": ("", _good(entry("sys/conf/mb/0/tuner2/a/data", TEXT))),
    "line end": ("", _value("mb/0/tuner/a\nb")),
    "estimate": ("", _good(entry("large", random.Random(1).randbytes(530_000)))),
}

#: Packages of other kinds in which nothing is wrong.
GOOD_PACKAGES = {
    "zeros after the end": lambda: package({**IDENTITY, **VALUE}) + bytes(100),
    "not compressed": lambda: gzip.decompress(package({**IDENTITY, **VALUE})),
    "file twice": _good(entry("note", "1"), entry("note", "2")),
    "folder after a file": _good(entry("x", "x"), folder("x/")),
    "folder of a file": _good(entry("folder/file", "1"), folder("folder/")),
}
