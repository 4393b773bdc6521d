"""The built program as a child process."""
import os
import pathlib
import signal
import socket
import subprocess
import time

from kit.client import Client
from kit.memory import is_sanitized
from kit.namespaces import free_port, own_log
from kit.paths import program

#: The maximum time of a stop, from SIGTERM to the end of the process. A sanitizer makes everything
#: several times as slow.
STOP_SECONDS = 9.0 if is_sanitized() else 3.0

#: A service id that no other service of this process has: two with the same one collide.
OWN_ID = object()


def command_line(folder, *args, log_to_file=False):
    """The words that start the program; with log_to_file its log is below folder/log/halvo."""
    if not log_to_file:
        return [str(program()), *args, "--logstdout"]
    log = pathlib.Path(folder) / "log"
    log.mkdir(exist_ok=True)
    return [*own_log(log), str(program()), *args]


class Service:
    """One running program with its own ports, configuration folder and notify socket."""

    def __init__(self, protos, folder, *args, port=None, extport=False, log_to_file=False,
                 service_id=OWN_ID, prefix=(), bus=None, environment=()):
        """service_id: None for no such option. bus: the system bus, by default this process's."""
        self.protos = protos
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.port = port or free_port()
        self.extport = free_port() if extport else None
        self.service_id = f"head-{self.port}" if service_id is OWN_ID else service_id
        self.exit_status = None
        self.ready_seconds = None
        self.stop_seconds = None
        self.log_file = self.folder / "log/halvo/halvo-system.log"
        self.stdout_file = self.folder / "stdout"
        self.stderr_file = self.folder / "stderr"
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notify.bind(str(self.folder / "notify"))
        self._clients = []
        words = ["--port", str(self.port), "--configdir", str(self.folder / "config"), *args]
        if self.service_id is not None:
            words += ["--id", self.service_id]
        if extport:
            words += ["--extport", str(self.extport)]
        self._start = time.monotonic()
        with open(self.stdout_file, "wb") as out, open(self.stderr_file, "wb") as err:
            self.process = subprocess.Popen(
                [*prefix, *command_line(self.folder, *words, log_to_file=log_to_file)],
                stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                env={**os.environ, **(bus.environment if bus else {}), **dict(environment),
                     "NOTIFY_SOCKET": str(self.folder / "notify")})

    @property
    def address(self):
        return f"localhost:{self.port}"

    @property
    def stdout(self):
        return self.stdout_file.read_text(errors="replace")

    @property
    def stderr(self):
        return self.stderr_file.read_text(errors="replace")

    @property
    def log(self):
        return self.log_file.read_text(errors="replace")

    def next_notice(self, seconds=20.0):
        """The next text that the service sent to systemd; fails if none arrives in time."""
        deadline = time.monotonic() + seconds
        while True:
            self._notify.settimeout(0.05)
            try:
                return self._notify.recv(4096).decode()
            except socket.timeout:
                assert self.process.poll() is None, self._post_mortem("ended without a notice")
                assert time.monotonic() < deadline, self._post_mortem("sent no notice in time")

    def wait_ready(self):
        assert self.next_notice() == "READY=1"
        self.ready_seconds = time.monotonic() - self._start
        return self

    def notices(self):
        """All texts for systemd that have not been read yet."""
        self._notify.setblocking(False)
        texts = []
        while True:
            try:
                texts.append(self._notify.recv(4096).decode())
            except BlockingIOError:
                return texts

    def client(self, address=None):
        """A new client with its own connection, closed with the service."""
        client = Client(self.protos, address or self.address)
        self._clients.append(client)
        return client

    def signal(self, number=signal.SIGTERM):
        self.process.send_signal(number)

    def wait_end(self, seconds=STOP_SECONDS):
        """Waits for the end and returns the exit status; a service that hangs is killed."""
        try:
            self.exit_status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(self._post_mortem(f"still ran after {seconds} s")) from None
        return self.exit_status

    def stop(self):
        """Ends the service by SIGTERM and asserts exit status 0 in time. A second call has no
        effect."""
        if self.exit_status is not None:
            return
        assert self.process.poll() is None, self._post_mortem("had ended before its stop")
        start = time.monotonic()
        self.signal()
        self.wait_end()
        self.stop_seconds = time.monotonic() - start
        assert self.exit_status == 0, self._post_mortem("did not end cleanly")

    def close(self):
        """Releases everything, including the process, whatever state it is in."""
        for client in self._clients:
            client.close()
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._notify.close()

    def assert_alive(self):
        """Asserts that the service is running and answers."""
        assert self.process.poll() is None, self._post_mortem("is gone")
        with Client(self.protos, self.address) as client:
            client.current_state()

    def _post_mortem(self, what):
        log = self.log if self.log_file.exists() else ""
        return (f"the service {what}; status {self.process.poll()}\n--- stdout\n"
                f"{self.stdout[-3000:]}\n--- stderr\n{self.stderr[-6000:]}\n--- log\n{log[-3000:]}")
