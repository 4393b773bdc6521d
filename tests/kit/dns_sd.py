"""Foreign DNS-SD tools, avahi-browse and avahi-publish, and the packets of the loopback interface.
"""
import collections
import contextlib
import os
import re
import socket
import struct
import subprocess

from kit.lines import Lines
from kit.wait import wait_until

#: The type of all capability services.
CAPABILITY = "_capability._tcp"

#: One instance. The last four are None until it is resolved; txt is the list of records in the
#: order of the network.
Instance = collections.namedtuple(
    "Instance", "interface protocol name type domain host address port txt")


def subtype(capability):
    """The type under which the instances of one capability alone are found."""
    return f"_{capability}._sub.{CAPABILITY}"


def instance_names(service):
    """The names of both instances that the service publishes, unless it is a system monitor."""
    return [f"{capability}_{service.service_id}"
            for capability in ("configuration", "state_monitoring_uservice")]


def _unescaped(text):
    """The text whose special bytes are a backslash with three decimal digits or with the byte."""
    data = re.sub(rb"\\(\d{3}|.)",
                  lambda match: bytes([int(match[1])]) if len(match[1]) == 3 else match[1],
                  text.encode(), flags=re.S)
    return data.decode(errors="surrogateescape")


def _parsed(line):
    """The sign (+, = or -) and the instance of one line of avahi-browse -p."""
    sign, interface, protocol, name, kind, domain, *rest = line.split(";", 9)
    host, address, port, txt = rest or (None, None, None, None)
    if rest:
        port = int(port)
        # The browser lists the last record first.
        txt = [_unescaped(record) for record in re.findall(r'"((?:[^"\\]|\\.)*)"', txt)][::-1]
    return sign, Instance(interface, protocol, _unescaped(name), kind, domain, host, address, port,
                          txt)


def _start(bus, *options):
    return subprocess.Popen(["avahi-browse", "-rp", *options], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                            env={**os.environ, **bus.environment, "LC_ALL": "C.UTF-8"})


def browse_all(bus, kinds, seconds=60):
    """All instances of each type that are on the network now, resolved, sorted by their names.
    Takes a second. seconds: the limit; the tool does not end if an instance vanishes while it is
    resolved."""
    processes = {kind: _start(bus, "-t", kind) for kind in kinds}
    return {kind: _instances(process, seconds) for kind, process in processes.items()}


def _instances(process, seconds):
    try:
        output, _ = process.communicate(timeout=seconds)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        raise AssertionError(f"avahi-browse did not end within {seconds} s") from None
    assert process.returncode == 0, f"avahi-browse has ended with status {process.returncode}"
    seen = collections.defaultdict(list)
    for line in output.splitlines():
        sign, instance = _parsed(line)
        seen[sign].append(instance)
    # What has just ended may still appear, and vanishes.
    there = [instance.name for instance in seen["+"] if instance not in seen["-"]]
    found = [instance for instance in seen["="] if instance.name in there]
    assert len(found) == len(there), output
    return sorted(found, key=lambda instance: instance.name)


def browse(bus, kind=CAPABILITY, seconds=60):
    """The same for one type."""
    return browse_all(bus, [kind], seconds)[kind]


class Browser:
    """Follows a type until it is closed or the daemon is lost."""

    def __init__(self, bus, kind=CAPABILITY):
        self._process = _start(bus, kind)
        self._lines = Lines(self._process.stdout)

    def wait_for(self, sign, name, seconds=20):
        """Waits for an event of an instance: it has appeared (+), is resolved (=) or has vanished
        (-)."""
        wait_until(lambda: any((found, instance.name) == (sign, name)
                               for found, instance in map(_parsed, self._lines)),
                   seconds, lambda: f"'{sign}' of {name} among {list(self._lines)}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.terminate()
        self._process.wait(10)
        self._lines.close()


@contextlib.contextmanager
def published(bus, name, port, host=None):
    """A foreign instance of the type, on the network. host: by default this machine."""
    process = subprocess.Popen(
        ["avahi-publish", *(["-H", host] if host else []), "-s", name, CAPABILITY, str(port), "a=b"],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        env={**os.environ, **bus.environment, "LC_ALL": "C"})
    lines = Lines(process.stderr)
    try:
        lines.wait_for(f"Established under name '{name}'")
        yield
    finally:
        process.terminate()
        process.wait(10)
        lines.close()


class Wire:
    """Reads what the mDNS daemons on the loopback interface send."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind(("224.0.0.251", 5353))
        group = socket.inet_aton("224.0.0.251") + socket.inet_aton("127.0.0.1")
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
        self._socket.settimeout(20)

    def wait_for(self, data, is_answer):
        """The first answer, or question (probe), that contains the bytes."""
        while True:
            packet = self._socket.recv(9000)
            if bool(struct.unpack(">H", packet[2:4])[0] & 0x8000) == is_answer and data in packet:
                return packet

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()
