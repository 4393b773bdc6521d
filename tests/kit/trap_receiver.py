"""What receives traps: a real manager that knows the MIB, and a plain socket."""
import pathlib
import socket

from kit.daemons import Daemon
from kit.namespaces import free_port
from kit.paths import mib_folder
from kit.snmp_message import decode
from kit.wait import wait_until

#: The lines before and after each trap: the first ends with the community.
_START = "TRAP2, SNMP v2c, community "
_END = "\nend of trap\n"


class TrapReceiver(Daemon):
    """A running snmptrapd that has loaded the MIB of the build."""

    def __init__(self, folder, port=None):
        folder = pathlib.Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        self.port = port or free_port()
        configuration = folder / "snmptrapd.conf"
        configuration.write_text("disableAuthorization yes\n")
        super().__init__(folder, "snmptrapd", [
            "snmptrapd", "-f", "-C", "-c", str(configuration), "-Lo", "-n",
            "-M", str(mib_folder()), "-m", "HALVO-QHED-MIB", "-F", r"%P\n%V\n%v\nend of trap\n",
            f"udp:127.0.0.1:{self.port}"], {"SNMP_PERSISTENT_DIR": str(folder / "state")})

    def serves(self):
        return f" 0100007F:{self.port:04X} " in pathlib.Path("/proc/net/udp").read_text()

    def traps(self):
        """Each trap so far: its community and its variables as "<name> = <type>: <value>"."""
        blocks = self.output.split(_END)[:-1]
        return [block.partition(_START)[2].split("\n") for block in blocks]

    def wait_for_traps(self, number):
        """Waits until there are that many and returns them."""
        wait_until(lambda: len(self.traps()) >= number, what=f"{number} traps")
        assert len(self.traps()) == number, self.output
        return self.traps()


class TrapSocket:
    """Receives messages on a UDP port of the loopback interface."""

    def __init__(self, address="127.0.0.1", port=0):
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self._socket = socket.socket(family, socket.SOCK_DGRAM)
        self._socket.bind((address, port))
        self.port = self._socket.getsockname()[1]

    def next(self, seconds=10):
        """The next message; fails if none arrives in time."""
        self._socket.settimeout(seconds)
        return decode(self._socket.recv(1 << 16))

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
