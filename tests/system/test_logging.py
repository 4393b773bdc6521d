"""The destinations of log records, and their form there."""
import contextlib
import re

import pytest

from kit.journal import Journal
from kit.wait import wait_until

FILE_LINE = re.compile(r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]"
                       r"\[(trace|debug|info|warning|error|critical)\]\[[\w.]+\.(?:h|cpp):\d+\] .*")
STDOUT_LINE = re.compile(r"\[\d\d:\d\d:\d\d\.\d{3}\] "
                         r"\[(trace|debug|info|warning|error|critical)\] .*")
ERROR_LINE = re.compile(r"^\[[^]]*\]\[error\]\[([\w.]+):(\d+)\] ", re.M)
#: What a system monitor says of a trap receiver without an address.
NO_RECEIVER = "Failed to initialize SNMP Manager: Failed to open netsnmp session"


@pytest.fixture
def journal():
    daemon = Journal()
    yield daemon
    daemon.close()


def set_all(client, name):
    level = client.protos.introspection.LogLevel.Value(name)
    client.introspection.setAllLogLevels(
        client.protos.introspection.SetAllLogLevelsReq(level=level))


def make_an_error_record(client):
    client.state.setSnmpConf(client.protos.state.SetSnmpConfReq())


def records_once_there(journal, count):
    return wait_until(lambda: len(journal.records()) >= count and journal.records(),
                      what=f"{count} journal records")


def test_records_go_to_the_file_and_from_warnings_up_to_the_journal(start, journal):
    service = start("--sys_mon", log_to_file=True, prefix=journal.prefix)
    client = service.client()
    set_all(client, "trace")
    client.create()
    make_an_error_record(client)
    set_all(client, "info")
    service.stop()
    records = records_once_there(journal, len(ERROR_LINE.findall(service.log)))
    record = next(entry for entry in records if NO_RECEIVER in entry["MESSAGE"])

    line = next(text for text in service.log.splitlines() if NO_RECEIVER in text)
    place = ERROR_LINE.match(line)
    assert place, line
    file_name, line_number = place.groups()
    assert record["MESSAGE"].rstrip("\n") == f"[{file_name}:{line_number}] {NO_RECEIVER}"
    assert record["PRIORITY"] == "3"
    assert record["SYSLOG_IDENTIFIER"] == "halvo-system"
    # Each location field once: a list would mean that it occurs twice.
    assert record["CODE_LINE"] == line_number
    assert isinstance(record["CODE_FILE"], str)
    assert record["CODE_FILE"].endswith(file_name)
    assert isinstance(record["CODE_FUNC"], str) and record["CODE_FUNC"]

    # Records below a warning are in the file only.
    levels = {match.group(1) for match in map(FILE_LINE.match, service.log.splitlines()) if match}
    assert {"trace", "info", "error"} <= levels
    assert len(records) == len(ERROR_LINE.findall(service.log))
    assert {entry["PRIORITY"] for entry in records} == {"3"}


def test_nothing_goes_to_the_journal_or_a_file_with_standard_output(start, journal):
    service = start("--sys_mon", "--logstdout", log_to_file=True, prefix=journal.prefix)
    make_an_error_record(service.client())
    wait_until(lambda: NO_RECEIVER in service.stdout)
    service.stop()
    assert journal.records() == []
    assert not service.log_file.parent.exists()


def test_every_line_of_the_file_has_time_level_and_place(start):
    service = start(log_to_file=True)
    service.stop()
    lines = service.log.splitlines()
    assert lines
    for line in lines:
        assert FILE_LINE.fullmatch(line), line
    assert service.stdout == ""
    assert service.stderr == ""


def test_every_line_on_standard_output_has_time_and_level(start):
    service = start("--sys_mon")
    make_an_error_record(service.client())
    wait_until(lambda: NO_RECEIVER in service.stdout)
    line = next(text for text in service.stdout.splitlines() if NO_RECEIVER in text)
    assert STDOUT_LINE.fullmatch(line), line
    assert f"] [error] {NO_RECEIVER}" in line


def test_the_file_is_rotated_and_one_older_file_is_kept(start):
    service = start(log_to_file=True)
    client = service.client()
    set_all(client, "trace")
    folder = service.log_file.parent
    older = folder / "halvo-system.1.log"
    generations = set()
    for number in range(1000):
        client.create(msg=f"{number} " + "x" * 20000)
        with contextlib.suppress(FileNotFoundError):  # missing or being replaced
            with older.open("rb") as lines:
                generations.add(lines.read(100))
        if len(generations) >= 3:
            break
    set_all(client, "info")
    assert len(generations) >= 3
    assert sorted(entry.name for entry in folder.iterdir()) == [
        "halvo-system.1.log", "halvo-system.log"]
    assert service.log_file.stat().st_size <= 2_000_000
    assert 1_800_000 <= older.stat().st_size <= 2_000_000


def test_a_file_that_is_there_already_is_continued(start, tmp_path):
    folder = tmp_path / "s0/log/halvo"
    folder.mkdir(parents=True)
    (folder / "halvo-system.log").write_text("an older line\n")
    service = start(log_to_file=True)
    service.stop()
    assert service.log.startswith("an older line\n[")
    assert service.log.count("Shutting down server") == 1


def test_a_record_is_in_the_file_as_soon_as_the_call_is_answered(start):
    service = start("--sys_mon", log_to_file=True)
    make_an_error_record(service.client())
    assert NO_RECEIVER in service.log
