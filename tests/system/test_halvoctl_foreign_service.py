"""The operator's tool and a service that it was not built with, which has only the current version
of server reflection."""
import importlib
import json
import runpy
import subprocess
import sys
import threading
import types
from concurrent import futures

import grpc
import pytest
from google.protobuf import descriptor_pb2
from kit.ctl import Ctl
from kit.paths import PROTO_ROOTS

FOREIGN = """
syntax = "proto3";
package My;
import "obstree.proto";
message Own { int32 level = 1; repeated string names = 2; }
message Nothing {}
service Tuner {
  rpc observeTuner(Hox.ObserverTree.ObserveReq)
      returns (stream Hox.ObserverTree.ObsTreeObserveChangeSet) {
    option (Hox.ObserverTree.obs_tree_option) = { key: "/tuner" type: OBSERVE };
  }
  rpc getTuner(Nothing) returns (Own) {
    option (Hox.ObserverTree.obs_tree_option) = { key: "/tuner" type: READ };
  }
}
"""


class ForeignService:
    """A server of FOREIGN with a scripted stream."""

    def __init__(self, folder, protos):
        (folder / "foreign.proto").write_text(FOREIGN)
        reflection = "grpc/reflection/v1alpha/reflection.proto"
        includes = [f"-I{root}" for root in (folder, *PROTO_ROOTS, "/usr/share/grpc-proto")]
        subprocess.run(["protoc", *includes, f"--python_out={folder}",
                        f"--descriptor_set_out={folder}/set", "--include_imports",
                        "foreign.proto", reflection], check=True)
        sys.path.insert(0, str(folder))
        self.own = importlib.import_module("foreign_pb2")
        self.reflection = _load(folder / reflection.replace(".proto", "_pb2.py"))
        self.tree = protos.tree
        self.files = descriptor_pb2.FileDescriptorSet.FromString((folder / "set").read_bytes())
        self.questions = []
        self.more = threading.Semaphore(0)
        self.elements = []
        self.lost = 0  # so many observations end before their first element
        self.observations = 0
        self.server = grpc.server(futures.ThreadPoolExecutor(8))
        self.server.add_generic_rpc_handlers((self._handlers(),))
        self.port = self.server.add_insecure_port("127.0.0.1:0")
        self.server.start()

    def _handlers(self):
        def bytes_of(message):
            return message.SerializeToString()
        methods = {
            "/grpc.reflection.v1.ServerReflection/ServerReflectionInfo":
                grpc.stream_stream_rpc_method_handler(
                    self._reflect, self.reflection.ServerReflectionRequest.FromString, bytes_of),
            "/My.Tuner/observeTuner": grpc.unary_stream_rpc_method_handler(
                self._observe, self.tree.ObserveReq.FromString, bytes_of),
            "/My.Tuner/getTuner": grpc.unary_unary_rpc_method_handler(
                lambda _request, _context: self.own.Own(level=7, names=["a"]),
                self.own.Nothing.FromString, bytes_of),
        }

        class Handlers(grpc.GenericRpcHandler):
            def service(self, handler_call_details):
                return methods.get(handler_call_details.method)
        return Handlers()

    def _reflect(self, requests, _context):
        for request in requests:
            self.questions.append(request)
            answer = self.reflection.ServerReflectionResponse()
            name = request.file_by_filename or request.file_containing_symbol
            if request.list_services:
                answer.list_services_response.service.add(name="My.Tuner")
            elif name.startswith("My.") and name != "My.Unknown":
                self._add(answer, "foreign.proto")
            elif any(file.name == name for file in self.files.file):
                self._add(answer, name)
            else:
                answer.error_response.error_code = 5
            yield answer

    def _add(self, answer, name):
        for file in self.files.file:
            if file.name == name:
                answer.file_descriptor_response.file_descriptor_proto.append(
                    file.SerializeToString())

    def _observe(self, _request, _context):
        self.observations += 1
        if self.lost > 0:
            self.lost -= 1
            return
        for element in self.elements:
            yield element
        self.more.acquire(timeout=20)

    def change(self, before, after):
        """An element with a change of /tuner/1."""
        element = self.tree.ObsTreeObserveChangeSet()
        pair = element.node_change_map["/tuner/1"].nodePairList.add()
        if before:
            pair.prevMessage.Pack(before)
        if after:
            pair.currentMessage.Pack(after)
        return element


def _load(path):
    """The generated module, whose package would hide that of gRPC."""
    return types.SimpleNamespace(**runpy.run_path(str(path)))


@pytest.fixture(scope="module")
def foreign(tmp_path_factory, protos):
    service = ForeignService(tmp_path_factory.mktemp("foreign"), protos)
    yield service
    service.more.release(100)
    service.server.stop(None).wait(10)


@pytest.fixture
def tool(foreign):
    running = Ctl(f"127.0.0.1:{foreign.port}")
    yield running
    running.close()


def test_it_is_listed_described_and_called(tool):
    assert tool.ok("services").lines == [
        "METHOD                 OPERATION  ADDRESS",
        "My.Tuner/observeTuner  OBSERVE    /tuner",
        "My.Tuner/getTuner      READ       /tuner"]
    assert tool.ok("describe", "Own").out.startswith("message Own {\n  int32 level = 1")
    assert tool.ok("call", "getTuner").json == {"level": 7, "names": ["a"]}


def test_it_is_watched(foreign, tool):
    own = foreign.own.Own
    foreign.elements = [
        foreign.change(None, own(level=1)),
        foreign.change(own(level=1), own(level=2, names=["x"])),
        foreign.change(own(level=2, names=["x"]), None)]
    result = tool("watch", "-n", "3")
    assert (result.status, result.lines) == (0, [
        '+ /tuner/1 {"level":1,"names":[]}',
        "~ /tuner/1",
        "    ~ level: 1 -> 2",
        '    + names[0]: "x"',
        '- /tuner/1 {"level":2,"names":["x"]}'])


def test_a_value_of_an_unknown_type_is_shown_by_size_and_asked_for_once(foreign, tool):
    element = foreign.change(None, foreign.own.Own(level=1))
    pair = element.node_change_map["/tuner/1"].nodePairList[0]
    pair.currentMessage.type_url = "type.googleapis.com/My.Unknown"
    pair.currentMessage.value = b"12345"
    foreign.elements = [element] * 5
    foreign.questions.clear()
    assert tool("watch", "-n", "5").lines == ["+ /tuner/1 (My.Unknown, 5 bytes)"] * 5
    assert len([question for question in foreign.questions
                if question.file_containing_symbol == "My.Unknown"]) == 1
    value = json.loads(tool("watch", "-n", "1", "-o", "jsonl").out)["current"]
    assert value == {"@type": "type.googleapis.com/My.Unknown", "base64": "MTIzNDU="}


def test_an_error_in_the_stream_is_a_refusal(foreign, tool):
    element = foreign.tree.ObsTreeObserveChangeSet()
    element.observeStatus.statusCode = 3
    element.observeStatus.errorMessage = "no such \x1b[2Jpattern"
    foreign.elements = [element]
    result = tool("watch")
    assert (result.status, result.err) == (
        3, "halvoctl: INVALID_ARGUMENT: no such \\x1b[2Jpattern\n")


def test_a_snapshot_that_nobody_wants_is_left_out_although_the_first_was_lost(foreign, tool):
    own = foreign.own.Own
    foreign.lost = 1
    foreign.elements = [foreign.change(None, own(level=1)),
                        foreign.change(own(level=1), own(level=2))]
    result = tool("watch", "--no-snapshot", "-n", "1")
    assert (result.status, result.lines) == (0, ["~ /tuner/1", "    ~ level: 1 -> 2"])


def test_a_stream_that_ends_at_once_is_opened_less_and_less_often(foreign, tool):
    foreign.elements = []
    foreign.observations = 0
    foreign.more.release(100)
    result = tool("watch", "--for", "2500ms")
    while foreign.more.acquire(blocking=False):
        pass
    assert (result.status, result.out) == (0, "")
    assert 2 <= foreign.observations <= 5
    assert "(the service has ended the stream), trying again" in result.err
