"""Paths in the source tree."""
import os
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[2]

#: The folders of the proto files of the wire format.
PROTO_ROOTS = [
    ROOT / "components/hox_protos/proto",
    ROOT / "third_party",
    ROOT / "capabilities/state_monitoring/api/proto",
    ROOT / "capabilities/configuration/api/proto",
    ROOT / "capabilities/introspection/api/proto",
]


def program():
    """The program under test, from HALVO_PROGRAM or the release build."""
    return pathlib.Path(os.environ.get("HALVO_PROGRAM", ROOT / "build/release/bin/halvo-system"))


def mib_folder():
    """The folder in which the program finds the MIB of its traps."""
    return program().parent.parent / "share/snmp/mibs"
