"""The five processes of the head-end, which are started and ended again and again."""
import contextlib
import itertools
import json
import pathlib
import re
import signal
import subprocess
import sys
import threading
import time

from kit.client import EAGER, Client
from kit.lines import Lines
from kit.namespaces import free_port
from kit.paths import ROOT
from kit.service import STOP_SECONDS, Service
from kit.wait import wait_until

#: What no process may ever print. Nobody here ends a stream and keeps its connection.
_FATAL = re.compile(r"Assertion failed|Sanitizer|runtime error:|terminate called|\[critical\]|"
                    r"Traceback|has ended, but its connection remains")

#: How long a process may take to be ready, in seconds.
START_SECONDS = 30


class Failure(Exception):
    """A process has done what none may do."""


class Process:
    """One of the five. Each life has a folder of its own; the configuration remains.

    Ended by this class only: check() and each end find a process that has ended by itself."""

    def __init__(self, name, folder, model):
        self.name = name
        self.folder = pathlib.Path(folder) / name
        self.lives = 0
        self._model = model
        self._first_life = 1

    @property
    def is_up(self):
        """Whether it has been started and not ended: by this class."""
        raise NotImplementedError

    def start(self):
        self.lives += 1
        self._model.start(self.name)
        self._launch(self.folder / f"life-{self.lives}")

    def kill(self):
        """It cannot do anything about it."""
        self.check()
        begin = time.monotonic()
        self._child().kill()
        self._child().wait()
        self._ended(begin)

    def terminate(self):
        """It must end with status 0 in time."""
        self.check()
        is_ready = self.is_ready()
        begin = time.monotonic()
        self._child().terminate()
        try:
            status = self._child().wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            raise Failure(f"{self.name} still ran {STOP_SECONDS} s after SIGTERM, ready: {is_ready}"
                          ) from None
        # Before it is ready the signal has its plain effect, except in a wait for the store.
        is_waiting = any("Waiting for" in file.read_text(errors="replace")
                         for file in self.outputs())
        if status != 0 and (is_ready or is_waiting or status != -signal.SIGTERM):
            raise Failure(f"{self.name} has ended with status {status} after SIGTERM, "
                          f"ready: {is_ready}\n{self.tail()}")
        self._ended(begin)

    def _ended(self, begin):
        self._model.death(self.name, begin, time.monotonic())
        self._check_output()
        self._release()

    def pause(self):
        self.check()
        self._child().send_signal(signal.SIGSTOP)

    def resume(self):
        self._child().send_signal(signal.SIGCONT)

    def check(self):
        """Fails if it has ended by itself or has printed what none may print."""
        if self.is_up:
            status = self._child().poll()
            if status is not None:
                raise Failure(f"{self.name} has ended by itself with status {status}\n"
                              f"{self.tail()}")
            self._check_output()

    def _check_output(self):
        for file in self.outputs():
            text = file.read_text(errors="replace")
            found = _FATAL.search(text)
            if found:
                start = max(0, found.start() - 200)
                raise Failure(f"{self.name} has printed:\n{text[start:][:6000]}")

    def outputs(self):
        """The files of the present or last life."""
        folder = self.folder / f"life-{self.lives}"
        return [folder / name for name in ("stdout", "stderr") if (folder / name).exists()]

    def begin_round(self):
        """tail() begins with the present life."""
        self._first_life = max(1, self.lives)

    def tail(self):
        """The last lines of the output of each life of the round."""
        texts = []
        for life in range(self._first_life, self.lives + 1):
            for name in ("stdout", "stderr"):
                file = self.folder / f"life-{life}" / name
                text = file.read_text(errors="replace")[-2500:] if file.exists() else ""
                if text:
                    texts.append(f"--- {self.name}, life {life}, {name}\n{text}")
        return "\n".join(texts)

    def _launch(self, folder):
        raise NotImplementedError

    def _child(self):
        raise NotImplementedError

    def _release(self):
        raise NotImplementedError

    def is_ready(self):
        raise NotImplementedError

    def wait_ready(self):
        wait_until(lambda: self.check() or self.is_ready(), START_SECONDS,
                   lambda: f"the start of {self.name}\n{self.tail()}")

    def close(self):
        """Ends it in whatever state it is."""
        if self.is_up:
            self._child().kill()
            self._child().wait()
            self._release()


class Program(Process):
    """A halvo-system."""

    def __init__(self, name, folder, model, protos, bus, *options):
        super().__init__(name, folder, model)
        self.port = free_port()
        self._protos = protos
        self._bus = bus
        self._options = options
        self._service = None
        self._is_ready = False

    @property
    def address(self):
        return f"127.0.0.1:{self.port}"

    @property
    def is_up(self):
        return self._service is not None

    def client(self):
        """A client with its own connection, which may live longer than the process."""
        return Client(self._protos, self.address, EAGER)

    def _launch(self, folder):
        self._is_ready = False
        self._service = Service(self._protos, folder, "--configdir", str(self.folder / "config"),
                                *self._options, port=self.port, service_id=self.name,
                                bus=self._bus)

    def _child(self):
        return self._service.process

    def _release(self):
        self._service.close()
        self._service = None

    def is_ready(self):
        if self._service and not self._is_ready:
            self._is_ready = "READY=1" in self._service.notices()
        return self.is_up and self._is_ready


class Foreign(Process):
    """The foreign service, a program of its own; see foreign_service.py."""

    _NUMBERS = itertools.count(1)

    def __init__(self, folder, model, protos, store, node, capabilities):
        super().__init__("foreign", folder, model)
        self._node_name = node.name
        self._command = [sys.executable, str(ROOT / "tests/head_end/foreign_service.py"),
                         store.address, node.address, str(self.folder), str(protos.folder),
                         *capabilities]
        self._process = None
        self._lines = None
        self._answers = {}
        self._reports = {}
        self._sent = None
        self._reporting = None
        self._read = 0
        self._lock = threading.Lock()

    @property
    def is_up(self):
        return self._process is not None

    def _launch(self, folder):
        folder.mkdir(parents=True)
        with open(folder / "stderr", "wb") as err:
            process = subprocess.Popen(self._command, stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=err, text=True)
        with self._lock:
            self._lines = Lines(process.stdout)
            self._read = 0
            self._process = process

    def _child(self):
        return self._process

    def _release(self):
        with self._lock:
            self._lines.close()
            self._take_lines()
            self._take_unanswered()
            with contextlib.suppress(BrokenPipeError):  # a command that it has not read
                self._process.stdin.close()
            self._process = None

    def is_ready(self):
        return self.is_up and any('"there"' in line for line in self._lines)

    def ask(self, is_ending, **command):
        """Sends a command and returns the line that answers it; None if the process is not there,
        or has ended before the answer."""
        number = next(self._NUMBERS)
        with self._lock:
            if not self._process:
                return None
            if command["command"] == "report":
                self._reports[number] = command.pop("report")
            try:
                self._process.stdin.write(json.dumps({**command, "number": number}) + "\n")
                self._process.stdin.flush()
            except OSError:
                return None
            process = self._process
        wait_until(lambda: self._answered(number) or process is not self._process or is_ending(),
                   60, "the answer of the foreign service")
        return self._answers.get(number)

    def _answered(self, number):
        with self._lock:
            if self._process:
                self._take_lines()
        return number in self._answers

    def _take_lines(self):
        """Tells the model what the process has said since the last time."""
        lines = list(self._lines)
        for text in lines[self._read:]:
            if text.endswith("}"):
                self._take(json.loads(text))
        self._read = len(lines)

    def _take(self, line):
        kind = line.pop("kind")
        if kind == "read":
            self._model.owner_read(**line)
        elif kind == "update":
            self._sent = None
            self._model.owner_update(**line)
        elif kind == "sent":
            self._sent = line
        elif kind == "reporting":
            self._reporting = line
        elif kind in ("done", "settled"):
            self._answers[line["number"]] = line
            self._take_report(line)

    def _take_report(self, line):
        report = self._reports.pop(line["number"], None)
        if report:
            is_certain = line["outcome"] == "accepted"
            self._model.report(self._node_name, *report, line["begin"],
                               line["end"] if is_certain else float("inf"), is_certain)
            self._reporting = None

    def _take_unanswered(self):
        """What the process was doing when it ended may have happened, or may happen yet."""
        if self._sent:
            self._model.owner_update(**self._sent, end=time.monotonic(), outcome="unknown")
            self._sent = None
        if self._reporting:
            report = self._reports.pop(self._reporting["number"])
            self._model.report(self._node_name, *report, self._reporting["begin"], float("inf"),
                               False)
            self._reporting = None
        self._reports.clear()
