"""A booted machine on which the packages are installed, upgraded and removed."""
import json
import pathlib
import re
import shutil
import subprocess

from kit.machine import Machine
from kit.wait import wait_until

SERVICE = "halvo-system.service"
ENDPOINT = "localhost:5005"
SLICE = {"nodeType": "mb", "nodeId": "0", "capabilityId": "tuner"}


class Packages:
    """A folder with one version of all packages."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)

    def file(self, name):
        """The file of the package with this name."""
        found = [file for file in self.folder.glob(f"{name}_*.deb")]
        assert len(found) == 1, f"{name}: {sorted(self.folder.glob('*.deb'))}"
        return found[0]

    def files(self):
        """All of them, without those of debug information."""
        return sorted(file for file in self.folder.glob("*.deb") if "-dbgsym_" not in file.name)

    def unpack(self, folder, *names):
        """The files of the named packages, below the folder."""
        for name in names:
            subprocess.run(["dpkg-deb", "-x", self.file(name), folder], check=True)

    def renewed(self, folder, version, settings=""):
        """The same packages as of another version, in the folder.

        settings: what that version adds to /etc/default/halvo-system."""
        folder.mkdir()
        for name in ("halvo-system", "halvo-mibs"):
            tree = folder / name
            subprocess.run(["dpkg-deb", "-R", self.file(name), tree], check=True)
            control = tree / "DEBIAN/control"
            old = re.search(r"^Version: (.*)$", control.read_text(), re.M).group(1)
            control.write_text(control.read_text().replace(old, version))
            if name == "halvo-system":
                with open(tree / "etc/default/halvo-system", "a") as file:
                    file.write(settings)
            subprocess.run(["dpkg-deb", "-Znone", "--root-owner-group", "-b", tree, folder],
                           check=True, stdout=subprocess.DEVNULL)
            shutil.rmtree(tree)
        return Packages(folder)


class PackagedMachine(Machine):
    """Boots without any of the packages; they must lie below the folder that it sees."""

    def __init__(self, folder, packages):
        super().__init__(folder, packages.folder, {}, [])
        self.packages = packages
        self._state_ids = {}

    def check(self, *command, seconds=60):
        """Runs a command that must succeed and returns what it says."""
        done = self.execute(*command, seconds=seconds)
        assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}"
        return done.stdout

    def shell(self, text, seconds=60):
        """The same for lines of the shell."""
        return self.check("sh", "-ec", text, seconds=seconds)

    def install(self, *files):
        """Installs or upgrades as an operator does, within two minutes; returns what is said."""
        return self.check(
            "env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "install", "-y", "-q",
            "--no-install-recommends", "-o", "Dpkg::Options::=--force-confold",
            *map(str, files or self.packages.files()), seconds=120)

    def ctl(self, *words):
        """Runs the operator's tool; returns the finished process."""
        return self.execute("halvoctl", *words)

    def change(self, key, value, endpoint=ENDPOINT):
        """Sets a key of the slice that the tests use."""
        text = {"@type": "type.googleapis.com/google.protobuf.StringValue", "value": value}
        answer = self.check("halvoctl", "-e", endpoint, "call", "updateCapConf", "-d", json.dumps({
            "confId": SLICE, "isPatch": True, "lastCapConfStateId": self._state_ids.get(endpoint, ""),
            "capConfChangeset": {"node_change_map": {key: {
                "nodePairList": [{"currentMessage": text}]}}}}))
        self._state_ids[endpoint] = json.loads(answer)["capConfStateId"]

    def observe_twice(self):
        """Two owners of the slice that the tests use, which ends the service."""
        request = json.dumps({"confId": SLICE})
        self.shell("for i in 1 2; do halvoctl call observeCapConf --owner "
                   f"-d '{request}' >/dev/null 2>&1 & done; wait")

    def slice(self, endpoint=ENDPOINT):
        """The keys and values of the slice in force."""
        request = json.dumps({"confId": SLICE})
        answer = self.shell(
            f"halvoctl -e {endpoint} call observeCapConf --owner -d '{request}' > /tmp/slice &"
            "until test -s /tmp/slice; do sleep 0.05; done; kill $!; wait; cat /tmp/slice")
        return {key: pairs["nodePairList"][0]["currentMessage"]["value"]
                for key, pairs in json.loads(answer)["node_change_map"].items()
                if not key.startswith("/__")}

    def start_instance(self, name, port, verb="start"):
        """Starts an instance of the template on that port and waits until it is active."""
        self.shell(f"echo HALVO_PORT={port} > /etc/default/halvo-{name};"
                   f"systemctl {verb} halvo-system@{name}")
        self.wait_until_active(f"halvo-system@{name}.service")

    def show(self, name, unit=SERVICE):
        """A property of a unit."""
        return self.run("systemctl", "show", "-P", name, unit).strip()

    def wait_until_active(self, unit=SERVICE, seconds=5):
        wait_until(lambda: self.show("ActiveState", unit) == "active", seconds,
                   lambda: f"{unit}: {self.run('systemctl', 'status', unit)}; active")

    def pid(self, unit=SERVICE):
        """The number of the service's process, as the machine sees it."""
        return int(self.show("MainPID", unit))

    def process(self, name):
        """A file of the service's process."""
        return self.run("cat", f"/proc/{self.pid()}/{name}")

    def set_options(self, text):
        """Settings of the unit, in force from the next start on."""
        self.shell(f"cat > /etc/default/halvo-system <<'E'\n{text}\nE")

    def log(self, unit=SERVICE):
        """The journal of a unit, whole."""
        self.run("journalctl", "--sync")
        return self.run("journalctl", "-u", unit, "-o", "cat", "--no-pager")
