"""Peers of a system monitor that are not state monitors, and the connections to them."""
import concurrent.futures
import contextlib
import itertools
import select
import socket
import struct
import threading
import time

import grpc

from kit.namespaces import free_port

_SERVICE = "Hox.Capability.StateMonitoring.Api.StateMonitoringService"
_PREFACE = 24  # bytes of HTTP/2 before the first frame
_HEADERS, _SETTINGS = 1, 4
_ACK = 1


class Elements:
    """Makes elements of the stream of a state monitor, each with new keys of its archive."""

    def __init__(self, protos):
        self._protos = protos
        self._indexes = itertools.count()

    def report(self, source="src", service_id="false", type="Test_Type", **fields):
        return self._protos.state.StateNotification(service_id=service_id, type=type, source=source,
                                                    **fields)

    def key(self):
        """The next key of the archive."""
        return f"/state/notifications/archive/{next(self._indexes):010d}"

    def empty(self, code=0, text=""):
        """An element without changes; code 0 is OK."""
        element = self._protos.tree.ObsTreeObserveChangeSet()
        element.observeStatus.statusCode = code
        element.observeStatus.errorMessage = text
        return element

    def of_reports(self, *reports, code=0, text=""):
        """An element with these reports, each as a new entry of the archive."""
        return self.of_values(*(self._protos.state.StoredNotification(stateNotification=report)
                                for report in reports), code=code, text=text)

    def of_sources(self, *sources):
        return self.of_reports(*map(self.report, sources))

    def of_values(self, *messages, code=0, text=""):
        """An element with these messages, of any type, as new values."""
        element = self.empty(code, text)
        for message in messages:
            pair = element.node_change_map[self.key()].nodePairList.add()
            pair.currentMessage.Pack(message)
        return element

    def of_bytes(self, type_name, value):
        """An element with one value of that type and these bytes, valid or not."""
        element = self.empty()
        pair = element.node_change_map[self.key()].nodePairList.add()
        pair.currentMessage.type_url = "type.googleapis.com/" + type_name
        pair.currentMessage.value = value
        return element

    def of_removals(self, *sources):
        """An element in which reports of these sources are removed from the archive."""
        element = self.of_sources(*sources)
        for pairs in element.node_change_map.values():
            pair = pairs.nodePairList[0]
            pair.prevMessage.CopyFrom(pair.currentMessage)
            pair.ClearField("currentMessage")
        return element


class FalsePeer:
    """A server with observeStateNotifications only.

    Each observer of its archive gets the elements of talk(call), messages or their bytes; call is
    the gRPC context of the call with the number of the observation, from 0 on, as `number`, and
    with wait(), which returns when the call or the server ends. The stream ends after the last
    element. status: the same for observers of its connections; by default nothing.
    """

    def __init__(self, talk, port=None, status=None):
        self.port = port or free_port()
        self.observations = 0
        self._talk = talk
        self._status = status or self._silence
        self._server = None
        self._is_closing = threading.Event()
        self.open()

    def open(self):
        """Listens; also again after close()."""
        self._is_closing.clear()
        self._server = grpc.server(
            concurrent.futures.ThreadPoolExecutor(16), options=[("grpc.so_reuseport", 0)],
            handlers=[grpc.method_handlers_generic_handler(_SERVICE, {
                "observeStateNotifications": grpc.unary_stream_rpc_method_handler(
                    self._observe, response_serializer=self._to_bytes)})])
        assert self._server.add_insecure_port(f"127.0.0.1:{self.port}") == self.port
        self._server.start()

    def close(self):
        """Ends all streams and connections."""
        self._is_closing.set()
        self._server.stop(0).wait(20)

    @staticmethod
    def _to_bytes(element):
        return element if isinstance(element, bytes) else element.SerializeToString()

    @staticmethod
    def _silence(call):
        call.wait()
        yield from ()

    def _observe(self, request, context):
        context.wait = lambda: self._wait(context)
        if b"/status" in request:
            yield from self._status(context)
            return
        context.number = self.observations
        self.observations += 1
        yield from self._talk(context)

    def _wait(self, context):
        while context.is_active() and not self._is_closing.wait(0.01):
            pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class ClosingPeer:
    """A server that accepts connections and closes each as soon as a call arrives, or as soon as
    gRPC takes it for connected. limit: how many it accepts before it refuses them."""

    def __init__(self, after_call=True, limit=None):
        self.connections = 0
        self._after_call = after_call
        self._limit = limit
        self._listener = socket.create_server(("127.0.0.1", free_port()))
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection, contextlib.suppress(OSError):
                connection.settimeout(20)
                self._greet(connection)
            self.connections += 1
            if self.connections == self._limit:
                self._listener.close()
                return

    def _greet(self, connection):
        connection.sendall(struct.pack(">IBI", _SETTINGS, 0, 0))
        _read(connection, _PREFACE)
        kind, _ = _read_frame(connection)
        if kind == _SETTINGS:
            connection.sendall(struct.pack(">IBI", _SETTINGS, _ACK, 0))
        while self._after_call and kind != _HEADERS:
            kind, _ = _read_frame(connection)

    def close(self):
        with contextlib.suppress(OSError):  # closed after the last connection
            self._listener.shutdown(socket.SHUT_RDWR)  # accept() does not notice close() alone
        self._listener.close()
        self._thread.join(25)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def _read(connection, count):
    data = b""
    while len(data) < count:
        part = connection.recv(count - len(data))
        if not part:
            raise ConnectionError("closed by the client")
        data += part
    return data


def _read_frame(connection):
    """Kind and payload of the next frame."""
    header = _read(connection, 9)
    return header[3], _read(connection, int.from_bytes(header[:3], "big"))


class Cable:
    """Passes on TCP connections to a port, by default of this machine, until it is cut. A long one
    passes everything on so many seconds late.
    """

    def __init__(self, to, host="127.0.0.1", seconds=0):
        self.port = free_port()
        self._to = (host, to)
        self._seconds = seconds
        self._listener = None
        self._thread = None
        self._ends = []
        self.plug()

    def plug(self):
        """Accepts connections, also again after cut()."""
        self._listener = socket.create_server(("127.0.0.1", self.port))
        self._thread = threading.Thread(target=self._serve, args=(self._listener,), daemon=True)
        self._thread.start()

    def drop(self):
        """Ends the connections that exist now; new ones are accepted."""
        ends, self._ends = self._ends, []
        for end in ends:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def cut(self):
        """Ends all connections and refuses new ones."""
        if self._thread.is_alive():
            self._listener.shutdown(socket.SHUT_RDWR)
            self._listener.close()
            self._thread.join(20)
        self.drop()

    def _serve(self, listener):
        while True:
            try:
                near, _ = listener.accept()
            except OSError:
                return
            try:
                far = socket.create_connection(self._to)
            except OSError:
                near.close()
                continue
            self._ends += [near, far]
            threading.Thread(target=self._pass_on, args=(near, far), daemon=True).start()

    def _pass_on(self, near, far):
        other = {near: far, far: near}
        with near, far, contextlib.suppress(OSError):
            while True:
                for end in select.select([near, far], [], [])[0]:
                    data = end.recv(1 << 16)
                    if not data:
                        return
                    time.sleep(self._seconds)
                    other[end].sendall(data)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut()
