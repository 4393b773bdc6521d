"""A separate real journal daemon, in a mount namespace with its own /run."""
import json
import pathlib
import subprocess

from kit.wait import wait_until

_START = """
mount -t tmpfs tmpfs /run
mkdir -p /run/systemd/journal /run/log/journal
test -s /etc/machine-id || {
    echo 0123456789abcdef0123456789abcdef >/run/machine-id
    touch /etc/machine-id
    mount --bind /run/machine-id /etc/machine-id
}
exec /lib/systemd/systemd-journald
"""


class Journal:
    """Runs systemd-journald; a service started with the prefix writes to it."""

    def __init__(self):
        self._daemon = subprocess.Popen(
            ["unshare", "-m", "sh", "-ec", _START], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        socket = pathlib.Path(f"/proc/{self._daemon.pid}/root/run/systemd/journal/socket")
        try:
            wait_until(socket.exists, what="the journal's socket")
        except BaseException:
            self.close()
            raise

    @property
    def prefix(self):
        """The words to put before a command that uses this journal."""
        return ["nsenter", "-t", str(self._daemon.pid), "-m", "--"]

    def records(self, identifier="halvo-system"):
        """All records of a program, oldest first, each as a dictionary of its fields."""
        subprocess.run([*self.prefix, "journalctl", "--sync"], check=True, capture_output=True)
        text = subprocess.run(
            [*self.prefix, "journalctl", "-o", "json", "-t", identifier],
            check=True, capture_output=True, text=True).stdout
        return [json.loads(line) for line in text.splitlines() if line.startswith("{")]

    def close(self):
        self._daemon.terminate()
        try:
            self._daemon.wait(10)
        finally:
            self._daemon.kill()
            self._daemon.wait()
