"""The servers of a measurement: on free ports of a private network, with a bus and an mDNS daemon."""
import contextlib
import json
import os
import pathlib
import resource
import signal
import subprocess
import tempfile
import time

from kit.daemons import Bus, MdnsDaemon
from kit.namespaces import free_port, own_log

ROOT = pathlib.Path(__file__).resolve().parents[2]
TMPFS = "/dev/shm"  # folder of the service's files


def processor_seconds(process):
    """All of the time of the process, user and system."""
    return time.clock_gettime((~process.pid << 3) | 2)  # as clock_getcpuclockid(3)


class Server:
    """A running server process, ended with the context."""

    def __init__(self, client, command, port, log):
        self.client = client
        self.port = port
        self.log = log
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def last_words(self):
        """The end of the servers' output."""
        return pathlib.Path(self.log.name).read_text(errors="replace")[-2000:]

    def measure(self, *arguments):
        """Runs the load client against this server and returns its figures."""
        command = [self.client, *arguments, "--target", f"127.0.0.1:{self.port}",
                   "--process", str(self.process.pid)]
        result = subprocess.run(command, stdout=subprocess.PIPE, timeout=120, check=False)
        if result.returncode != 0:
            raise SystemExit(f"failed: {' '.join(command)}\n{self.last_words()}")
        return json.loads(result.stdout)


class Servers:
    """Starts servers; all are ended with the context."""

    def __init__(self, binaries):
        self.binaries = binaries
        os.environ["HALVO_PROGRAM"] = os.path.join(binaries, "halvo-system")
        self.client = os.path.join(binaries, "halvo-load-client")

    def __enter__(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]  # for as many connections as cases have
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        with contextlib.ExitStack() as end:
            self.folder = end.enter_context(
                tempfile.TemporaryDirectory(prefix="halvo-bench.", dir=TMPFS))
            bus = end.enter_context(Bus(pathlib.Path(self.folder) / "bus"))
            end.enter_context(MdnsDaemon(bus, pathlib.Path(self.folder) / "bus"))
            os.environ.update(bus.environment)
            self.log = end.enter_context(open(os.path.join(self.folder, "servers.log"), "wb"))
            self._end = end.pop_all()
        return self

    def __exit__(self, *details):
        return self._end.__exit__(*details)

    def service(self):
        """With an empty configuration."""
        port = free_port()
        folder = os.path.join(self.folder, str(port))
        os.mkdir(folder)
        return Server(self.client,
                      [*own_log(folder), os.path.join(self.binaries, "halvo-system"),
                       "--port", str(port), "--id", f"benchmark-{port}", "--configdir", folder],
                      port, self.log)

    def bare(self, keys=10000, has_reports=False):
        """`keys`: of its snapshots."""
        port = free_port()
        return Server(self.client, [os.path.join(self.binaries, "halvo-bare-server"),
                                    str(port), str(keys), *(["reports"] * has_reports)],
                      port, self.log)
