"""The operator's tool examines services and their machines, packs support files and measures."""
import concurrent.futures
import contextlib
import json
import re
import shutil
import subprocess
import sys
import tarfile

import grpc
from kit.configuration import Slice, save
from kit.ctl import Ctl, command, environment
from kit.interposer import Interposer
from kit.namespaces import free_port, own_log, own_machine, own_path
from kit.snmp_configuration import set_manager
from kit.timed_changes import Records


def findings(result):
    """Name to outcome and text."""
    return {check["name"]: (check["result"], check["text"]) for check in result.json["checks"]}


def examined(ctl, *words, **kwargs):
    return findings(ctl("doctor", "-o", "json", *words, **kwargs))


def before_start(prefix, *words, **variables):
    """What the doctor finds in the namespaces that the words of the prefix make."""
    run = subprocess.run([*prefix, *command("doctor", "--before-start", "-o", "json", *words)],
                         capture_output=True, text=True, env=environment(**variables), check=False)
    assert not run.stderr
    return {check["name"]: check["result"] for check in json.loads(run.stdout)["checks"]}


def test_a_healthy_service(start, tmp_path):
    service = start(log_to_file=True)
    ctl = Ctl(service.address)
    result = ctl("doctor", XDG_STATE_HOME=str(tmp_path))
    assert result.status == 0 and not result.err, result
    assert all(re.fullmatch(r"(ok|warn|FAIL) [a-z-]+: .+", line) for line in result.lines)
    found = examined(ctl, XDG_STATE_HOME=str(tmp_path))
    assert {name for name, (outcome, _) in found.items() if outcome != "ok"} <= {"serial", "model"}
    assert found["listeners"][1] == f"process {service.process.pid} on port {service.port}"
    config = service.folder / "config"
    assert found["config-folder"][1] == f"{config} is writable by root"
    assert found["log-folder"][1] == "/var/log/halvo is writable by root"
    assert not list(config.glob("halvoctl-*"))


def test_nobody_at_the_endpoint_fails():
    port = free_port()
    result = Ctl(f"localhost:{port}")("doctor", "-o", "json")
    assert result.status == 4
    found = findings(result)
    assert found["endpoint"][0] == "FAIL" and "UNAVAILABLE" in found["endpoint"][1]
    assert found["listeners"][0] == "warn"


def test_several_endpoints_are_examined(ctl, service):
    result = ctl("doctor", "-e", f"localhost:{free_port()}")
    assert result.status == 4
    assert result.lines[0] == service.address
    assert [line for line in result.lines if " endpoint: " in line][1].startswith("FAIL ")


#: Listens on the loopback interface, as a program that shares its port.
_LISTENER = """
import socket, sys
with socket.socket() as listening:
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    listening.bind((sys.argv[1], int(sys.argv[2])))
    listening.listen()
    print("listens", flush=True)
    sys.stdin.read()
"""


def test_two_listeners_on_the_port_fail():
    port = free_port()
    with contextlib.ExitStack() as end:
        processes = []
        for address in ("127.0.0.1", "127.0.0.1", "127.0.0.2"):
            process = end.enter_context(subprocess.Popen(
                [sys.executable, "-c", _LISTENER, address, str(port)], stdin=subprocess.PIPE,
                stdout=subprocess.PIPE, text=True))
            end.callback(process.stdin.close)
            assert process.stdout.readline() == "listens\n"
            processes.append(process.pid)
        found = examined(Ctl(f"localhost:{port}"), "--timeout", "200ms")
    first, second = sorted(processes[:2])
    assert found["listeners"] == ("FAIL", f"processes {first}, {second} share port {port}: each "
                                  "gets some of the connections")


def test_unsaved_changes_and_a_configuration_that_cannot_be_exported(ctl, client):
    owned = Slice(client)
    owned.update({"/a": "x"})
    found = examined(ctl)
    assert found["unsaved"][0] == "warn" and found["package"][0] == "ok"
    owned.update({"/a": "x" * 530_000})
    save(client)
    result = ctl("doctor", "-o", "json")
    assert result.status == 4
    found = findings(result)
    assert found["unsaved"] == ("ok", "everything is saved")
    assert found["package"][0] == "FAIL" and "bufMaxSize" in found["package"][1]


def test_a_service_without_a_daemon_on_the_bus(ctl, tmp_path):
    found = examined(ctl, DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={tmp_path}/none")
    assert found["avahi"][0] == "FAIL"
    assert examined(ctl)["avahi"][0] == "ok"


def test_a_program_that_has_been_replaced(start, tmp_path):
    copied = tmp_path / "bin/halvo-system"
    copied.parent.mkdir()
    service = start()
    shutil.copy(f"/proc/{service.process.pid}/exe", copied)
    port = free_port()
    config = str(tmp_path / "config")
    with subprocess.Popen([copied, "--port", str(port), "--configdir", config, "--logstdout",
                           "--id", f"copy-{port}"], stdout=subprocess.PIPE, text=True) as other:
        ctl = Ctl(f"localhost:{port}")
        try:
            assert any(" is ready, pid " in line for line in other.stdout)
            assert examined(ctl)["program"] == ("ok", str(copied))
            copied.unlink()
            assert examined(ctl)["program"] == (
                "warn", f"{copied} has been replaced: the former version runs until a restart")
        finally:
            other.kill()


def test_the_mib_that_traps_need(start, tmp_path):
    service = start("--sys_mon")
    ctl = Ctl(service.address)
    assert examined(ctl)["mib"] == ("ok", "no traps are sent")
    set_manager(service.client(), trap_port=str(free_port()))
    assert examined(ctl)["mib"][0] == "ok"
    found = examined(ctl, "--program", tmp_path / "bin/halvo-system")
    assert found["mib"][0] == "FAIL"


def test_the_mib_of_the_machine_is_found_before_a_start(tmp_path):
    traps = tmp_path / "config/state_monitoring_uservice/snmp/data"
    traps.parent.mkdir(parents=True)
    traps.write_text("{}")
    (tmp_path / "mibs").mkdir()
    mibs = own_path("/usr/share/snmp/mibs", tmp_path / "mibs")
    words = ("-e", f"localhost:{free_port()}", "--configdir", tmp_path / "config")
    assert before_start(mibs, *words)["mib"] == "FAIL"
    (tmp_path / "mibs/HALVO-QHED-MIB.txt").write_text("")
    assert before_start(mibs, *words)["mib"] == "ok"


def test_a_service_that_does_not_describe_itself(protos):
    port = free_port()
    server = grpc.server(concurrent.futures.ThreadPoolExecutor(2),
                         options=[("grpc.so_reuseport", 0)])
    assert server.add_insecure_port(f"127.0.0.1:{port}") == port
    server.start()
    try:
        found = examined(Ctl(f"localhost:{port}"))
    finally:
        server.stop(0).wait(20)
    assert found["endpoint"][0] == "ok"
    assert found["reflection"][0] == "warn" and found["reflection"][1].endswith("; use --protoset")
    assert (found["unsaved"][0], found["package"][0]) == ("FAIL", "FAIL")


def test_another_machine_is_not_examined():
    found = examined(Ctl("192.0.2.1:5005"), "--timeout", "200ms")
    assert found["machine"] == (
        "warn", "192.0.2.1:5005 is another machine: only there it can be examined")
    assert set(found) == {"endpoint", "machine", "confirmations"}


def test_before_a_start_the_daemon_may_be_missing(tmp_path):
    found = before_start([], "-e", f"localhost:{free_port()}",
                         DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={tmp_path}/none")
    assert found["avahi"] == "warn"


def test_only_root_sees_all(service, tmp_path):
    tmp_path.chmod(0o700)
    run = subprocess.run(
        command("doctor", "-e", service.address, "-o", "json", "--configdir", tmp_path / "config"),
        capture_output=True, text=True, check=False, user=65534, group=65534, extra_groups=[],
        env=environment(XDG_STATE_HOME="/nonexistent"))
    found = {check["name"]: (check["result"], check["text"])
             for check in json.loads(run.stdout)["checks"]}
    assert found["listeners"] == (
        "warn", f"only root sees which processes listen on port {service.port}")
    for name in ("config-folder", "exchange", "leftover", "mib"):
        assert found[name][0] == "warn" and "only root" in found[name][1], found[name]


def test_a_package_that_is_nearly_too_large(ctl, client):
    Slice(client).update({"/a": "x" * 430_000})
    save(client)
    found = examined(ctl)
    assert found["package"][0] == "warn"
    assert found["package"][1].endswith(": soon the configuration cannot be exported")


def test_records_that_cannot_be_read(ctl, tmp_path):
    (tmp_path / "halvo").mkdir()
    (tmp_path / "halvo/confirm").write_text("no folder")
    found = examined(ctl, XDG_STATE_HOME=str(tmp_path))
    assert found["confirmations"] == (
        "warn", f"cannot read {tmp_path}/halvo/confirm: Not a directory")


def test_names_that_cannot_be_exchanged(service, tmp_path):
    run = subprocess.run(["strace", "-f", "-o", tmp_path / "trace", "-e", "trace=renameat2", "-e",
                          "inject=renameat2:error=EINVAL",
                          *command("doctor", "-e", service.address, "-o", "json")],
                         capture_output=True, text=True, env=environment(), check=False)
    assert run.returncode == 4
    found = {check["name"]: check for check in json.loads(run.stdout)["checks"]}
    assert found["exchange"]["result"] == "FAIL"
    assert found["exchange"]["text"].endswith("each save ends the service: Invalid argument")


def test_before_a_start(service, tmp_path):
    (tmp_path / "log").mkdir()
    log = own_log(tmp_path / "log")
    free = ("-e", f"localhost:{free_port()}", "--configdir", tmp_path / "config")
    found = before_start(log, *free)
    assert {name for name, outcome in found.items() if outcome != "ok"} <= {"serial", "model"}
    assert "endpoint" not in found
    assert before_start(log, "-e", service.address)["listeners"] == "FAIL"
    (tmp_path / "log").chmod(0o700)
    tmp_path.chmod(0o755)
    found = before_start(log, *free, "--user", "nobody")
    assert found["log-folder"] == "FAIL"


def test_an_identity_that_the_user_of_the_service_cannot_read(tmp_path):
    (tmp_path / "keep").mkdir()
    machine = own_machine(tmp_path / "machine", keep=tmp_path / "keep", variant="output:COFDM\n",
                          serial="[]", override="file")
    for name in ("sw_variant", "serial"):
        (tmp_path / "machine/etc" / name).chmod(0o600)
    free = ("-e", f"localhost:{free_port()}")
    found = before_start(machine, *free, "--user", "nobody")
    assert (found["variant"], found["serial"], found["marker"]) == ("FAIL", "FAIL", "warn")
    for name in ("sw_variant", "serial"):
        (tmp_path / "machine/etc" / name).chmod(0o644)
    found = before_start(machine, *free, "--user", "nobody")
    assert (found["variant"], found["serial"]) == ("ok", "ok")


def test_leftovers_and_pending_confirmations(ctl, service, tmp_path):
    (service.folder / "config/configuration.temp").mkdir()
    records = {"XDG_STATE_HOME": str(tmp_path)}
    number = ctl.ok("conf", "guard", "--timeout", "1h", "-o", "json", **records).json["id"]
    found = examined(ctl, **records)
    assert found["leftover"][0] == "warn"
    assert found["confirmations"] == ("warn", "to be confirmed: " + number)
    late = Records(service.address, tmp_path)
    late.kill_timers()
    assert examined(ctl, **records)["confirmations"] == (
        "warn", "nothing reverts any more: " + number)
    other = ctl.ok("conf", "guard", "--timeout", "1h", "-o", "json", **records).json["id"]
    assert examined(ctl, **records)["confirmations"] == (
        "warn", f"nothing reverts any more: {number}; to be confirmed: {other}")
    late.close()


def content_of(path):
    """Name to text of a support file."""
    with tarfile.open(path, "r:gz") as archive:
        return {member.name: archive.extractfile(member).read().decode(errors="replace")
                for member in archive}


def test_a_support_file_has_everything_but_the_community(start, tmp_path):
    service = start("--sys_mon", log_to_file=True)
    client = service.client()
    ctl = Ctl(service.address)
    ctl.ok("log", "set", "*", "trace", "-q")
    secret = 's3cret "ü"'
    set_manager(client, trap_port=free_port(), community=secret)
    Slice(client, "state_monitoring_uservice").update({"/snmp": json.dumps({
        "@type": "type.googleapis.com/Hox.Capability.StateMonitoring.Api.SnmpConfiguration",
        "managerIp": "10.0.0.9", "community": "0ther-secret"})})
    save(client)
    path = tmp_path / "support.tar.gz"
    result = ctl("support", path)
    assert result.status == 0, result
    assert result.out.startswith(f"Wrote {path} with ")
    content = content_of(path)
    assert {"about.txt", "doctor.txt", "state/latest.json", "state/archive.json",
            "state/traps.json", "loggers.json", "configuration/status.json",
            "configuration/package/partno", "log/halvo-system.log"} <= set(content)
    assert "Saving changes" in content["log/halvo-system.log"]
    assert json.loads(content["state/traps.json"])["community"] == "***"
    raw = secret.encode()
    for name, text in content.items():
        for form in ("s3cret", "0ther-secret", raw.hex(), json.dumps(secret)[1:-1]):
            assert form not in text, name
        if name.endswith(".json"):
            json.loads(text)
    assert "***" in content["configuration/package/sys/conf/mb/0/state_monitoring_uservice/snmp/data"]


def test_a_support_file_follows_no_link_of_the_service(start, tmp_path):
    service = start(log_to_file=True)
    secret = tmp_path / "secret"
    secret.write_text("precious")
    former = service.log_file.with_name("halvo-system.1.log")
    former.symlink_to(secret)
    path = tmp_path / "support.tar.gz"
    result = Ctl(service.address)("support", path, "-o", "json")
    assert result.status == 0
    assert any(text.startswith("log/halvo-system.1.log: ") for text in result.json["missing"])
    content = content_of(path)
    assert "log/halvo-system.log" in content
    assert not any("precious" in text for text in content.values())


def test_a_support_file_of_a_service_that_is_gone(tmp_path):
    path = tmp_path / "support.tar.gz"
    result = Ctl(f"localhost:{free_port()}")("support", path, "-o", "json")
    assert result.status == 0
    assert "doctor.txt" in result.json["content"]
    assert any(text.startswith("state/latest.json: UNAVAILABLE") for text in result.json["missing"])
    assert "FAIL endpoint: " in content_of(path)["doctor.txt"]
    refused = Ctl("localhost:1")("support", tmp_path / "none/support.tar.gz")
    assert refused.status == 1 and not refused.out
    assert Ctl("localhost:1")("support", "-").status == 1


def samples(text):
    """The samples of a text for Prometheus, without help and types."""
    found = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            name, value = re.fullmatch(r'(\w+\{(?:\w+="(?:[^"\\]|\\.)*",?)*\}) (\S+)', line).groups()
            assert name not in found
            found[name] = float(value)
    return found


def test_metrics_of_a_service(ctl, service, client):
    where = f'endpoint="{service.address}"'
    Slice(client).update({"/a": "x"})
    ctl.ok("state", "report", "tuner-1/Cap_Tuner_Lock/input", "error", "lost")
    result = ctl.ok("metrics")
    found = samples(result.out)
    assert found[f"halvo_up{{{where}}}"] == 1
    assert found[f"halvo_current_severity{{{where}}}"] == 3
    assert found[f'halvo_severity{{{where},service="tuner-1"}}'] == 3
    assert found[f'halvo_severity{{{where},service="{service.service_id}"}}'] == 1
    assert found[f'halvo_origins{{{where},severity="error"}}'] == 1
    assert found[f'halvo_configuration_unsaved{{{where},service="{service.service_id}"}}'] == 1
    assert 0 < found[f"halvo_package_bytes{{{where}}}"] < 524288
    assert found[f"halvo_package_exported{{{where}}}"] == 1
    assert 0 < found[f"halvo_round_trip_seconds{{{where}}}"] < 10
    assert 0 <= found[f"halvo_oldest_not_ok_seconds{{{where}}}"] < 60
    names = [line.split()[2] for line in result.lines if line.startswith("# TYPE ")]
    assert names == sorted(set(names))
    assert ctl.ok("metrics", "-o", "json").json["metrics"][0]["labels"][0]["name"] == "endpoint"


def test_metrics_without_a_service(ctl, service):
    nobody = f"localhost:{free_port()}"
    result = ctl("metrics", "-e", nobody)
    assert result.status == 2
    found = samples(result.out)
    assert found[f'halvo_up{{endpoint="{nobody}"}}'] == 0
    assert found[f'halvo_up{{endpoint="{service.address}"}}'] == 1


def test_a_package_that_cannot_be_read_is_no_outage(client, service):
    bad = client.protos.configuration.GetSysConfResp(sysConfData=b"none").SerializeToString()
    with Interposer(service.address, getSysConf=lambda: bad) as between:
        result = Ctl(between.address).ok("metrics")
        where = f'{{endpoint="{between.address}"}}'
    found = samples(result.out)
    assert found["halvo_up" + where] == 1 and found["halvo_package_exported" + where] == 0


def test_a_configuration_without_a_size_is_a_sample(ctl, client, service):
    Slice(client).update({"/a": "x" * 530_000})
    save(client)
    found = samples(ctl.ok("metrics").out)
    assert found[f'halvo_package_exported{{endpoint="{service.address}"}}'] == 0
    assert not any(name.startswith("halvo_package_bytes") for name in found)
