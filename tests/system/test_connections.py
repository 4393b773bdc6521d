"""Ports, connections, descriptors, and the service's reports on itself."""
import contextlib
import pathlib
import re
import signal
import socket
import subprocess
import threading
import time

import grpc
import pytest

from kit.client import open_channel
from kit.configuration import Slice, discard, save
from kit.memory import WITHOUT_LEAK_SEARCH
from kit.raw_client import PING, RawClient
from kit.service import command_line
from kit.wait import wait_until

GOAWAY = 7
SERVICES = ("Hox.Capability.Configuration.Api.ConfigurationService",
            "Hox.Capability.StateMonitoring.Api.StateMonitoringService",
            "Hox.Capability.Introspection.IntrospectionService")
SERVING, NOT_SERVING = b"\x08\x01", b"\x08\x02"


def frames_to_the_end(raw, **kwargs):
    """Collects the frames of a connection in the background."""
    kinds = []

    def read():
        with contextlib.suppress(OSError):
            kinds.extend(raw.frames(seconds=90, **kwargs))

    thread = threading.Thread(target=read, daemon=True)
    thread.start()
    return thread, kinds


def test_only_peers_that_are_there_keep_their_connections(service):
    """Quiet connections are pinged after 30 s and dropped 20 s later; clients may ping as well."""
    with RawClient(service.port) as silent, RawClient(service.port) as answering:
        start = time.monotonic()
        silent_reader, _ = frames_to_the_end(silent)
        answering_reader, kinds = frames_to_the_end(answering, answers_pings=True)
        for seconds in (10, 20, 30, 40):
            silent_reader.join(start + seconds - time.monotonic())
            assert silent_reader.is_alive(), "dropped before its time"
            answering.ping()
        silent_reader.join(30)
        assert not silent_reader.is_alive(), "still not dropped"
        assert 45 < time.monotonic() - start < 70
        assert answering_reader.is_alive()
        assert PING in kinds and GOAWAY not in kinds
    service.assert_alive()


def test_two_programs_on_one_port(service, start):
    second = start("--logstdout", port=service.port, ready=False)
    try:
        assert second.process.wait(20) == -signal.SIGABRT
        assert (f"Unable to start gRPC server on address localhost:{service.port} - "
                "Address already in use") in second.stderr
    finally:
        second.exit_status = second.process.poll()
    service.assert_alive()


def test_a_busy_external_port_is_told_by_its_own_address(start):
    with socket.create_server(("", 0), family=socket.AF_INET6, dualstack_ipv6=True) as taken:
        port = taken.getsockname()[1]
        service = start("--extport", str(port), ready=False)
        try:
            assert service.process.wait(20) == -signal.SIGABRT
            assert f"on address [::]:{port} - Address already in use" in service.stderr
        finally:
            service.exit_status = service.process.poll()


def with_descriptors(soft, hard):
    return ["prlimit", f"--nofile={soft}:{hard}"]


def test_as_many_descriptors_as_the_machine_allows(start):
    service = start(prefix=with_descriptors(64, 4000))
    limits = pathlib.Path(f"/proc/{service.process.pid}/limits").read_text()
    assert re.search(r"Max open files +4000 +4000 ", limits)


def test_connections_leave_descriptors_for_the_service(start):
    service = start(prefix=with_descriptors(64, 64))
    client = service.client()
    slice_ = Slice(client)
    slice_.update({"/a": "0"})
    with contextlib.ExitStack() as held:
        for _ in range(100):
            held.enter_context(socket.create_connection(("127.0.0.1", service.port)))
        wait_until(lambda: "Too few descriptors are left: new connections wait" in service.stdout,
                   what="the warning")
        for number in range(3):
            slice_.update({"/a": str(number)})
            save(client)
            discard(client)
            client.create(source=str(number))
            assert client.configuration.getSysConf(
                client.protos.configuration.GetSysConfReq()).sysConfData
    late = service.client()
    assert late.current_state() == "OK"
    assert Slice(late).content() == {"/a": "2"}
    assert "New connections are accepted again" in service.stdout


@contextlib.contextmanager
def no_new_threads(pid, folder):
    """The process cannot create another thread."""
    log = folder / "threads"
    tracer = subprocess.Popen(
        ["strace", "-f", "-qq", "-o", str(log), "-e", "trace=clone,clone3",
         "-e", "inject=clone,clone3:error=EAGAIN", "-p", str(pid)])
    try:
        wait_until(lambda: not any("TracerPid:\t0\n" in (task / "status").read_text()
                                   for task in pathlib.Path(f"/proc/{pid}/task").iterdir()),
                   what="the tracer of all threads")
        yield
    finally:
        tracer.terminate()
        tracer.wait()


def test_an_end_for_which_no_thread_can_be_made(start, tmp_path):
    service = start(environment=WITHOUT_LEAK_SEARCH)
    service.client().create()
    with no_new_threads(service.process.pid, tmp_path):
        service.stop()


def test_a_long_refusal_costs_no_connection(client, service):
    """The text of a malformed key contains the key."""
    client.create()
    stream = client.observe("/state/notifications/archive/*")
    stream.next()
    with pytest.raises(grpc.RpcError) as failure:
        client.create(source="a//" + "b" * 100000)
    assert failure.value.code() == grpc.StatusCode.FAILED_PRECONDITION
    assert len(failure.value.details()) == 2000
    assert failure.value.details().startswith("PathError: Key must not contain // ")
    refused = client.observe("/" + "b" * 100000 + "*").next()
    assert refused.observeStatus.statusCode == grpc.StatusCode.INVALID_ARGUMENT.value[0]
    assert len(refused.observeStatus.errorMessage) == 2000
    client.create()
    assert stream.next().node_change_map


def health(channel, service, method="Check"):
    request = b"\x0a" + bytes([len(service)]) + service.encode()
    path = "/grpc.health.v1.Health/" + method
    if method == "Watch":
        return channel.unary_stream(path)(request)
    return channel.unary_unary(path)(request, timeout=20)


def test_health_is_told_from_readiness_to_the_end(service):
    with open_channel(service.address) as channel:
        for name in ("", *SERVICES):
            assert health(channel, name) == SERVING, name
        with pytest.raises(grpc.RpcError) as failure:
            health(channel, "Hox.Other")
        assert failure.value.code() == grpc.StatusCode.NOT_FOUND
        watches = [health(channel, name, "Watch") for name in ("", *SERVICES)]
        assert [next(watch) for watch in watches] == [SERVING] * 4
        service.signal()
        assert [next(watch) for watch in watches] == [NOT_SERVING] * 4
    assert service.wait_end() == 0


def test_readiness_is_told_in_one_record(start):
    service = start(extport=True)
    line = (fr"\[info\] halvo-system \d+\.\d+\.\d+ is ready, pid {service.process.pid}, "
            fr"port {service.port}, extport {service.extport}\n")
    wait_until(lambda: re.search(line, service.stdout), what="the record")
    service.stop()
    assert len(re.findall("is ready", service.stdout)) == 1


ORDINARY_USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]


def run_as_an_ordinary_user(tmp_path, *args):
    (tmp_path / "log").mkdir()
    words = command_line(tmp_path, *args, log_to_file=True)
    program = words.index(next(word for word in words if word.endswith("halvo-system")))
    words[program:program] = ORDINARY_USER
    return subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=20, check=False)


@pytest.mark.parametrize("args, text", [
    (("--help",), "Option ‘help’ does not exist"),
    (("--port", "1", "--nonsense"), "Option ‘nonsense’ does not exist"),
    ((), ""),
])
def test_help_without_a_log(tmp_path, args, text):
    result = run_as_an_ordinary_user(tmp_path, *args)
    assert result.returncode == 1
    assert result.stderr == ""
    assert text in result.stdout
    assert "service options:" in result.stdout


def test_a_good_command_line_without_a_log(tmp_path):
    result = run_as_an_ordinary_user(tmp_path, "--port", "1")
    assert result.returncode == -signal.SIGABRT
    assert "Failed opening file /var/log/halvo/halvo-system.log" in result.stderr
    assert "service options:" not in result.stdout
