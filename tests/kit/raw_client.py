"""A client that speaks HTTP/2 by hand, so that it can omit what every library does: read answers,
answer pings."""
import socket
import struct

_PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
_DATA, _HEADERS, _SETTINGS, _PING, _WINDOW_UPDATE = 0, 1, 4, 6, 8
_ACK = END_STREAM = 1
_END_HEADERS = 4


def _frame(kind, flags, stream, payload=b""):
    return (struct.pack(">I", len(payload))[1:] + bytes([kind, flags]) +
            struct.pack(">I", stream) + payload)


def _text(text):
    """The name or value of a header, neither compressed nor in a table."""
    data = text.encode()
    if len(data) < 127:
        return bytes([len(data)]) + data
    return bytes([127, len(data) - 127]) + data


def _headers(path):
    fields = ((":method", "POST"), (":scheme", "http"), (":path", path),
              (":authority", "localhost"), ("content-type", "application/grpc"),
              ("te", "trailers"))
    return b"".join(b"\x10" + _text(name) + _text(value) for name, value in fields)


class RawClient:
    """One connection with a receive window of 64 kB unless more is allowed. Nothing is read unless
    requested."""

    def __init__(self, port, window=0):
        self._socket = socket.socket()
        self._socket.connect(("127.0.0.1", port))
        self._socket.sendall(_PREFACE + _frame(_SETTINGS, 0, 0))
        if window:
            self._socket.sendall(_frame(_WINDOW_UPDATE, 0, 0, struct.pack(">I", window)))
        self._stream = 1

    def call(self, path, request):
        """Sends a call of "/service/method"; does not wait for the answer."""
        self.call_with_bytes(path, request.SerializeToString())

    def call_with_bytes(self, path, message):
        body = b"\0" + struct.pack(">I", len(message)) + message
        self._socket.sendall(_frame(_HEADERS, _END_HEADERS, self._stream, _headers(path)) +
                             _frame(_DATA, END_STREAM, self._stream, body))
        self._stream += 2

    def wait_for_answer(self, seconds=20):
        """Waits until the first bytes have arrived; does not read them."""
        self._socket.settimeout(seconds)
        assert self._socket.recv(1, socket.MSG_PEEK)

    def wait_for_frames(self, kind, count, seconds=20):
        """Reads frames until `count` frames of this kind have arrived."""
        for frame in self.frames(seconds):
            count -= frame == kind
            if not count:
                return
        raise ConnectionError("the connection has ended")

    def ping(self):
        self._socket.sendall(_frame(_PING, 0, 0, b"\0" * 8))

    def frames(self, seconds=20, answers_pings=False):
        """The kind of each frame until the end of the connection; fails if nothing arrives for this
        time."""
        self._socket.settimeout(seconds)
        while True:
            header = self._read(9)
            if header is None:
                return
            payload = self._read(int.from_bytes(header[:3], "big"))
            yield header[3]
            if header[3] == _PING and not header[4] & _ACK and answers_pings:
                self._socket.sendall(_frame(_PING, _ACK, 0, payload))

    def _read(self, count):
        data = b""
        while len(data) < count:
            try:
                part = self._socket.recv(count - len(data))
            except ConnectionResetError:
                return None
            if not part:
                return None
            data += part
        return data

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


#: Kinds of frames: an element of a stream, the begin of an answer, and a ping.
DATA = _DATA
HEADERS = _HEADERS
PING = _PING
