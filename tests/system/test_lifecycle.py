"""From the start of the service to its end."""
import contextlib
import pathlib
import re
import signal
import socket
import time

import grpc
import pytest

from kit.client import Client
from kit.wait import wait_until


def listeners():
    """Pairs of (local address as the kernel prints it, port) of every listening socket here."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        with open(table, encoding="ascii") as lines:
            for line in list(lines)[1:]:
                fields = line.split()
                address, port = fields[1].split(":")
                if fields[3] == "0A":
                    yield address, int(port, 16)


def listening_addresses(port):
    return {address for address, number in listeners() if number == port}


def listening_ports():
    return {number for _, number in listeners()}


def test_ready_is_the_first_notice_and_every_method_answers_then(start):
    service = start(ready=False)
    assert service.next_notice() == "READY=1"
    client = service.client()
    client.create("svc", "T", "s", "WARN")
    assert client.current_state() == "WARN"
    assert service.notices() == []


def test_a_service_without_an_id_starts(start):
    service = start(service_id=None)
    assert service.client().current_state() == "OK"


def test_the_short_form_of_the_configuration_folder_is_accepted(start, tmp_path):
    assert start("-c", str(tmp_path / "other")).client().current_state() == "OK"


def test_options_of_the_other_addresses_are_accepted(start):
    service = start("--ccsaddr", "localhost:1", "--epgaddr", "localhost:2", "--dispatcheraddr",
                    "localhost:3", "--hendaddr", "localhost:4", "--statemon_services",
                    "10.0.0.1:5000,5001")
    assert service.client().current_state() == "OK"


@pytest.mark.parametrize("roles, urls", [
    ([], None),
    (["--sys_mon"], None),
    (["--node_mon"], None),
    (["--sys_mon", "--node_mon", "--statemon_services", "10.0.0.1:5000,5001"],
     [b"10.0.0.1:5000", b"10.0.0.1:5001"]),
    (["--statemon_services", "10.0.0.1:5000,5001"], None),
], ids=["none", "system", "node", "both", "services-alone"])
def test_a_service_of_each_role_serves_and_ends_cleanly(start, roles, urls):
    service = start(*roles)
    client = service.client()
    client.create()
    snapshot = client.observe("/**").next().node_change_map
    # A message of type StateMonitorConf, which no client knows: its field 1 is the list of texts.
    found = snapshot["/conf"].nodePairList[0].currentMessage.value if "/conf" in snapshot else None
    assert found == (urls and b"".join(b"\x0a" + bytes([len(url)]) + url for url in urls))
    service.stop()


def test_the_port_serves_loopback_only_and_the_external_one_every_address(start):
    service = start(extport=True)
    loopback = {"0100007F", "0000000000000000FFFF00000100007F",
                "00000000000000000000000001000000"}
    assert listening_addresses(service.port) <= loopback
    assert listening_addresses(service.port)
    assert listening_addresses(service.extport) == {"0" * 32}


def test_without_an_external_port_there_is_one_listener(start):
    service = start()
    assert listening_ports() == {service.port}


def test_both_listeners_serve_the_same_store(start):
    service = start(extport=True)
    inside = service.client()
    outside = service.client(f"127.0.0.1:{service.extport}")
    inside.create("svc", "T", "s", "ERROR")
    assert outside.current_state() == "ERROR"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_service_cleanly(start, number):
    service = start(log_to_file=True)
    service.signal(number)
    assert service.wait_end() == 0
    assert service.notices() == ["STOPPING=1"]
    assert len(re.findall(r"\]\[info\]\[lum_service_initializer\.cpp:\d+\] Shutting down server\n",
                          service.log)) == 1


def test_two_signals_announce_one_stop(start):
    service = start(log_to_file=True)
    stream = service.client().observe("/**")  # holds the server for the grace period
    service.client().create()
    stream.next()
    service.signal(signal.SIGTERM)
    assert service.next_notice() == "STOPPING=1"
    service.signal(signal.SIGTERM)
    service.signal(signal.SIGINT)
    assert service.wait_end() == 0
    assert service.notices() == []
    assert service.log.count("Shutting down server") == 1


def test_fifty_open_streams_do_not_hold_the_end(start):
    service = start()
    clients = [service.client() for _ in range(10)]
    streams = [clients[number % 10].observe("/state/**") for number in range(50)]
    clients[0].create()
    for stream in streams:
        assert stream.next().node_change_map
    service.stop()
    for stream in streams:
        assert stream.rest() == []
        assert stream.error is not None


def test_streams_in_full_flow_do_not_hold_the_end(start):
    service = start()
    client = service.client()
    unread = [client.state.observeStateNotifications(
        client.protos.tree.ObserveReq(key_pattern="/**")) for _ in range(5)]
    for number in range(200):
        client.create(source=f"s{number}", msg="x" * 20000)
    wait_until(lambda: "Scheduled delayed observe writes above threshhold" in service.stdout,
               what="the report of changes that wait for an observer")
    service.stop()
    for call in unread:
        with pytest.raises(grpc.RpcError):
            list(call)


def test_calls_that_arrive_all_the_time_do_not_hold_the_end(start):
    service = start()
    client = service.client()
    running = True

    def answered(future):
        if running and not future.exception():
            send()

    create = client.channel.unary_unary(
        "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/createStateNotification",
        request_serializer=lambda message: message.SerializeToString())
    request = client.protos.state.CreateStateNotificationReq(
        stateNotification=client.notification())

    def send():
        try:
            create.future(request, timeout=10).add_done_callback(answered)
        except ValueError:
            pass  # the channel is closed

    for _ in range(16):
        send()
    wait_until(lambda: client.latest().latestStateNotificationIndex > 200)
    service.stop()
    running = False


def test_after_the_signal_nothing_new_is_accepted(start):
    service = start()
    stream = service.client().observe("/**")
    service.client().create()
    stream.next()
    service.signal()
    assert service.next_notice() == "STOPPING=1"

    def refused():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", service.port)) != 0
    wait_until(refused)
    assert service.process.poll() is None
    assert service.wait_end() == 0


def test_a_service_that_has_ended_can_be_started_again_with_nothing_left(start):
    first = start()
    first.client().create("svc", "T", "s", "ERROR")
    first.stop()
    second = start()
    client = second.client()
    assert client.current_state() == "OK"
    assert client.notifications() == []


def ticks_of(process):
    """Processor time so far, in hundredths of a second."""
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def waits_of(process):
    """The number of voluntary context switches of each thread."""
    waits = {}
    for task in pathlib.Path(f"/proc/{process.pid}/task").iterdir():
        with contextlib.suppress(OSError):  # a thread that has just ended
            status = (task / "status").read_text()
            waits[task.name] = int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", status,
                                             re.M).group(1))
    return waits


def test_an_idle_service_uses_no_processor_time(start):
    service = start()
    service.client().current_state()
    ticks, waits, begin = ticks_of(service.process), waits_of(service.process), time.monotonic()

    def passes():
        """Rounds of each thread since then, most first; every queue thread makes two per second,
        and the standby poller four at each of them."""
        return sorted((number - waits.get(name, 0)
                       for name, number in waits_of(service.process).items()), reverse=True)
    # The first two may be the poller and gRPC's own timer.
    wait_until(lambda: passes()[2] >= 4, what="four rounds of a capability's thread")
    elapsed = time.monotonic() - begin
    assert elapsed > 1
    assert passes()[0] < 20 * elapsed
    assert ticks_of(service.process) - ticks <= 20


def test_a_call_that_meets_the_signal_neither_hangs_nor_holds_the_end(start):
    service = start()
    client = service.client()
    client.current_state()
    service.process.send_signal(signal.SIGSTOP)
    read = client.channel.unary_unary(
        "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/getCurrentState")
    future = read.future(b"", timeout=10)
    service.signal(signal.SIGTERM)
    service.process.send_signal(signal.SIGCONT)
    try:
        assert future.result() == b""
    except grpc.RpcError as error:
        # The signal may be handled before the request is read from the socket.
        assert error.code() in (grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.CANCELLED)
    assert service.wait_end() == 0


def test_clients_that_reconnect_find_the_service_again(start):
    service = start()
    for _ in range(20):
        with Client(service.protos, service.address) as client:
            client.create()
    assert service.client().latest().latestStateNotificationIndex == 20
