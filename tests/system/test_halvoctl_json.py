"""All JSON of the operator's tool is read by jq."""
import subprocess

import pytest
from kit.configuration import Slice, save
from kit.ctl import Ctl
from kit.daemons import Bus, MdnsDaemon

LATEST = "/state/notifications/latest/**"
#: The commands, each with its exit status. FILE is a package, DIFFERENT another one, OUT a new file.
COMMANDS = [
    (0, "ping"), (0, "services"), (0, "call getCurrentState"), (0, "call getSysConf"),
    (0, f"watch {LATEST} -n 2"), (0, "state"), (0, "state list"), (None, "conf status"),
    (0, "conf import FILE"), (0, "conf ls FILE"), (0, "conf get /sys/conf/mb/0/tuner/a FILE"),
    (4, "conf diff FILE DIFFERENT"), (0, "conf lint FILE"), (0, "conf verify FILE"),
    (0, "conf owner /sys/conf/mb/0/tuner/a"), (0, "conf pending"),
    (0, "conf import FILE --confirm 1h --discard-unsaved"), (0, "conf guard --timeout 1h"),
    (0, "log ls"), (0, "log set * debug"), (0, "log set * debug --for 1h"), (0, "snmp show"),
    (0, "snmp test"), (0, "discover"), (None, "doctor"), (0, "support OUT"), (0, "metrics")]


@pytest.fixture
def ctl(start, tmp_path):
    with Bus(tmp_path / "bus") as bus, MdnsDaemon(bus, tmp_path / "bus"):
        service = start("--sys_mon", bus=bus)
        running = Ctl(service.address, XDG_STATE_HOME=str(tmp_path / "state"), **bus.environment)
        client = service.client()
        tuner = Slice(client)
        tuner.update({"/a": "1"})
        save(client)
        running.ok("conf", "export", tmp_path / "FILE")
        tuner.update({"/a": '{"quoted": "\\u0001\\n\\u00fc"}', "/b": "\u00fc\n\x01"})
        save(client)
        running.ok("conf", "export", tmp_path / "DIFFERENT")
        running.ok("snmp", "set", "127.0.0.1", "--port", "1")
        client.create("x", "T", 'quoted " \\ \n', "ERROR", msg="\x1b[2J \u2028")
        tuner.update({"/c": "1"})
        yield running
        for number in [change["id"] for change in
                       running("conf", "pending", "-o", "json").json["changes"]]:
            running.ok("conf", "rollback", number, "--yes")


def jq(text):
    """The number of JSON values; it ends with an error if there is anything else."""
    run = subprocess.run(["jq", "-e", "--slurp", "length"], input=text, capture_output=True,
                         text=True, check=True)
    return int(run.stdout)


def test_all_json_is_read_by_jq(ctl, tmp_path):
    for kind in ("json", "jsonl"):
        for status, line in COMMANDS:
            words = [str(tmp_path / word) if word.isupper() else word for word in line.split()]
            result = ctl(*words, "-o", kind)
            assert status is None or result.status == status, (line, result)
            values = jq(result.out)
            wanted = len(result.lines) if kind == "jsonl" else 2 if "-n 2" in line else 1
            assert values == wanted > 0, (line, result)
