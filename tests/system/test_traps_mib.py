"""The MIB of the traps: correct, and in agreement with what is sent."""
import os
import subprocess

import pytest

from kit.mib import TABLE
from kit.paths import ROOT, mib_folder
from kit.snmp_configuration import set_manager
from kit.traps import PRODUCT, report, trap_oid

MIB = mib_folder() / "HALVO-QHED-MIB.txt"
TRAPS = [trap for pair in TABLE.values() for trap in pair]
VARIABLES = [("qhedSeverity", 1), ("qhedSource", 2), ("qhedMessage", 3)]


def findings(file):
    """What smilint prints. Its base modules are ours, as Debian has none; its configuration is none,
    as that of the machine may hide findings."""
    return subprocess.run(
        ["smilint", "-c", "/dev/null", "-l", "3", str(file)], check=True, text=True,
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        env={**os.environ, "SMIPATH": str(ROOT / "tests/mibs"), "HOME": "/"}).stdout


def translate(*arguments):
    """What a manager with the MIB says of a name or an OID."""
    return subprocess.run(
        ["snmptranslate", "-M", str(mib_folder()), "-m", "HALVO-QHED-MIB", *arguments],
        check=True, capture_output=True, text=True).stdout.strip()


def test_the_mib_has_neither_errors_nor_warnings():
    assert findings(MIB) == ""


@pytest.mark.parametrize("correct, spoiled", [
    ("STATUS      current", "STATUS      courant"),
    ("{ qhedNotifications 6 }", "{ qhedNotifications 5 }"),
    ("OBJECTS     { qhedSeverity, qhedSource, qhedMessage }", "OBJECTS { qhedSeverity, nothing }"),
    ('    REVISION "202611220000Z"', '    REVISION "202611210000Z"'),
    ("END", ""),
], ids=["word", "number", "unknown-object", "revision", "cut"])
def test_a_mistake_in_the_mib_is_found(tmp_path, correct, spoiled):
    text = MIB.read_text()
    assert correct in text
    file = tmp_path / MIB.name
    file.write_text(text.replace(correct, spoiled))
    assert findings(file) != ""


@pytest.mark.parametrize("name, number, arc", [
    *((*trap, 0) for trap in TRAPS), *((*variable, 2) for variable in VARIABLES)])
def test_each_name_has_its_number_and_a_description(name, number, arc):
    name, oid = f"HALVO-QHED-MIB::{name}", f".{PRODUCT}.{arc}.{number}"
    assert translate("-On", name) == oid
    assert translate(oid) == name
    described = translate("-Td", name)
    assert "DESCRIPTION" in described
    if arc == 0:
        assert "OBJECTS\t{ qhedSeverity, qhedSource, qhedMessage }" in described


def test_the_numbers_on_the_wire_have_the_names(monitor, trap_socket):
    client = monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    for kind, (bad, good) in TABLE.items():
        for severity, (name, _) in (("ERROR", bad), ("OK", good)):
            report(client, severity=severity, kind=kind)
            message = trap_socket.next()
            assert translate(trap_oid(message)) == f"HALVO-QHED-MIB::{name}"
            assert [translate(variable.oid) for variable in message.variables[2:]] == [
                f"HALVO-QHED-MIB::{variable}" for variable, _ in VARIABLES]
