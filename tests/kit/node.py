"""One node of a head-end: a separate machine whose systemd runs a node monitor."""
from kit.client import Client
from kit.machine import Machine
from kit.paths import program
from kit.wait import wait_until

#: Any port: each node has its own network.
PORT = 5005
_UNIT = """
[Unit]
Wants=avahi-daemon.service
After=dbus.service

[Service]
Type=notify
ExecStart={program} --node_mon --port {inner_port} --extport {port} --id {name} --configdir {folder}/config --logstdout
"""
#: Holds the boot up until there is a file.
_SLOW = """
[Service]
Type=oneshot
ExecStart=sh -c 'until test -e {folder}/continue; do sleep 0.01; done'
"""
_BROKEN = """
[Service]
Type=oneshot
ExecStart=/bin/false
"""


class Node(Machine):
    """Its boot waits for continue_boot()."""

    def __init__(self, folder, protos, name):
        self._client = None
        super().__init__(
            folder, program().parent.parent,
            {"halvo.service": _UNIT.format(program=program(), port=PORT, inner_port=PORT + 1,
                                             name=name, folder=folder),
             "slow.service": _SLOW.format(folder=folder),
             "broken.service": _BROKEN},
            ["halvo.service", "slow.service"])
        #: Where other monitors reach it.
        self.url = f"{self.ip}:{PORT}"
        self._client = Client(protos, self.url)
        self.protos = protos

    def continue_boot(self):
        (self.folder / "continue").touch()

    def fail(self):
        """From now on one of its units has failed."""
        self.run("systemctl", "start", "broken.service")

    def mend(self):
        self.run("systemctl", "reset-failed")

    @property
    def client(self):
        return self._client

    def state(self):
        """What its systemd says of it."""
        return self.run("systemctl", "is-system-running").strip()

    def wait_until_active(self):
        wait_until(lambda: self.run("systemctl", "is-active", "halvo.service") == "active\n", 20,
                   "the service of the node")

    def close(self):
        if self._client:
            self._client.close()
        super().close()
