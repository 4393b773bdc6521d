"""The common functions of the demo: headings, checks, the operator, other processes."""
import os
import pathlib
import subprocess
import sys

from kit.ctl import Ctl


def check(condition, what):
    """Ends the demo with a clear message if its output would be wrong."""
    if not condition:
        raise SystemExit(f"demo: FAILED: {what}")


def headline(text):
    print(f"\n{text}\n{'-' * len(text)}")


class Operator:
    """The operator of a service: his tool, with what he sees.

    lines: of a long result only so many lines are shown."""

    def __init__(self, service, lines=10):
        self._ctl = Ctl(service.address, XDG_STATE_HOME=str(service.folder / "operator"))
        self._lines = lines

    def __call__(self, *words, status=0):
        """Runs the tool, which must end with this status; returns its result."""
        print(f"  $ halvoctl {' '.join(map(str, words))}")
        result = self._ctl(*words)
        lines = (result.out + result.err).splitlines()
        for line in lines[:self._lines]:
            print(f"  {line.rstrip()}")
        if len(lines) > self._lines:
            print(f"  ... {len(lines) - self._lines} more ...")
        check(result.status == status, f"halvoctl has ended with status {result.status}")
        return result


def start_process(script, folder, service, *args):
    """Starts a script of this folder as a separate process that is a client of the service."""
    folder.mkdir(exist_ok=True)
    return subprocess.Popen(
        [sys.executable, str(pathlib.Path(__file__).with_name(script)), service.address,
         str(folder), *map(str, args)],
        stdout=subprocess.PIPE, text=True, env=os.environ)
