"""Clients of the services of a head-end, without generated code.

    client = halvo.Client("localhost:5005")
    print(client.call("getCurrentState"))
    halvo.observe(client, "/state/notifications/latest/**", print, stop=threading.Event())

All messages are made from a protoset (a FileDescriptorSet) in a pool of this module's own, so nothing
can clash with generated modules that the process has loaded. Needs python3-grpcio and
python3-protobuf only.
"""
import contextlib
import json
import pathlib
import queue
import threading
import time

import grpc
from google.protobuf import (any_pb2, descriptor_pb2, descriptor_pool, json_format,
                             message_factory, wrappers_pb2)

__all__ = ["Client", "Slice", "add_protoset", "message", "observe"]

#: The seconds that a call may take, if its caller says nothing else.
CALL_SECONDS = 20

_STATE_ID_KEY = "/__csid"
#: Stands for no state of a slice: all of its content is sent.
_NO_STATE = "unknown"
#: Until the service has seen that a stream has ended, before the next one.
_STREAM_END_SECONDS = 0.5
#: How a stream ends whose service or connection has gone: it is worth another attempt.
_LOSSES = {grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.CANCELLED, grpc.StatusCode.UNKNOWN,
           grpc.StatusCode.INTERNAL, grpc.StatusCode.ABORTED, grpc.StatusCode.DEADLINE_EXCEEDED}
_ALREADY_EXISTS = grpc.StatusCode.ALREADY_EXISTS.value[0]

_pool = descriptor_pool.DescriptorPool()
_factory = message_factory.MessageFactory(_pool)
_files = set()
_methods = {}


def add_protoset(path):
    """Makes the services and messages of a protoset known, such as that of one's own service:
    protoc --include_imports --descriptor_set_out=<path>. Files that are known already stay."""
    _add(descriptor_pb2.FileDescriptorSet.FromString(pathlib.Path(path).read_bytes()).file)


def _add(files):
    for file in files:
        if file.name in _files:
            continue
        _pool.Add(file)
        _files.add(file.name)
        for service in file.service:
            for method in service.method:
                full = f"{file.package}.{service.name}".strip(".")
                _methods[f"{full}/{method.name}"] = method


def _class_of(name):
    return _factory.GetPrototype(_pool.FindMessageTypeByName(name.strip(".")))


def message(name, /, **fields):
    """A message by its full name, with the fields as json_format takes them. Raises KeyError for an
    unknown message, json_format.ParseError for what is not a field of it."""
    return json_format.ParseDict(fields, _class_of(name)(), descriptor_pool=_pool)


def _pack(value):
    packed = any_pb2.Any()
    packed.Pack(value)
    return packed


def _unpack(packed):
    """The message in an Any, or the Any itself if its type is not known."""
    try:
        return _class_of(packed.type_url.rpartition("/")[2]).FromString(packed.value)
    except KeyError:
        return packed


class Method:
    """One method of a service: called with a request, or with the fields of one."""

    def __init__(self, channel, path, method):
        self.path, self._request = path, method.input_type
        make = channel.unary_stream if method.server_streaming else channel.unary_unary
        self._call = make(f"/{path}", request_serializer=lambda sent: sent.SerializeToString(),
                          response_deserializer=_class_of(method.output_type).FromString)

    def __call__(self, request=None, /, *, timeout=CALL_SECONDS, **fields):
        """The answer, or the running call of a stream; raises grpc.RpcError. Waits for a service
        that is not there for as long as the call may take. A request that has a field `timeout` is
        made by message()."""
        if request is None:
            request = message(self._request, **fields)
        return self._call(request, timeout=timeout, wait_for_ready=True)


class Client:
    """A connection to the services at one address."""

    def __init__(self, address):
        # A service that is restarted is found again within a second.
        self.channel = grpc.insecure_channel(address, options=[
            ("grpc.initial_reconnect_backoff_ms", 500), ("grpc.max_reconnect_backoff_ms", 1000),
            ("grpc.max_receive_message_length", -1), ("grpc.max_send_message_length", -1),
            ("grpc.enable_http_proxy", 0), ("grpc.use_local_subchannel_pool", 1)])

    def method(self, name):
        """The method of this name, or of this end of its path; raises LookupError if there is none
        or more than one."""
        found = [path for path in _methods
                 if path == name or path.endswith((f"/{name}", f".{name}"))]
        if len(found) != 1:
            raise LookupError(f"{name!r} names {found or 'no method'}")
        return Method(self.channel, found[0], _methods[found[0]])

    def call(self, name, request=None, /, *, timeout=CALL_SECONDS, **fields):
        """Calls a method: call("setLogLevel", name="AsyncGrpcClientHandler", level="debug")."""
        return self.method(name)(request, timeout=timeout, **fields)

    def close(self):
        """Ends the connection and all calls on it."""
        self.channel.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class _Stream:
    """A running stream, whose elements are awaited with a limit; the loss of the service is None."""

    def __init__(self, call):
        self._call, self._elements, self._error = call, queue.Queue(), None
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            for element in self._call:
                self._elements.put(element)
        except grpc.RpcError as error:
            self._error = error
        self._elements.put(None)

    def next(self, seconds):
        """Raises queue.Empty if nothing comes in time, and the grpc.RpcError of a stream that has
        been refused."""
        element = self._elements.get(timeout=seconds)
        if element is None and self._error is not None and self._error.code() not in _LOSSES:
            raise self._error
        return element

    def cancel(self):
        """Ends the stream; may be repeated."""
        self._call.cancel()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cancel()


class _Content:
    """What an observer has reported, by key; reports what is different."""

    def __init__(self, changed):
        self._packed, self._changed = {}, changed

    def change(self, key, packed):
        old = self._packed.get(key)
        if old == packed:
            return
        if packed is None:
            del self._packed[key]
        else:
            self._packed[key] = packed
        self._changed(key, old and _unpack(old), packed and _unpack(packed))

    def replace(self, content):
        for key in self._packed.keys() - content.keys():
            self.change(key, None)
        for key, packed in content.items():
            self.change(key, packed)


def _changes(element):
    for key, pairs in element.node_change_map.items():
        for pair in pairs.nodePairList:
            yield key, pair.currentMessage if pair.HasField("currentMessage") else None


def observe(client, pattern, changed, stop, method="observeStateNotifications"):
    """Calls changed(key, old, new) for each key that the pattern selects and for each change, until
    the event `stop` is set. old is None for a new key, new for a removed one; a value of an unknown
    type stays packed.

    When the service ends it is observed anew, and only what has really changed meanwhile is
    reported. Raises ValueError for a pattern that the service refuses, grpc.RpcError if it refuses
    to be observed at all, and what `changed` raises.
    """
    bound, content, pause = client.method(method), _Content(changed), 0.2
    while not stop.is_set():
        with _Stream(bound(timeout=None, key_pattern=pattern)) as stream, \
                _Stream(bound(timeout=None, key_pattern="")) as probe:
            has_answered = _follow(stream, probe, content, stop)
        pause = 0.2 if has_answered else min(2 * pause, 5)
        stop.wait(pause)


def _follow(stream, probe, content, stop):
    """Until the end of the stream; whether the service has answered."""
    has_content, nothing_at = False, None
    while not stop.is_set():
        try:
            element = stream.next(0.1)
        except queue.Empty:
            if not has_content and nothing_at is None and _has_answered(probe):
                probe.cancel()
                nothing_at = time.monotonic() + 1
            if not has_content and nothing_at and time.monotonic() > nothing_at:
                has_content = True
                content.replace({})
            continue
        if element is None:
            return has_content
        if element.observeStatus.statusCode:
            raise ValueError(element.observeStatus.errorMessage)
        if has_content:
            for key, packed in _changes(element):
                content.change(key, packed)
        else:  # the snapshot, or the first change of what was empty
            has_content = True
            probe.cancel()
            content.replace({key: packed for key, packed in _changes(element) if packed})
    return has_content


def _has_answered(probe):
    """Whether the service has refused the probe, so that it has handled all earlier questions."""
    try:
        return probe.next(0.01) is not None
    except queue.Empty:
        return False


class Slice:
    """The configuration of one capability in the configuration service, for its only owner.

    Values are messages; they are stored as a StringValue with their JSON form, which the tools of an
    operator can show, and come back as dictionaries of that form. All functions may be called from
    any thread.
    """

    def __init__(self, client, node_type, node_id, capability_id):
        self._client = client
        self._name = {"nodeType": node_type, "nodeId": node_id, "capabilityId": capability_id}
        self._observer = threading.Lock()  # held by the only stream
        self._lock = threading.Lock()      # held over each update; guards what follows
        self._state_id, self._known, self._updates = _NO_STATE, {}, 0
        self._is_outdated = threading.Event()

    def load(self, seconds=CALL_SECONDS):
        """All values by key. Called before the first set(), which must be based on what is there,
        unless observe() has reported them. Raises RuntimeError while observe() runs,
        ConnectionError if the service does not answer, grpc.RpcError if it refuses."""
        with self._as_only_observer(), _Stream(self._observe(_NO_STATE)) as stream:
            try:
                element = stream.next(seconds)
            except queue.Empty:
                element = None
            if element is None:
                raise ConnectionError("the configuration service does not answer")
            with self._lock:
                self._replace(element)
                self._is_outdated.clear()
                return dict(self._known)

    def set(self, key, value):
        """Stores a message at a key. Raises grpc.RpcError: with FAILED_PRECONDITION if the slice has
        been changed by somebody else. A running observe() then reports these changes soon, otherwise
        load() returns them; after that the update can be repeated."""
        text = json_format.MessageToJson(_pack(value), descriptor_pool=_pool, indent=None)
        self._update(key, {"currentMessage": {
            "@type": "type.googleapis.com/google.protobuf.StringValue", "value": text}},
            json.loads(text))

    def remove(self, key):
        """Removes a key; raises like set()."""
        self._update(key, {}, None)

    def observe(self, changed, stop):
        """Calls changed(key, value) for what load() has not returned and for what an operator
        reverts, imports or wipes, until the event `stop` is set; the value is None for a removed
        key. After a loss of the service it reports what is different then. Raises RuntimeError if
        observe() runs already: a second observer ends the service. Raises ValueError for a value
        that is no JSON, grpc.RpcError if the service refuses, and what `changed` raises."""
        with self._as_only_observer():
            while not stop.is_set():
                with self._lock:
                    state_id = _NO_STATE if self._is_outdated.is_set() else self._state_id
                    self._is_outdated.clear()
                    updates = self._updates
                with _Stream(self._observe(state_id)) as stream:
                    self._follow(stream, updates, changed, stop)
                stop.wait(_STREAM_END_SECONDS)

    def _follow(self, stream, updates, changed, stop):
        """Until the end of the stream, or until the slice must be observed anew."""
        is_first = True
        while not stop.is_set() and not self._is_outdated.is_set():
            try:
                element = stream.next(0.1)
            except queue.Empty:
                continue
            if element is None:
                return
            with self._lock:
                if self._updates != updates:
                    # It may say what the slice was before the update.
                    self._is_outdated.set()
                    return
                changes = self._replace(element) if is_first else self._apply(element)
            is_first = False
            for key, value in changes.items():
                changed(key, value)

    @contextlib.contextmanager
    def _as_only_observer(self):
        if not self._observer.acquire(blocking=False):
            raise RuntimeError("the slice is observed already: a second observer ends the service")
        try:
            yield
        finally:
            self._observer.release()

    def _observe(self, state_id):
        return self._client.method("observeCapConf")(
            timeout=None, confId=self._name, lastCapConfStateId=state_id)

    def _update(self, key, pair, value):
        with self._lock:
            try:
                answer = self._client.call(
                    "updateCapConf", confId=self._name, lastCapConfStateId=self._state_id,
                    isPatch=True, capConfChangeset={"node_change_map": {key: {
                        "nodePairList": [pair]}}})
            except grpc.RpcError as error:
                if error.code() == grpc.StatusCode.FAILED_PRECONDITION:
                    self._is_outdated.set()
                raise
            self._state_id = answer.capConfStateId
            self._updates += 1
            self._keep({key: value})

    def _keep(self, changes):
        self._known.update(changes)
        self._known = {key: value for key, value in self._known.items() if value is not None}

    def _replace(self, element):
        """What is different from what is known, after the first element of a stream: it is all that
        there is, unless it says that the known state is the last one."""
        if element.observeStatus.statusCode == _ALREADY_EXISTS:
            return {}
        self._state_id = _NO_STATE
        content = self._values(element)
        changes = {key: None for key in self._known.keys() - content.keys()}
        changes.update((key, value) for key, value in content.items()
                       if self._known.get(key) != value)
        self._keep(changes)
        return changes

    def _apply(self, element):
        changes = self._values(element)
        self._keep(changes)
        return changes

    def _values(self, element):
        """Values by key; keeps the state id."""
        if element.observeStatus.statusCode:
            raise ValueError(element.observeStatus.errorMessage)
        values = {key: packed and _stored(key, packed) for key, packed in _changes(element)}
        state_id = values.pop(_STATE_ID_KEY, None)
        if state_id:
            self._state_id = state_id["value"]
        return values


def _stored(key, packed):
    """The value that the store has at a key; raises ValueError for what is not the JSON form of a
    message."""
    try:
        return json.loads(_unpack(packed).value)
    except (AttributeError, TypeError, ValueError) as error:
        raise ValueError(f"the value of {key} is no StringValue with the JSON form of a message") \
            from error


_add([descriptor_pb2.FileDescriptorProto.FromString(wrappers_pb2.DESCRIPTOR.serialized_pb)])
add_protoset(pathlib.Path(__file__).with_name("halvo.protoset"))
