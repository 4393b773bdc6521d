"""The operator's tool: what a service offers, and calls of any method."""
import concurrent.futures
import json
import re
import signal
import subprocess

import grpc
import pytest
from kit.ctl import Ctl, command, environment
from kit.namespaces import free_port

CONFIGURATION = "Hox.Capability.Configuration.Api.ConfigurationService"
INTROSPECTION = "Hox.Capability.Introspection.IntrospectionService"
MONITOR = "Hox.Capability.StateMonitoring.Api.StateMonitoringService"


def test_all_methods_are_listed_with_operation_and_address(ctl):
    rows = {line.split()[0]: line.split()[1:] for line in ctl.ok("services").lines}
    assert rows["METHOD"] == ["OPERATION", "ADDRESS"]
    assert rows[f"{CONFIGURATION}/getSysConf"] == ["READ", "/sys/conf/.data."]
    assert rows[f"{MONITOR}/observeStateNotifications"] == ["OBSERVE", "/state"]
    assert rows[f"{INTROSPECTION}/listLoggers"] == ["-", "-"]
    listed = ctl.ok("services", "-o", "json").json["methods"]
    assert {entry["method"] for entry in listed} == rows.keys() - {"METHOD"}
    observe = next(entry for entry in listed if entry["address"] == "/state")
    assert observe == {
        "method": f"{MONITOR}/observeStateNotifications", "operation": "OBSERVE",
        "address": "/state", "request": "Hox.ObserverTree.ObserveReq",
        "response": "Hox.ObserverTree.ObsTreeObserveChangeSet", "is_stream": True}


def test_a_name_is_described_as_proto_text(ctl):
    assert ctl.ok("describe", "GetCurrentStateResp").out == """\
message GetCurrentStateResp {
  .Hox.Capability.StateMonitoring.Api.StateSeverity currentState = 1;
}
"""
    text = ctl.ok("describe", "getCurrentState").out
    assert 'option (.Hox.ObserverTree.obs_tree_option)' in text
    assert ctl.ok("describe", "obstree.proto").out.startswith('syntax = "proto3";\n')


def test_a_call_prints_the_answer_as_json(ctl, client):
    client.create("svc", "T", "s", "WARN", msg="grüße \u001b[2J\n")
    assert ctl.ok("call", "getCurrentState").json == {"currentState": "WARN"}
    answer = ctl.ok("call", "getStateNotifications", "-d", '{"index": -1}', "-o", "json").json
    assert answer == {"stateList": [{"index": 0, "stateNotification": {
        "severity": "WARN", "service_id": "svc", "type": "T", "source": "s",
        "msg": "grüße \u001b[2J\n", "extendedInfo": ""}}]}


def test_the_request_may_come_from_a_file_or_the_input(ctl, client, tmp_path):
    report = {"stateNotification": {"service_id": "a", "type": "T", "source": "file"}}
    (tmp_path / "request").write_text(json.dumps(report))
    ctl.ok("call", "createStateNotification", "-d", f"@{tmp_path}/request")
    report["stateNotification"]["source"] = "input"
    ctl.ok("call", "createStateNotification", "-d", "-", given=json.dumps(report))
    assert {note.stateNotification.source for note in client.notifications()} == {"file", "input"}


def test_a_stream_is_printed_line_by_line_until_ctrl_c(ctl, client):
    client.create("a", "T", "s")
    running = ctl.start("call", "observeStateNotifications", "-d",
                        '{"key_pattern": "/state/notifications/latest/**"}')
    key = "/state/notifications/latest/a/T/s"
    client.create("a", "T", "s", "ERROR")
    running.out.wait_for_match(re.compile('"severity":"ERROR"'))
    assert running.interrupt() == 130
    for line in running.out:
        assert key in json.loads(line)["node_change_map"]
    assert not list(running.err)


@pytest.mark.parametrize("words", [
    ("call", "getCurrentState", "-d", "{"),
    ("call", "getCurrentState", "-d", '{"unknown": 1}'),
    ("call", "noSuchMethod"),
    ("call", "ServerReflectionInfo"),
    ("call", "observeStateNotifications"),
    ("call", "observeStateNotifications", "-d", '{"key_pattern": "/a/**/b"}'),
    ("call", "observeStateNotifications", "-d", '{"key_pattern": "/a*"}'),
    ("call", "getStateNotifications", "-d", json.dumps({"typeRegEx": "a" * 1001})),
    ("call", "createStateNotification", "-d", '{}'),
    ("call", "createStateNotification", "-d",
     '{"stateNotification": {"service_id": "a", "type": "*", "source": "s"}}'),
    ("call", "observeCapConf", "-d",
     '{"confId": {"nodeType": "mb", "nodeId": "0", "capabilityId": "tuner"}}'),
    ("call", "updateCapConf", "-d", '{"isPatch": true, "capConfChangeset": {"node_change_map": '
     '{"/a": {"nodePairList": []}}}}'),
    ("call", "updateCapConf", "-d", '{"isPatch": true, "capConfChangeset": {"node_change_map": '
     '{"a": {"nodePairList": [{}]}}}}'),
], ids=range(13))
def test_a_refused_input_is_not_sent(ctl, service, words):
    result = ctl(*words)
    assert result.status == 1 and not result.out and result.err.startswith("halvoctl: "), result
    service.assert_alive()


def test_a_refusal_of_the_service_has_its_code_and_text(ctl):
    result = ctl("call", "updateSysConf", "-d", '{"update_type": {"sysConfData": "eA=="}}')
    assert result.status == 3
    assert result.err.startswith("halvoctl: INTERNAL: Unable to unpack to filesystem - Error ")
    assert ctl("call", "setLogLevel", "-d", '{"name": "none"}').status == 3


def test_an_answer_of_the_service_that_it_is_unavailable_is_a_refusal(ctl):
    result = ctl("call", "setSnmpConf", "-d", '{"conf": {"managerIp": "127.0.0.1"}}')
    assert result.status == 3 and result.err.startswith("halvoctl: UNAVAILABLE: "), result


def test_nobody_at_the_endpoint():
    result = Ctl("localhost:1")("call", "getCurrentState")
    assert result.status == 2
    assert result.err.startswith("halvoctl: UNAVAILABLE: ")
    assert "hint: the endpoint is localhost:1\n" in result.err


def test_a_service_that_does_not_answer_times_out(ctl, service):
    service.signal(signal.SIGSTOP)
    try:
        result = ctl("--timeout", "300ms", "ping")
        assert (result.status, result.out) == (2, "")
        assert "DEADLINE_EXCEEDED" in result.err
    finally:
        service.signal(signal.SIGCONT)


def test_several_endpoints_are_pinged(service):
    ctl = Ctl(service.address)
    result = ctl("ping", "-e", "localhost:1", "-o", "jsonl")
    assert result.status == 2
    assert json.loads(result.out)["endpoint"] == service.address
    assert result.err.startswith("halvoctl: localhost:1: UNAVAILABLE: ")
    both = ctl.ok("ping", "-e", service.address)
    assert len(both.lines) == 2 and both.out.startswith(f"{service.address} answered in ")


def test_an_endpoint_that_is_not_reached_counts_more_than_a_refusal(service):
    """In both orders."""
    refusing = f"127.0.0.1:{free_port()}"
    server = grpc.server(concurrent.futures.ThreadPoolExecutor(1))
    assert server.add_insecure_port(refusing)
    server.start()
    try:
        for first, second in ((refusing, "localhost:1"), ("localhost:1", refusing)):
            for command_name in ("ping", "state", "metrics"):
                assert Ctl(first)(command_name, "-e", second, "-e", service.address).status == 2
        assert Ctl(refusing)("state", "-e", service.address).status == 3
    finally:
        server.stop(0).wait(10)


def test_no_proxy_is_asked(ctl):
    nobody = f"http://127.0.0.1:{free_port()}"
    for name in ("http_proxy", "https_proxy", "grpc_proxy"):
        assert ctl.ok("ping", **{name: nobody, "no_proxy": ""}).out


def test_notes_are_left_out_on_demand(ctl, service):
    words = ("ping", "-e", "localhost:1")
    assert ctl(*words).err.startswith("halvoctl: localhost:1: ")
    result = ctl("-q", *words)
    assert (result.status, result.err) == (2, "")
    assert result.out.startswith(f"{service.address} answered in ")
    assert ctl("-q", "watch", "a").err  # an error is no note


def test_the_endpoint_may_come_from_the_environment(service):
    run = subprocess.run(command("call", "getCurrentState"), capture_output=True, text=True,
                         env=environment(HALVO_ENDPOINT=service.address), check=True)
    assert json.loads(run.stdout) == {"currentState": "OK"}


def test_requests_are_shown_on_demand(ctl):
    result = ctl("-v", "call", "getCurrentState")
    assert result.err == f"> /{MONITOR}/getCurrentState {{}}\n"


def test_a_result_that_cannot_be_written_is_an_error(service):
    with open("/dev/full", "w", encoding="utf-8") as full:
        run = subprocess.run(command("-e", service.address, "services"), stdout=full,
                             stderr=subprocess.PIPE, text=True, check=False)
    assert (run.returncode, run.stderr) == (1, "halvoctl: the result cannot be written\n")
