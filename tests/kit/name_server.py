"""A name server that answers when the test wants it to."""
import socket
import threading

_ANSWERED_WITHOUT_ERROR = b"\x81\x80"
_TYPE_A = b"\x00\x01"
#: The name of the question, type A, class IN, no time to live, 4 bytes.
_ADDRESS = b"\xc0\x0c\x00\x01\x00\x01\x00\x00\x00\x00\x00\x04"


class NameServer:
    """Knows one IPv4 address for every name. Until release() it only keeps the questions, as a
    server does whose network is down."""

    def __init__(self, folder, address="127.0.0.1"):
        self._address = socket.inet_aton(address)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.53", 53))
        self.questions = []
        self._released = False
        #: What a program that asks this server has as /etc/resolv.conf.
        self.configuration = folder / "resolv.conf"
        self.configuration.write_text("nameserver 127.0.0.53\noptions timeout:30 attempts:3\n")
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            question, asker = self._socket.recvfrom(4096)
            if not question:
                return
            with self._lock:
                self.questions.append((question, asker))
                if self._released:
                    self._answer(question, asker)

    def _answer(self, question, asker):
        end = question.index(b"\0", 12) + 5
        has_address = question[end - 4:end - 2] == _TYPE_A
        self._socket.sendto(
            question[:2] + _ANSWERED_WITHOUT_ERROR + question[4:6] + bytes([0, has_address])
            + bytes(4) + question[12:end] + (_ADDRESS + self._address if has_address else b""),
            asker)

    def release(self):
        """Answers all questions so far and each further one at once."""
        with self._lock:
            self._released = True
            for question, asker in self.questions:
                self._answer(question, asker)

    def was_asked(self, name):
        """Whether there has been a question for the name."""
        labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
        with self._lock:
            return any(labels in question for question, _ in self.questions)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as end:
            end.sendto(b"", ("127.0.0.53", 53))
        self._thread.join(10)
        self._socket.close()
