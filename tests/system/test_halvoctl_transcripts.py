"""Sessions of an operator at a terminal, word for word.

A transcript is a text file: "$ " and a command, what the command prints (its notes after its result),
and "[status]" if its exit status is not 0. "! KEY VALUE" is no command: the owner of the slice
mb/0/tuner changes this key. What differs from run to run is replaced by <words> before the comparison.
"""
import contextlib
import os
import pathlib
import re
import subprocess

import pytest
from kit.configuration import Slice
from kit.ctl import command, environment
from kit.namespaces import own_machine
from kit.timed_changes import Records

FOLDER = pathlib.Path(__file__).with_name("transcripts")
VARYING = (
    (r"\d{4}-\d\d-\d\dT[0-9:.]+Z", "<instant>"),
    (r"\(\S*?(\w+\.cpp):\d+\)", r"(\1)"),
    (r"^[0-9a-f]{4}(?=  (import|guard) )", "<id>"),
    (r"(\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d", "<time>"),  # of another day, after midnight
    (r"(?<=<time>) {2,}", " "),
    (r"\(\d+ (s|min)\)", "<age>"),
    (r"(?<= )\d+(ms|s) +(?=\S)", "<age> "),
    (r"(confirm|rollback) [0-9a-f]{4}\b", r"\1 <id>"),
    (r"\b[0-9.]+ ms\b", "<duration>"),
    (r" +$", ""),
)


def commands_of(transcript):
    """The lines that do something, in their order."""
    return [line for line in transcript.splitlines() if line[:2] in ("$ ", "! ")]


class Session:
    """The operator at his desk: a folder of his own, and the tool in his PATH."""

    def __init__(self, service, owner, folder):
        self._service, self._owner, self._folder = service, owner, folder
        self._records = Records(service.address, folder / "state")
        tools = str(pathlib.Path(command()[0]).parent)
        self._environment = environment(
            PATH=f"{tools}:{os.environ['PATH']}", HALVO_ENDPOINT=service.address,
            XDG_STATE_HOME=str(self._records.state))

    def close(self):
        self._records.close()

    def run(self, line):
        """What the terminal shows after the line."""
        if line.startswith("! "):
            key, value = line[2:].split(" ", 1)
            self._owner.update({key: value})
            return ""
        done = subprocess.run(["bash", "-c", line[2:]], cwd=self._folder, env=self._environment,
                              capture_output=True, text=True, timeout=60, check=False,
                              stdin=subprocess.DEVNULL)
        status = f"[{done.returncode}]\n" if done.returncode else ""
        return self._constant(done.stdout + done.stderr) + status

    def _constant(self, text):
        text = text.replace(self._service.address, "<endpoint>")
        text = text.replace(self._service.service_id, "head-1")
        for pattern, word in VARYING:
            text = re.sub(pattern, word, text, flags=re.MULTILINE)
        return text


@pytest.mark.parametrize("name", sorted(file.stem for file in FOLDER.glob("*.txt")))
def test_a_session_reads_as_written(name, start, tmp_path):
    machine = own_machine(tmp_path / "machine", keep=tmp_path, variant="output:COFDM\n")
    service = start(prefix=machine)
    desk = tmp_path / "desk"
    desk.mkdir()
    expected = (FOLDER / f"{name}.txt").read_text()
    with contextlib.closing(Session(service, Slice(service.client()), desk)) as session:
        seen = "".join(f"{line}\n{session.run(line)}" for line in commands_of(expected))
    (tmp_path / f"{name}.txt").write_text(seen)
    assert seen == expected
