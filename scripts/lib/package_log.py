"""The history of this machine's packages, as reports for the state monitor."""
import datetime
import pathlib
import re
import subprocess
from typing import NamedTuple

SERVICE = "package-manager"
DPKG_LOG = pathlib.Path("/var/log/dpkg.log")
APT_LOG = pathlib.Path("/var/log/apt/history.log")
DPKG_INFO = pathlib.Path("/var/lib/dpkg/info")

# The actions and states of dpkg, and the severity of each for the package.
_SEVERITY = {
    "installed": "OK", "conffile": "OK", "archives": "OK", "packages": "OK",
    "install": "BOOTING", "upgrade": "BOOTING", "configure": "BOOTING", "trigproc": "BOOTING",
    "unpacked": "BOOTING", "half-installed": "BOOTING", "half-configured": "BOOTING",
    "triggers-awaited": "BOOTING", "triggers-pending": "BOOTING",
    "remove": "WARN", "purge": "WARN", "disappear": "WARN", "config-files": "WARN",
    "not-installed": "WARN",
}
_APT_SEVERITY = {"Install": "OK", "Upgrade": "OK", "Reinstall": "OK", "Downgrade": "WARN",
                 "Remove": "WARN", "Purge": "WARN", "Error": "ERROR"}


class Report(NamedTuple):
    """One line of a log."""
    seconds: int
    kind: str
    source: str
    severity: str
    text: str


def _seconds(day, clock):
    return int(datetime.datetime.fromisoformat(f"{day} {clock}").timestamp())


def _from_dpkg():
    """One report per line: "<day> <time> status <state> <package> ..." or "... <action> ..."."""
    for line in DPKG_LOG.read_text(errors="replace").splitlines():
        words = line.split()
        if len(words) < 4:
            continue
        day, clock, action, *rest = words
        if action == "startup":
            state, kind, source = rest[0], "PackageManager_Run", "dpkg"
        elif action == "status" and len(rest) >= 2:
            state, kind, source = rest[0], "PackageManager_Package", rest[1]
        elif action == "conffile" and len(rest) >= 2:
            state, kind, source = action, "PackageManager_Conffile", rest[0].strip("/")
        else:
            state, kind, source = action, "PackageManager_Package", rest[0]
        yield Report(_seconds(day, clock), kind, source, _SEVERITY.get(state, "ERROR"),
                     " ".join([action, *rest]))


def _from_apt():
    """One report per package of each run."""
    begin = 0
    for line in APT_LOG.read_text(errors="replace").splitlines():
        word, _, rest = line.partition(": ")
        if word == "Start-Date":
            begin = _seconds(*rest.split())
        elif word in _APT_SEVERITY:
            for name, versions in re.findall(r"([^\s,()]+) \(([^)]*)\)", rest):
                yield Report(begin, "PackageManager_Package", name, _APT_SEVERITY[word],
                             f"{word.lower()} {name} {versions}")


def _from_package_status():
    """One report per package that dpkg knows, with the time at which its files were installed."""
    listing = subprocess.run(
        ["dpkg-query", "-W", "-f", "${binary:Package} ${db:Status-Status} ${Version}\\n"],
        check=True, stdout=subprocess.PIPE, text=True).stdout
    reports = []
    for line in listing.splitlines():
        name, state, *version = line.split()
        laid_out = [DPKG_INFO / f"{stem}.list" for stem in (name, name.split(":")[0])]
        times = [int(path.stat().st_mtime) for path in laid_out if path.exists()]
        reports.append(Report(max(times, default=0), "PackageManager_Package", name,
                              _SEVERITY.get(state, "ERROR"), " ".join([state, name, *version])))
    return sorted(reports)


def read(count):
    """The newest reports, oldest first, and the name of their source."""
    for path, reader in ((DPKG_LOG, _from_dpkg), (APT_LOG, _from_apt)):
        if path.exists():
            reports = list(reader())
            if reports:
                return reports[-count:], str(path)
    return _from_package_status()[-count:], "the package database"
