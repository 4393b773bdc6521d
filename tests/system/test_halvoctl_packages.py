"""The operator's tool reads packages and predicts what a service says to them."""
import concurrent.futures
import contextlib
import json
import subprocess
import time

import grpc
import pytest
from kit.configuration import Slice, import_package, save
from kit.ctl import Ctl, command, environment
from kit.namespaces import free_port, own_machine
from kit.packages import BAD_PACKAGES, GOOD_PACKAGES, IDENTITY, TEXT, VALUE, package

MARKER = "/tmp/headend_override_compat_check"


def write(path, files):
    """Writes a package of these files (name to text), and returns its path."""
    path.write_bytes(package(files))
    return path


def serial(part_number):
    return json.dumps([{"type": "0", "serial": "1", "partnumber": part_number, "revision": "1"}])


IDENTITIES = [
    {},
    {"swvariant": "output:QAM\n", "partno": "0\n"},
    {"swvariant": "output:QAM\n", "partno": "100001\n"},
    {"swvariant": "output:COFDM\n", "partno": "100003\n"},
    {"swvariant": "output:COFDM\n", "partno": " 100003 or so\n"},
    {"swvariant": "output:XYZ\n", "partno": "0\n"},
    {"swvariant": "", "partno": ""},
    {"swvariant": "# output:COFDM\noutput:QAM\n", "partno": "none\n"},
]

MACHINES = {
    "default": {},
    "COFDM 100003": {"variant": "output:COFDM\n", "serial": serial("100003")},
    "unknown": {"variant": "output:XYZ\n", "serial": serial("5")},
    "overridden": {"variant": "output:COFDM\n", "override": "file"},
}


@pytest.fixture
def tuner(client):
    owned = Slice(client)
    owned.update({"/in/3/freq": "474000", "/in/3/name": "Ü 1"})
    save(client)
    return owned


@pytest.mark.parametrize("machine", MACHINES)
def test_the_verdict_is_that_of_the_service(start, tmp_path, machine):
    service = start(prefix=own_machine(tmp_path / "machine", keep=tmp_path, **MACHINES[machine]))
    ctl = Ctl(service.address)
    verdicts = set()
    for number, identity in enumerate(IDENTITIES):
        path = write(tmp_path / f"{number}.hpk", {**identity, **VALUE})
        here = subprocess.run(
            ["nsenter", "-t", str(service.process.pid), "-m",
             *command("conf", "verify", "--here", path, "-o", "json")],
            capture_output=True, text=True, env=environment(), check=False)
        verdict = json.loads(here.stdout)
        there = ctl("conf", "verify", path)
        answer = ctl("conf", "import", path)
        assert here.returncode == (0 if answer.status == 0 else 4), (identity, here, answer)
        assert verdict["is_accepted"] == (answer.status == 0)
        if answer.status != 0:
            assert answer.err.startswith(f"halvoctl: {verdict['code']}: "), (verdict, answer)
        verdicts.add(verdict["code"])
        if "override" not in MACHINES[machine]:  # a file that no client sees
            assert there.status == here.returncode, (identity, there, answer)
    assert len(verdicts) > 1
    service.assert_alive()


def answer_of(client, archive):
    """The status of an import of these bytes, "" for a success."""
    try:
        import_package(client, archive)
    except grpc.RpcError as error:
        return error.code().name
    return ""


@pytest.mark.parametrize("name", BAD_PACKAGES)
def test_what_is_found_in_a_package_is_what_the_service_says(ctl, service, client, tmp_path, name):
    expected, make = BAD_PACKAGES[name]
    path = tmp_path / "p"
    path.write_bytes(make())
    lint = ctl("conf", "lint", path, "-o", "json")
    verify = ctl("conf", "verify", path, "-o", "json")
    assert answer_of(client, path.read_bytes()) == expected
    assert (lint.status, lint.err) == (4, "")
    codes = {finding["refused_as"] for finding in lint.json["findings"]}
    assert expected in codes and (expected or codes == {""}), lint
    assert (verify.status, verify.json["code"], verify.err) == (4 if expected else 0, expected, "")
    if path.stat().st_size > 0:  # otherwise the tool sends nothing
        assert ctl("conf", "import", path).status == (3 if expected else 0)
    service.assert_alive()


@pytest.mark.parametrize("name", GOOD_PACKAGES)
def test_nothing_is_found_in_a_good_package(ctl, client, tmp_path, name):
    path = tmp_path / "p"
    path.write_bytes(GOOD_PACKAGES[name]())
    assert ctl.ok("conf", "lint", path).lines[-1].startswith("0 findings; ")
    ctl.ok("conf", "verify", path)
    assert answer_of(client, path.read_bytes()) == ""


def test_no_file_that_a_package_names_is_shown(tmp_path):
    (tmp_path / "secret").write_text("precious")
    path = tmp_path / "p"
    path.write_text(f"#mtree\n./sys/conf/mb/0/tuner/a/data type=file contents={tmp_path}/secret\n")
    for words in (("ls", "-l"), ("get", "/sys/conf/mb/0/tuner/a"), ("lint",), ("verify", "--here")):
        result = Ctl("localhost:1")("conf", *words, path)
        assert result.status in (1, 4)
        assert "precious" not in result.out + result.err


@contextlib.contextmanager
def exporter(protos, archive, refusal=None):
    """The tool for a store whose package has these bytes, and which refuses all others."""
    api = protos.configuration

    def refuse(_request, context):
        context.abort(refusal, "refused")
    server = grpc.server(
        concurrent.futures.ThreadPoolExecutor(4), options=[("grpc.so_reuseport", 0)],
        handlers=[grpc.method_handlers_generic_handler(
            "Hox.Capability.Configuration.Api.ConfigurationService", {
                "getSysConf": grpc.unary_unary_rpc_method_handler(
                    lambda _request, _context: api.GetSysConfResp(sysConfData=archive),
                    response_serializer=api.GetSysConfResp.SerializeToString),
                "updateSysConf": grpc.unary_unary_rpc_method_handler(
                    refuse, response_serializer=api.UpdateSysConfResp.SerializeToString)})])
    port = free_port()
    assert server.add_insecure_port(f"127.0.0.1:{port}") == port
    server.start()
    try:
        yield Ctl(f"127.0.0.1:{port}")
    finally:
        server.stop(0).wait(20)


def test_an_endpoint_whose_identity_cannot_be_read(protos, tmp_path):
    path = write(tmp_path / "p", {**IDENTITY, **VALUE})
    with exporter(protos, package({**VALUE, "partno": "none\n"})) as ctl:
        result = ctl("conf", "verify", path)
        assert (result.status, result.out, result.err) == (
            1, "", "halvoctl: the endpoint's identity cannot be read\n")


def test_a_good_file_is_not_replaced_by_an_export_without_content(protos, tmp_path):
    path = write(tmp_path / "p", VALUE)
    good = path.read_bytes()
    for archive in (b"", b"no package", package({}), good[:-30]):
        with exporter(protos, archive) as ctl:
            result = ctl("conf", "export", path)
        assert (result.status, result.out) == (1, "") and "package" in result.err, result
        assert path.read_bytes() == good


def test_a_refusal_has_a_hint_only_if_the_machines_differ(protos, start, tmp_path):
    refusal = grpc.StatusCode.INVALID_ARGUMENT
    path = write(tmp_path / "p", {**IDENTITY, **VALUE})
    with exporter(protos, path.read_bytes(), refusal) as ctl:
        result = ctl("conf", "import", path)
        assert (result.status, result.err) == (3, "halvoctl: INVALID_ARGUMENT: refused\n")
    unknown = start(prefix=own_machine(tmp_path / "machine", keep=tmp_path,
                                       variant="output:XYZ\n"))
    result = Ctl(unknown.address)("conf", "import", path)
    assert result.status == 3
    assert result.err.splitlines()[1] == (
        "hint: made for QAM part 0; this machine is UNKNOWN part 0")


def test_the_saved_copy_of_the_endpoint_is_a_package(ctl, tuner, tmp_path):
    assert ctl.ok("conf", "ls").out.splitlines() == [
        f"/sys/conf/mb/0/tuner/{key}" for key in ("__csid", "in/3/freq", "in/3/name")]
    assert ctl.ok("conf", "get", "/sys/conf/mb/0/tuner/in/3/name").out == "Ü 1\n"
    assert ctl.ok("conf", "ls", "@", "-o", "json").json["keys"][1]["value"]["value"] == "474000"
    assert ctl.ok("conf", "lint", "@").lines[-1].startswith("0 findings; ")
    assert ctl.ok("conf", "verify", "@").out == "accepted: made for QAM part 0, like this machine\n"


def test_a_diff_of_an_operator(ctl, client, tuner, tmp_path):
    path = tmp_path / "a.hpk"
    ctl.ok("conf", "export", path)
    assert ctl.ok("conf", "diff", "@", path).out == (
        "0 changed, 0 added, 0 removed (state ids left out)\n")
    tuner.update({"/in/3/freq": "482000"})
    save(client)
    result = ctl("conf", "diff", path)
    assert (result.status, result.err) == (4, "")
    assert result.out == ('~ /sys/conf/mb/0/tuner/in/3/freq: "474000" -> "482000"\n'
                          "1 changed, 0 added, 0 removed (state ids left out)\n")
    changes = ctl("conf", "diff", path, "-o", "json").json
    assert changes["changed"] == 1 and changes["changes"][0]["new_value"]["value"] == "482000"


def test_nothing_of_a_package_reaches_the_disk(tmp_path):
    path = write(tmp_path / "p", {**VALUE, str(tmp_path / "absolute"): "x", "../above": "x"})
    for words in (("ls",), ("lint",), ("diff", path), ("verify", "--here")):
        subprocess.run(command("conf", *words, path), cwd=tmp_path, check=False,
                       stdout=subprocess.DEVNULL, env=environment())
    assert [entry.name for entry in tmp_path.iterdir()] == ["p"]


def test_the_largest_package_takes_little_time(tmp_path):
    values = {f"sys/conf/mb/0/tuner/in/{number}/data": TEXT
              for number in range(4700)}
    full = write(tmp_path / "full", {**IDENTITIES[1], **values})
    values["sys/conf/mb/0/tuner/in/7/data"] = "{}"
    other = write(tmp_path / "other", {**IDENTITIES[1], **values})
    for words, status in ((("ls", full), 0), (("diff", full, other), 4), (("lint", full), 0)):
        begin = time.monotonic()
        run = subprocess.run(command("conf", *words), capture_output=True, env=environment(),
                             check=False)
        print(f"conf {words[0]}: {(time.monotonic() - begin) * 1000:.0f} ms")
        assert run.returncode == status, run


def test_the_owner_of_a_key_is_found_on_the_network(start, network):
    service = start(bus=network)
    ctl = Ctl(service.address)
    key = "/sys/conf/mb/0/state_monitoring_uservice/snmp"
    owner = ctl.ok("conf", "owner", key, "-o", "json", **network.environment).json
    assert service.service_id in owner.pop("service_ids")
    assert owner == {"key": key, "node_type": "mb", "node_id": "0",
                     "capability": "state_monitoring_uservice"}
    table = ctl.ok("conf", "owner", key, **network.environment).lines
    assert table[1].startswith("mb         0        state_monitoring_uservice  ")
    unknown = ctl.ok("conf", "owner", "/sys/conf/mb/0/state_monitoring/x", **network.environment)
    assert unknown.lines[1].endswith("  -")


def test_an_owner_is_printed_without_a_daemon(tmp_path):
    ctl = Ctl("localhost:1")
    nobody = f"unix:path={tmp_path}/none"
    assert ctl.ok("conf", "owner", "/sys/conf/mb/0/tuner/x", DBUS_SYSTEM_BUS_ADDRESS=nobody).lines[
        1] == "mb         0        tuner       -"


def test_the_status_names_the_slices_in_the_log(start):
    service = start(log_to_file=True)
    ctl = Ctl(service.address)
    client = service.client()
    Slice(client, "saved").update({"/a": "1"})
    save(client)
    assert ctl("conf", "status", "--log", service.log_file).lines[1:] == []
    Slice(client).update({"/a": "1"})
    Slice(client, "network").update({"/a": "1"})
    status = ctl("conf", "status", "--log", service.log_file)
    assert (status.status, status.lines[1:]) == (4, ["  mb/0/network", "  mb/0/tuner"])
    assert ctl("conf", "status", "-o", "json", "--log", service.log_file).json["slices_in_log"] == [
        "mb/0/network", "mb/0/tuner"]
    assert ctl("conf", "status", "--log", service.folder / "none").status == 1
