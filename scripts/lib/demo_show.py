"""The common functions of the demo: headings, checks, other processes."""
import os
import pathlib
import subprocess
import sys


def check(condition, what):
    """Ends the demo with a clear message if its output would be wrong."""
    if not condition:
        raise SystemExit(f"demo: FAILED: {what}")


def headline(text):
    print(f"\n{text}\n{'-' * len(text)}")


def start_process(script, folder, service, *args):
    """Starts a script of this folder as a separate process that is a client of the service."""
    folder.mkdir(exist_ok=True)
    return subprocess.Popen(
        [sys.executable, str(pathlib.Path(__file__).with_name(script)), service.address,
         str(folder), *map(str, args)],
        stdout=subprocess.PIPE, text=True, env=os.environ)
