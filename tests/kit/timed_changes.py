"""Changes of the operator's tool that revert by themselves."""
import datetime
import json
import os
import pathlib
import re
import signal

from kit.configuration import Slice, save
from kit.ctl import Ctl
from kit.wait import wait_until

OLD = {f"/key/{number}": f"old {number}" for number in range(3)}
NEW = {f"/key/{number}": f"new {number}" for number in range(4)}
#: A time that no test waits for.
LONG = "1h"
#: A time that is over soon: nothing may be expected until then.
SHORT = "1s"
PROMISE = re.compile(r"^Imported 4 keys in 1 slice\. Reverts at (?:\d{4}-\d\d-\d\d )?"
                     r"(\d\d:\d\d:\d\d) unless you run: halvoctl conf confirm ([0-9a-f]{4})\n$")
ORIGIN = ("halvoctl", "Confirmation", "conf/confirm")


def timers(state):
    """The processes that revert a change recorded below the folder."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        try:
            words = (entry / "cmdline").read_bytes().split(b"\0") if entry.name.isdigit() else []
            if b"--after" in words and f"XDG_STATE_HOME={state}".encode() in (
                    entry / "environ").read_bytes().split(b"\0"):
                found.append(int(entry.name))
        except (FileNotFoundError, ProcessLookupError):
            continue
    return found


class Records:
    """The records of an operator below a folder, and the tool that makes them."""

    def __init__(self, endpoint, state):
        self.state = state
        self.folder = state / "halvo/confirm"
        self.ctl = Ctl(endpoint, XDG_STATE_HOME=str(state))

    def ids(self):
        """Of the complete records."""
        return sorted(path.parent.name for path in self.folder.glob("*/record.json"))

    def contents(self):
        return [json.loads(path.read_text()) for path in self.folder.glob("*/record.json")]

    def wait_for_end(self, number):
        """Until the record is gone."""
        wait_until(lambda: number not in self.ids(), 20, f"the end of {number}")

    def timers(self):
        return timers(self.state)

    def kill_timers(self):
        """As a loss of power does."""
        for timer in self.timers():
            os.kill(timer, signal.SIGKILL)
        wait_until(lambda: not self.timers(), what="the end of all timers")

    def make_late(self, number):
        """From now on the time of the change is over, also if its timer does not know that."""
        path = self.folder / number / "record.json"
        content = json.loads(path.read_text())
        past = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(minutes=1)
        content["reverts_at"] = past.isoformat().replace("+00:00", "Z")
        path.write_text(json.dumps(content))

    def expire(self, number, *words):
        """Does at once what the timer would do at the end of the time; returns the result."""
        self.kill_timers()
        self.make_late(number)
        return self.ctl("conf", "rollback", number, "--auto", *words)

    def close(self):
        for path in self.folder.glob("*/record.json"):
            path.unlink()  # its timer ends
        wait_until(lambda: not self.timers(), what="the end of all timers")
        self.ctl.close()


class Site(Records):
    """A service whose configuration is OLD, a package with NEW, and the records of its operator.

    endpoint: where the tool finds the service.
    """

    def __init__(self, service, folder, endpoint=None):
        super().__init__(endpoint or service.address, folder / "state")
        self.service = service
        self.client = service.client()
        self.tuner = Slice(self.client)
        self.package = folder / "new.hpk"
        self.tuner.update(NEW)
        save(self.client)
        self.ctl.ok("conf", "export", self.package)
        self.tuner.update(OLD, removed=set(NEW) - set(OLD))
        save(self.client)

    def content(self):
        return Slice(self.client).content()

    def change(self, time_limit=LONG, *words):
        """Imports the package for some time; returns the id of the change."""
        result = self.ctl.ok("conf", "import", self.package, "--confirm", time_limit, *words)
        return PROMISE.match(result.out)[2]

    def pending(self):
        return self.ctl("conf", "pending", "-o", "json").json["changes"]

    def complaint(self):
        """The last report about a change that was not reverted, or None."""
        reports = [stored.stateNotification for stored in self.client.latest().stateList]
        return next((report for report in reports
                     if (report.service_id, report.type, report.source) == ORIGIN), None)
