"""Services and clients of authors, at work: the example beside the operator's tool, and both
observers while what they observe is killed."""
import os
import re
import signal
import subprocess

import pytest

from kit.lines import Lines
from kit.namespaces import free_port
from kit.paths import program
from kit.wait import wait_until
from kit_sdk import ROOT, run

PYTHON = "/usr/bin/python3"


class Program:
    """A program that runs until the end of the block, with its lines."""

    def __init__(self, *words, **environment):
        self._words, self._environment = [str(word) for word in words], environment
        self.process, self.lines = None, None

    def start(self):
        self.process = subprocess.Popen(
            self._words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, env={**os.environ, **self._environment})
        self.lines = Lines(self.process.stdout)
        return self

    def end(self, number=signal.SIGTERM):
        """Returns the exit status."""
        self.process.send_signal(number)
        status = self.process.wait(10)
        self.lines.close()
        return status

    __enter__ = start

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.end(signal.SIGKILL)


@pytest.fixture
def lamp_service(lamp, tmp_path):
    """The example as a program, on a port of its own."""
    port = free_port()
    with Program(lamp / "lamp", "--logstdout", "--port", port, "--id", f"lamp-{port}",
                 "--configdir", tmp_path) as service:
        service.address = f"localhost:{port}"
        yield service


@pytest.fixture
def monitor(tmp_path):
    """The system service."""
    port = free_port()
    with Program(program(), "--logstdout", "--port", port, "--id", f"head-{port}", "--configdir",
                 tmp_path / "configuration") as service:
        service.address = f"localhost:{port}"
        yield service


def is_serving(ctl, address):
    wait_until(lambda: ctl(address)("services").status == 0, what="the service's answer")


def restart(service, ctl):
    service.end(signal.SIGKILL)
    service.start()
    is_serving(ctl, service.address)


def set_lamp(tool, name, percent):
    tool.ok("call", "setLamp", "-d", f'{{"name": "{name}", "lamp": {{"percent": {percent}}}}}')


def test_the_operators_tool_knows_the_example_without_its_proto(lamp_service, ctl):
    is_serving(ctl, lamp_service.address)
    tool = ctl(lamp_service.address)
    assert any(re.search(r"Lamp.LampService/setLamp +UPDATE +/lamps", line)
               for line in tool.ok("services").lines)
    watch = tool.start("watch", "/lamps/**")
    set_lamp(tool, "hall", 10)
    watch.out.wait_for_match(re.compile(r"^\+ /lamps/hall .*10"))
    refused = tool("call", "setLamp", "-d", '{"name": "a//b"}')
    assert (refused.status, '"a//b" cannot be a part of a key' in refused.err) == (3, True), refused
    assert lamp_service.end() == 0


def test_the_observer_of_the_example_reports_what_a_kill_has_changed(lamp, lamp_service, ctl):
    is_serving(ctl, lamp_service.address)
    tool = ctl(lamp_service.address)
    for name in ("a", "b", "c"):
        set_lamp(tool, name, 10)
    with Program(lamp / "lamp-observer", lamp_service.address) as observer:
        observer.lines.wait_for(*(f"/lamps/{name}: nothing -> 10 %" for name in "abc"))
        restart(lamp_service, ctl)
        observer.lines.wait_for(*(f"/lamps/{name}: 10 % -> nothing" for name in "abc"))
        set_lamp(tool, "a", 20)
        observer.lines.wait_for("/lamps/a: nothing -> 20 %")
        assert len(list(observer.lines)) == 7
        assert observer.end(signal.SIGINT) == 0


def python_path(prefix):
    return str(prefix / "lib/python3/dist-packages")


def test_the_observer_in_python_reports_what_a_kill_has_changed(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    tool = ctl(monitor.address)
    for source in ("a", "b"):
        tool.ok("state", "report", f"me/T/{source}", "warn", "hello")
    before = "/state/notifications/latest/me/T/{}: nothing -> 1 hello"
    after = "/state/notifications/latest/me/T/{}: 1 hello -> nothing"
    with Program(PYTHON, ROOT / "examples/observer.py", monitor.address,
                 "/state/notifications/latest/me/**",
                 PYTHONPATH=python_path(prefix)) as observer:
        observer.lines.wait_for(before.format("a"), before.format("b"))
        restart(monitor, ctl)
        observer.lines.wait_for(after.format("a"), after.format("b"))
        tool.ok("state", "report", "me/T/a", "warn", "hello")
        observer.lines.wait_for(before.format("a"), times=2)
        assert len(list(observer.lines)) == 5
        assert observer.end(signal.SIGINT) == 0


def python(prefix, text, *words):
    return run(PYTHON, "-c", text, *words,
               env={**os.environ, "PYTHONPATH": python_path(prefix)}).stdout


def test_the_module_calls_and_keeps_a_slice(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    printed = python(prefix, """
import sys, threading, halvo, grpc
client = halvo.Client(sys.argv[1])
print(client.call("getCurrentState").currentState)
mine = halvo.Slice(client, "mb", "0", "tuner")
print(mine.load())
report = halvo.message("Hox.Capability.StateMonitoring.Api.StateNotification", msg="kept")
mine.set("/a/b", report)
mine.set("/c", report)
mine.remove("/c")
other = halvo.Slice(client, "mb", "0", "tuner")
try:
    other.set("/a/b", report)
except grpc.RpcError as error:
    print(error.code().name)
print(other.load())
other.set("/d", report)
mine.load()
mine.remove("/d")
for name in ("getNothing", "set"):
    try:
        client.method(name)
    except LookupError as error:
        print(error)
seen, stop = [], threading.Event()
thread = threading.Thread(target=mine.observe, args=(lambda *pair: seen.append(pair), stop))
thread.start()
import time
client.call("updateSysConf", update_type={"discardChanges": True})
deadline = time.monotonic() + 10
while not seen and time.monotonic() < deadline:
    time.sleep(0.01)
stop.set()
thread.join()
print(seen)
try:
    halvo.observe(client, "/a//b", print, threading.Event())
except ValueError as error:
    print("refused")
""", monitor.address).splitlines()
    value = ("{'/a/b': {'@type': 'type.googleapis.com/"
             "Hox.Capability.StateMonitoring.Api.StateNotification', 'msg': 'kept'}}")
    assert printed == ["0", "{}", "FAILED_PRECONDITION", value, "'getNothing' names no method",
                       "'set' names no method", "[('/a/b', None)]", "refused"]


@pytest.mark.parametrize("first", ["halvo", "generated"])
def test_the_module_goes_with_generated_modules(prefix, tmp_path, first):
    """Also with those of the usual annotations, which other packages bring along."""
    run("protoc", f"-I{prefix / 'share/halvo/proto'}", f"--python_out={tmp_path}",
        "google/api/http.proto", "google/api/annotations.proto", "obstree.proto",
        "state_monitoring.proto")
    imports = ["import halvo", "import google.api.annotations_pb2, state_monitoring_pb2"]
    lines = ["import sys, google", f"sys.path.insert(0, {str(tmp_path)!r})",
             f"google.__path__.append({str(tmp_path / 'google')!r})",
             *(imports if first == "halvo" else reversed(imports)), "print('both')"]
    assert python(prefix, "\n".join(lines)) == "both\n"
