"""A private D-Bus system bus with a real mDNS daemon on it."""
import os
import pathlib
import secrets
import signal
import socket
import subprocess

from kit.wait import wait_until

#: The name of the mDNS daemon on a bus.
AVAHI = "org.freedesktop.Avahi"

#: Words before a command that ends with the process of the number after them, however that ends.
_DIES_WITH = ["setpriv", "--pdeathsig", "KILL", "sh", "-c", 'test "$PPID" = "$0" && exec "$@"']

#: Root alone owns names, as on a real system bus; everybody may call everybody.
_BUS_CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
  <policy user="root"><allow own="*"/></policy>
</busconfig>
"""

#: Only IPv4, so that the address of a service on the loopback interface is always 127.0.0.1.
_AVAHI_CONFIGURATION = """\
[server]
allow-interfaces={interface}
use-ipv4=yes
use-ipv6=no
[wide-area]
enable-wide-area=no
[publish]
publish-workstation=no
publish-hinfo=no
publish-aaaa-on-ipv4=no
publish-addresses={addresses}
"""

#: Gives the daemon a /run and an /etc/avahi of its own: another one may run on this machine.
_IN_OWN_FOLDERS = """
mount -t tmpfs tmpfs /run
mount -t tmpfs tmpfs /etc/avahi
mkdir /etc/avahi/services
exec "$@"
"""


class DaemonError(RuntimeError):
    """A daemon does not serve; the text has its output."""


class Daemon:
    """A process that ends with this one and whose output is kept.

    Start it on a thread that lives as long as it shall. It has a session of its own, so that Ctrl-C
    in a terminal does not reach it.
    """

    def __init__(self, folder, name, command, environment=None):
        self.name = name
        self.process = None
        self._command = command
        self._environment = {**os.environ, **(environment or {}), "LC_ALL": "C"}
        self._output = pathlib.Path(folder) / f"{name}.log"

    def launch(self):
        """Starts the daemon without waiting."""
        with open(self._output, "wb") as output:
            self.process = subprocess.Popen(
                [*_DIES_WITH, str(os.getpid()), *self._command], stdin=subprocess.DEVNULL,
                stdout=output, stderr=output, env=self._environment, start_new_session=True)

    def start(self):
        """Starts the daemon and waits until it serves; raises DaemonError if it does not."""
        self.launch()
        try:
            wait_until(lambda: self.process.poll() is not None or self.serves())
        except AssertionError:
            self.close()
            raise DaemonError(f"{self.name} does not serve. Its output:\n{self.output}") from None
        if self.process.poll() is not None:
            raise DaemonError(f"{self.name} has ended with status {self.process.returncode}. "
                              f"Its output:\n{self.output}")

    def serves(self):
        raise NotImplementedError

    @property
    def output(self):
        return self._output.read_text(errors="replace")

    def stop(self):
        """Ends the daemon in an orderly manner."""
        self.process.terminate()
        self.process.wait(10)

    def kill(self):
        """Kills the daemon, which cannot tell anybody."""
        self.process.kill()
        self.process.wait(10)

    def pause(self):
        """Suspends the daemon: it keeps its connections and does not answer."""
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        """Continues a paused daemon."""
        self.process.send_signal(signal.SIGCONT)

    def close(self):
        """Ends the daemon, whatever state it is in; no error if it has never been started."""
        if self.process is None or self.process.poll() is not None:
            return
        self.resume()
        self.process.terminate()
        try:
            self.process.wait(3)
        except subprocess.TimeoutExpired:
            self.kill()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.close()


class Bus(Daemon):
    """A system bus, whose address stays the same when it is started again.

    The address is a name in the network namespace, not a file, so that a process in another mount
    namespace reaches it.
    """

    def __init__(self, folder):
        folder = pathlib.Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        self._socket = f"halvo-bus-{secrets.token_hex(8)}"
        self.address = f"unix:abstract={self._socket}"
        file = folder / "bus.conf"
        file.write_text(_BUS_CONFIGURATION.format(address=self.address))
        super().__init__(folder, "dbus-daemon", [
            "dbus-daemon", f"--config-file={file}", "--nofork", "--nopidfile", "--nosyslog"])

    @property
    def environment(self):
        """What a command must have in its environment to use this bus."""
        return {"DBUS_SYSTEM_BUS_ADDRESS": self.address}

    def serves(self):
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(f"\0{self._socket}") == 0

    def waiting(self):
        """The number of connections that the bus has not accepted."""
        line, = [line for line in subprocess.run(
            ["ss", "-Hxl"], capture_output=True, text=True, check=True).stdout.splitlines()
                 if self._socket in line]
        return int(line.split()[2])

    def ask(self, destination, path, method, *arguments):
        """The words of the answer to a call; none if nobody answers within a second."""
        return subprocess.run(
            ["dbus-send", f"--bus={self.address}", "--print-reply=literal", "--reply-timeout=1000",
             f"--dest={destination}", path, method, *arguments],
            capture_output=True, text=True, check=False).stdout.split()

    def names(self):
        """All names on the bus."""
        return set(self.ask("org.freedesktop.DBus", "/", "org.freedesktop.DBus.ListNames"))

    def connections(self):
        """The number of connections, without the one that asks."""
        return len([name for name in self.names() if name.startswith(":")]) - 1


class MdnsDaemon(Daemon):
    """An Avahi daemon on a bus, which uses one network interface.

    With an interface that does not exist it finds nothing, and publishes at once instead of after
    the second in which it asks the network whether a name is taken. Without addresses no instance
    can be resolved, and the daemon itself serves at once instead of after such a second. Needs
    root.
    """

    def __init__(self, bus, folder, interface="lo", has_addresses=True):
        self._bus = bus
        folder = pathlib.Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        file = folder / "avahi.conf"
        file.write_text(_AVAHI_CONFIGURATION.format(
            interface=interface, addresses="yes" if has_addresses else "no"))
        super().__init__(folder, "avahi-daemon", [
            "unshare", "-m", "sh", "-ec", _IN_OWN_FOLDERS, "sh", "avahi-daemon", "-f", str(file),
            "--no-drop-root", "--no-chroot", "--no-rlimits", "--no-proc-title"], bus.environment)

    def serves(self):
        answer = self._bus.ask(AVAHI, "/", f"{AVAHI}.Server.GetState")
        return answer == ["int32", "2"]
