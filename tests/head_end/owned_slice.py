"""One slice of the central store as its owner keeps it.

The rules of an owner that loses nothing which was accepted:

- Its file has the last accepted content with its state id, and the intention to change it, which is
  written before the change is sent.
- After each loss of its stream it observes again, with the last state id. What the store has
  replaces the file. If the store has nothing, or has the same although a change has had no answer,
  the whole slice is pushed: only then no such change can take effect any more.
- What arrives on the stream later is only a sign: it may be older than an answer that has overtaken
  it. So the slice is observed anew, and nothing is pushed before the answer.
"""
import hashlib
import json
import os
import pathlib
import threading
import time

import grpc
from google.protobuf import any_pb2, wrappers_pb2

from kit.configuration import STATE_ID

_ALREADY_EXISTS = 6


def value_text(packed):
    """A packed value as it crosses the pipes: its type and the hexadecimal digits of its bytes."""
    return f"{packed.type_url.rpartition('/')[2]} {packed.value.hex()}"


def fingerprint(text):
    """A short text that stands for a value in the model; ABSENT, which is None, for itself."""
    if text is None or len(text) < 60:
        return text
    return f"{text[:40]}... {hashlib.sha256(text.encode()).hexdigest()[:12]}"


def packed_value(text):
    name, _, digits = text.partition(" ")
    return any_pb2.Any(type_url="type.googleapis.com/" + name, value=bytes.fromhex(digits))


def state_id_of(packed):
    text = wrappers_pb2.StringValue()
    assert packed.Unpack(text)
    return json.loads(text.value)["value"]


class OwnedSlice:
    """events: a queue of (slice, element or None for the end, number of the observation). say: is
    told what happens, as fields of a line."""

    def __init__(self, client, capability, folder, events, say):
        self.capability = capability
        self.values = {}
        self.state_id = ""
        self.has_intention = False
        self.is_settled = False
        self._client = client
        self._conf_id = client.protos.configuration.ConfId(nodeType="mb", nodeId="0",
                                                           capabilityId=capability)
        self._file = pathlib.Path(folder) / f"{capability}.json"
        self._events = events
        self._say = say
        self._observation = 0
        self._call = None
        self._begin = 0.0
        if self._file.exists():
            self.__dict__.update(json.loads(self._file.read_text()))

    def _keep(self):
        new = self._file.with_suffix(".new")
        new.write_text(json.dumps({name: getattr(self, name)
                                   for name in ("values", "state_id", "has_intention")}))
        os.replace(new, self._file)

    def observe(self):
        """Starts an observation; the former one is ended."""
        if self._call:
            self._call.cancel()
        self.is_settled = False
        self._observation += 1
        self._begin = time.monotonic()
        request = self._client.protos.configuration.ObserveCapConfReq(
            confId=self._conf_id, lastCapConfStateId=self.state_id)
        self._call = self._client.configuration.observeCapConf(request, wait_for_ready=True)
        threading.Thread(target=self._read, args=(self._call, self._observation),
                         daemon=True).start()

    def _read(self, call, observation):
        try:
            for element in call:
                self._events.put((self, element, observation))
        except grpc.RpcError:
            pass
        self._events.put((self, None, observation))

    def on_event(self, element, observation):
        """An element of a stream, or its end."""
        if observation != self._observation:
            return
        if element is None:
            self.observe()
        elif self.is_settled:
            self._on_later(element)
        else:
            self._on_first(element)

    def _on_later(self, element):
        """The operator has reverted, imported or wiped."""
        pairs = element.node_change_map[STATE_ID].nodePairList
        if pairs and not pairs[0].HasField("currentMessage"):
            self.values, self.state_id = {}, ""  # a wipe: not to be pushed again
            self._keep()
        self.observe()

    def _on_first(self, element):
        observation = self._observation
        if element.observeStatus.statusCode == _ALREADY_EXISTS:
            self._said_read(same=self.state_id)
            if self.has_intention:
                self._push_all(self.state_id)
        else:
            assert element.observeStatus.statusCode == 0, element.observeStatus
            self._on_content({key: pairs.nodePairList[0].currentMessage
                              for key, pairs in element.node_change_map.items()})
        self.is_settled = self._observation == observation and not self.has_intention

    def _on_content(self, found):
        if not found:
            self._said_read()
            if self.state_id or self.has_intention:
                self._push_all("")
            return
        self.state_id = state_id_of(found.pop(STATE_ID))
        self.values = {key: value_text(packed) for key, packed in found.items()}
        self.has_intention = False
        self._keep()
        self._said_read(values=self.values, state_id=self.state_id)

    def _said_read(self, **what):
        self._say(kind="read", capability=self.capability, begin=self._begin, end=time.monotonic(),
                  **what)

    def _push_all(self, base):
        if self.push(self.values, False, base) != "accepted":
            self.observe()

    def push(self, changes, is_patch, base=None):
        """Sends one change; returns accepted, refused or unknown. The slice is observed anew by the
        caller unless it was accepted and the stream is alive."""
        base = self.state_id if base is None else base
        self.has_intention = True
        self._keep()
        begin = time.monotonic()
        what = {"capability": self.capability, "begin": begin, "base": base, "is_patch": is_patch,
                "changes": changes}
        self._say(kind="sent", **what)
        outcome, state_id = self._send(changes, is_patch, base)
        self._say(kind="update", end=time.monotonic(), outcome=outcome, state_id=state_id, **what)
        if outcome == "accepted":
            kept = dict(self.values) if is_patch else {}
            kept.update(changes)
            self.values = {key: value for key, value in kept.items() if value is not None}
            self.state_id = state_id
        # A patch that was accepted by a store without the slice has not become the whole.
        self.has_intention = outcome == "unknown" or not self._call.is_active()
        self._keep()
        return outcome

    def _send(self, changes, is_patch, base):
        request = self._client.protos.configuration.UpdateCapConfReq(
            confId=self._conf_id, isPatch=is_patch, lastCapConfStateId=base)
        for key, value in changes.items():
            pair = request.capConfChangeset.node_change_map[key].nodePairList.add()
            if value is not None:
                pair.currentMessage.CopyFrom(packed_value(value))
        try:
            answer = self._client.configuration.updateCapConf(request)
            return "accepted", answer.capConfStateId
        except grpc.RpcError as error:
            if error.code() == grpc.StatusCode.FAILED_PRECONDITION:
                return "refused", ""
            if error.code() in (grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.CANCELLED,
                                grpc.StatusCode.DEADLINE_EXCEEDED):
                return "unknown", ""
            raise
