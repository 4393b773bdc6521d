"""A service of the head-end that is not ours: it owns slices of the central store, keeps each in
a file of its own, and reports to a node.

usage: foreign_service.py <address of the store> <address of the node> <folder>
                          <folder of the generated code> <capability>...

Gets one command per line on standard input, in JSON, and says what happens on standard output,
where each line has a kind:

update   pushes a change of a slice: capability, changes, is_patch. Answered by "done"
settle   answered by "settled" as soon as every slice is as the store has it
report   creates a report at the node: the hexadecimal digits of the request. Answered by "done"

Each call to the store is one line of kind "read" or "update", see owned_slice.py; before an update
there is one of kind "sent". Ends with status 0 after SIGTERM.
"""
import json
import pathlib
import queue
import signal
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import grpc  # noqa: E402

from head_end.owned_slice import OwnedSlice  # noqa: E402
from kit.client import EAGER, Client  # noqa: E402
from kit.protos import Protos  # noqa: E402


def say(**what):
    print(json.dumps(what), flush=True)


class ForeignService:
    """Does one thing after the other: commands and what comes from the store."""

    def __init__(self, store, node, folder, capabilities):
        self._node = node
        self._events = queue.Queue()
        self._slices = {capability: OwnedSlice(store, capability, folder, self._events, say)
                        for capability in capabilities}
        self._awaited = None
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))

    def run(self):
        threading.Thread(target=self._read_commands, daemon=True).start()
        for slice_ in self._slices.values():
            slice_.observe()
        say(kind="there")
        while True:
            source, what, observation = self._events.get()
            if source is None:
                getattr(self, "_on_" + what.pop("command"))(**what)
            else:
                source.on_event(what, observation)
            self._say_settled()

    def _read_commands(self):
        for line in sys.stdin:
            self._events.put((None, json.loads(line), 0))

    def _on_update(self, number, capability, changes, is_patch):
        slice_ = self._slices[capability]
        outcome = "skipped"
        if slice_.is_settled:
            outcome = slice_.push(changes, is_patch)
            if outcome != "accepted" or slice_.has_intention:
                slice_.observe()
        say(kind="done", number=number, outcome=outcome)

    def _on_report(self, number, request):
        message = self._node.protos.state.CreateStateNotificationReq.FromString(
            bytes.fromhex(request))
        begin = time.monotonic()
        say(kind="reporting", number=number, begin=begin)
        outcome = "accepted"
        try:
            self._node.state.createStateNotification(message, timeout=1)
        except grpc.RpcError as error:
            outcome = error.code().name
        say(kind="done", number=number, outcome=outcome, begin=begin, end=time.monotonic())

    def _on_settle(self, number):
        self._awaited = number

    def _say_settled(self):
        if self._awaited is not None and self._events.empty() and all(
                slice_.is_settled for slice_ in self._slices.values()):
            say(kind="settled", number=self._awaited,
                slices={slice_.capability: [slice_.values, slice_.state_id]
                        for slice_ in self._slices.values()})
            self._awaited = None


def main(store, node, folder, code, *capabilities):
    protos = Protos(code, is_compiled=True)
    ForeignService(Client(protos, store, EAGER), Client(protos, node, EAGER), folder,
                   capabilities).run()


if __name__ == "__main__":
    main(*sys.argv[1:])
