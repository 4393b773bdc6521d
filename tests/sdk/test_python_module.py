"""The module halvo, as it is installed, with the services of authors and the system service."""
import re

import pytest

from kit_sdk import PYTHON, Program, is_serving, python, python_environment, restart, run

#: How the programs of these tests begin.
HEAD = """
import sys, threading, grpc, halvo
from kit.wait import wait_until
client = halvo.Client(sys.argv[1])

def report(text):
    return halvo.message("Hox.Capability.StateMonitoring.Api.StateNotification", msg=text)

def short(key, value):
    return key + "=" + (value["msg"] if value else "gone")

class Observer:
    def __init__(self, observe):
        self.seen, self.stop, self.error = [], threading.Event(), None
        self.thread = threading.Thread(target=self.run, args=(observe,))
        self.thread.start()

    def run(self, observe):
        try:
            observe(lambda *pair: self.seen.append(short(*pair)), self.stop)
        except Exception as error:
            self.error = error

    def wait_for(self, *wanted):
        wait_until(lambda: sorted(self.seen) == sorted(wanted) or self.error, 20,
                   lambda: f"{wanted}: {self.seen}")

    def end(self):
        self.stop.set()
        self.thread.join()
        if self.error:
            raise self.error
"""


def test_the_module_calls_and_keeps_a_slice(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    printed = python(prefix, HEAD + """
print(client.call("getCurrentState").currentState)
mine = halvo.Slice(client, "mb", "0", "tuner")
print(mine.load())
mine.set("/a/b", report("kept"))
mine.set("/c", report("kept"))
mine.remove("/c")
other = halvo.Slice(client, "mb", "0", "tuner")
try:
    other.set("/a/b", report("kept"))
except grpc.RpcError as error:
    print(error.code().name)
print(other.load())
other.set("/d", report("kept"))
mine.load()
mine.remove("/d")
for name in ("getNothing", "set"):
    try:
        client.method(name)
    except LookupError as error:
        print(error)
observer = Observer(halvo.Slice(client, "mb", "0", "tuner").observe)
observer.wait_for("/a/b=kept")
client.call("updateSysConf", update_type={"discardChanges": True})
observer.wait_for("/a/b=kept", "/a/b=gone")
observer.end()
try:
    halvo.observe(client, "/a//b", print, threading.Event())
except ValueError as error:
    print("refused")
""", monitor.address).splitlines()
    value = ("{'/a/b': {'@type': 'type.googleapis.com/"
             "Hox.Capability.StateMonitoring.Api.StateNotification', 'msg': 'kept'}}")
    assert printed == ["0", "{}", "FAILED_PRECONDITION", value, "'getNothing' names no method",
                       "'set' names no method", "refused"]


def test_fields_may_have_the_names_of_parameters(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    python(prefix, HEAD + """
client.call("setLogLevel", name="AsyncGrpcClientHandler", level="debug")
request = halvo.message("Hox.Capability.Introspection.SetLogLevelReq",
                        name="AsyncGrpcClientHandler", level="info")
client.call("setLogLevel", request, timeout=10)
""", monitor.address)


def test_an_owner_whose_update_is_refused_gets_the_changes_of_others(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    python(prefix, HEAD + """
mine, other = (halvo.Slice(client, "mb", "0", "tuner") for _ in range(2))
mine.load()
mine.set("/a", report("mine"))
other.load()
observer = Observer(mine.observe)
other.set("/b", report("other"))
try:
    mine.set("/a", report("again"))
    raise SystemExit("not refused")
except grpc.RpcError as error:
    assert error.code() == grpc.StatusCode.FAILED_PRECONDITION, error
observer.wait_for("/b=other")
for second in (mine.load, lambda: mine.observe(print, threading.Event())):
    try:
        second()
        raise SystemExit("a second observer")
    except RuntimeError as error:
        assert "observed already" in str(error), error
mine.set("/a", report("again"))
observer.end()
assert short("/a", mine.load()["/a"]) == "/a=again"
""", monitor.address)
    assert monitor.process.poll() is None


def test_an_owner_gets_what_an_older_saved_copy_has(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    with Program(PYTHON, "-u", "-c", HEAD + """
mine = halvo.Slice(client, "mb", "0", "tuner")
mine.load()
observer = Observer(mine.observe)
mine.set("/a", report("old"))
mine.set("/b", report("kept"))
client.call("updateSysConf", update_type={"saveChanges": True})
mine.set("/a", report("new"))
mine.set("/c", report("unsaved"))
print("stored")
observer.wait_for("/a=old", "/c=gone")
mine.set("/c", report("again"))
observer.end()
print("told", *observer.seen)
""", monitor.address, **python_environment(prefix)) as owner:
        owner.lines.wait_for("stored")
        restart(monitor, ctl)
        assert sorted(owner.lines.wait_for_match(re.compile("told (.*)"))[1].split()) == [
            "/a=old", "/c=gone"]


def test_threads_may_share_a_slice(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    python(prefix, HEAD + """
mine = halvo.Slice(client, "mb", "0", "tuner")
mine.load()
owners = [Observer(lambda changed, stop, name=name: [
    mine.set(f"/{name}/{number}", report("x")) for number in range(30)]) for name in "ab"]
for owner in owners:
    owner.end()
assert len(mine.load()) == 60
""", monitor.address)


def test_a_service_without_the_method_is_told(prefix, lamp_service, ctl):
    is_serving(ctl, lamp_service.address)
    python(prefix, HEAD + """
mine = halvo.Slice(client, "mb", "0", "tuner")
for ask in (lambda: halvo.observe(client, "/**", print, threading.Event()), mine.load,
            lambda: mine.observe(print, threading.Event())):
    try:
        ask()
        raise SystemExit("no error")
    except grpc.RpcError as error:
        assert error.code() == grpc.StatusCode.UNIMPLEMENTED, error
""", lamp_service.address)


def test_an_observation_keeps_one_stream(prefix):
    """The question whose refusal shows that there is nothing ends with its answer."""
    python(prefix, HEAD + """
import concurrent.futures
answer = halvo.message("Hox.ObserverTree.ObsTreeObserveChangeSet",
                       observeStatus={"statusCode": "INVALID_ARGUMENT", "errorMessage": "empty"})
running, most = set(), []

def serve(request, context):
    running.add(request)
    most.append(len(running))
    ended = threading.Event()
    context.add_callback(ended.set)
    if request == b"":
        yield answer
    ended.wait()
    running.remove(request)

class Observed(grpc.GenericRpcHandler):
    def service(self, details):
        return grpc.unary_stream_rpc_method_handler(
            serve, response_serializer=lambda sent: sent.SerializeToString())

server = grpc.server(concurrent.futures.ThreadPoolExecutor(8), handlers=[Observed()])
port = server.add_insecure_port("127.0.0.1:0")
server.start()
client = halvo.Client(f"127.0.0.1:{port}")
observer = Observer(lambda changed, stop: halvo.observe(client, "/a/**", changed, stop))
wait_until(lambda: 2 in most)
wait_until(lambda: len(running) == 1 and b"" not in running)
observer.end()
server.stop(0)
""", "127.0.0.1:1")


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
