"""A system monitor has the reports of the state monitors that it observes."""
import itertools
import signal
import subprocess

import pytest

from kit.false_peer import Cable
from kit.monitors import (LOST, archive, connections, error_lines, named, observing, reports,
                          states, url, wait_for_source, wait_for_states, wait_until_connected)
from kit.namespaces import free_port
from kit.wait import wait_until


class StatusStream:
    """The contents of /status, from the present one on. The same one may be delivered repeatedly."""

    def __init__(self, client):
        self._protos = client.protos
        self._stream = client.observe("/status")
        self._former = None

    def next(self):
        """The next other content, as pairs of URL and state."""
        while True:
            pair, = self._stream.next().node_change_map["/status"].nodePairList
            status = self._protos.state.StateMonitorStatus()
            assert pair.currentMessage.Unpack(status)
            content = named(self._protos, status)
            if content != self._former:
                self._former = content
                return content


def test_a_peer_that_is_up_is_connected_and_its_archive_arrives_in_order(start):
    peer = start()
    sent = [peer.client().create(source=f"s{number}", severity="WARN", seconds=number + 1)
            for number in range(50)]
    client = start(*observing(peer)).client()
    wait_for_source(client, "s49")
    assert connections(client) == [(url(peer), "CONNECTED")]
    stored = archive(client)
    assert [entry.index for entry in stored] == list(range(50))
    assert [entry.stateNotification for entry in stored] == sent
    assert reports(peer.client()) == sent


def test_a_report_keeps_all_that_its_origin_wrote_with_a_local_index_and_former_severity(start):
    peer = start()
    for number in range(3):
        peer.client().create(source=f"of the peer {number}")
    top = start(*observing(peer))
    client = top.client()
    wait_for_source(client, "of the peer 2")
    for number in range(4):
        client.create(source=f"own {number}")
    client.create("svc-7", "Type/A", "sys/conf/update", "ERROR", seconds=1)
    sent = peer.client().create("svc-7", "Type/A", "sys/conf/update", "WARN", "a text ☃",
                                1700000000, 42, "more")
    stored = wait_until(lambda: archive(client)[8:], what="the report")
    assert [entry.stateNotification for entry in stored] == [sent]
    assert stored[0].index == 8
    assert stored[0].previousStateSeverity.stateSeverity == 2  # that of the local one
    at_home = peer.client().notifications(index=-1)[0]
    assert at_home.index == 3 and not at_home.HasField("previousStateSeverity")


def test_new_reports_arrive_while_the_peer_is_connected(start):
    peer = start()
    top = start(*observing(peer))
    client = top.client()
    wait_until_connected(client)
    for number in range(20):
        sent = peer.client().create(source=f"s{number}", msg="live")
        assert wait_for_source(client, f"s{number}")[-1] == sent
    assert len(reports(client)) == 20
    assert error_lines(top) == []


def test_what_leaves_the_full_archive_of_a_peer_stays_and_is_not_reported_again(start):
    peer = start()
    writer = peer.client()
    for number in range(1000):
        writer.create(source=f"s{number}")
    top = start(*observing(peer))
    client = top.client()
    wait_for_source(client, "s999")
    for number in range(1000, 1100):
        writer.create(source=f"s{number}")
    wait_for_source(client, "s1099")
    assert [report.source for report in reports(client)] == [
        f"s{number}" for number in range(100, 1100)]
    assert client.latest().latestStateNotificationIndex == 1100
    assert len(client.latest().stateList) == 1100
    assert error_lines(top) == []


def test_the_latest_key_of_an_origin_is_that_which_it_has_at_home(start):
    peer = start()
    peer.client().create("svc", "T", "sys/conf/update")
    client = start(*observing(peer)).client()
    wait_for_source(client, "sys/conf/update")
    keys = [[key for key in one.observe("/state/notifications/latest/**").next().node_change_map]
            for one in (client, peer.client())]
    assert keys == [["/state/notifications/latest/svc/T/sys/conf/update"]] * 2


def test_the_current_state_follows_the_worst_of_the_peers(start):
    first, second = start(), start()
    client = start(*observing(first, second)).client()
    wait_until_connected(client)
    for peer, service, severity, expected in [
            (first, "a", "OK", "OK"), (second, "b", "WARN", "WARN"), (first, "a", "ERROR", "ERROR"),
            (second, "b", "OK", "ERROR"), (first, "a", "WARN", "WARN"), (first, "a", "OK", "OK")]:
        peer.client().create(service, severity=severity, msg=expected)
        wait_until(lambda: client.current_state() == expected, what=f"{expected} after {severity}")


def test_a_second_peer_waits_for_the_first(start):
    absent, there = free_port(), start()
    there.client().create(source="second")
    top = start(*observing(absent, there))
    client = top.client()
    stream = StatusStream(client)
    waiting = [(url(absent), "CONNECTING"), (url(there), "CONNECTING")]
    assert stream.next() == waiting == connections(client)
    marker = top.client()
    for number in range(20):  # what happens in the meantime does not let it connect
        marker.create(source=f"own {number}")
        assert connections(client) == waiting
    first = start(port=absent)
    assert stream.next() == [(url(absent), "CONNECTED"), (url(there), "CONNECTING")]
    assert stream.next() == [(url(absent), "CONNECTED"), (url(there), "CONNECTED")]
    first.client().create(source="first")
    wait_for_source(client, "first")
    wait_for_source(client, "second")
    assert error_lines(top) == []


@pytest.mark.parametrize("order", itertools.permutations(range(3)))
def test_three_peers_connect_in_their_order_in_whatever_order_they_come(start, order):
    ports = [free_port() for _ in range(3)]
    client = start(*observing(*ports)).client()
    stream = StatusStream(client)
    there = set()
    assert [state for _, state in stream.next()] == ["CONNECTING"] * 3
    connected = 0
    for number in order:
        start(port=ports[number]).client().create(source=f"s{number}")
        there.add(number)
        while connected in there:
            connected += 1
            assert [state for _, state in stream.next()] == (
                ["CONNECTED"] * connected + ["CONNECTING"] * (3 - connected))
            wait_for_source(client, f"s{connected - 1}")
        assert states(client).count("CONNECTED") == connected
    assert {report.source for report in reports(client)} == {"s0", "s1", "s2"}


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_a_peer_that_ends_and_comes_back_is_connected_again(start, number):
    peer, other = start(), start()
    peer.client().create(source="before")
    top = start(*observing(peer, other))
    client = top.client()
    wait_for_source(client, "before")
    wait_until_connected(client)
    stream = StatusStream(client)
    stream.next()
    peer.signal(number)
    peer.wait_end()
    for state in ("NOT_CONNECTED", "CONNECTING"):
        assert stream.next() == [(url(peer), state), (url(other), "CONNECTED")]
    other.client().create(source="of the other one")
    wait_for_source(client, "of the other one")
    again = start(port=peer.port)
    again.client().create(source="after")
    assert stream.next() == [(url(peer), "CONNECTED"), (url(other), "CONNECTED")]
    wait_for_source(client, "after")
    assert [report.source for report in reports(client)] == ["before", "of the other one", "after"]
    assert error_lines(top) == [LOST.format(url(peer))]


def test_the_whole_archive_is_stored_again_after_a_lost_connection(start):
    peer = start()
    for number in range(5):
        peer.client().create(source=f"s{number}", seconds=number + 1)
    with Cable(peer.port) as cable:
        top = start(*observing(cable))
        client = top.client()
        wait_for_source(client, "s4")
        stream = StatusStream(client)
        assert stream.next() == [(url(cable), "CONNECTED")]
        cable.cut()
        assert stream.next() == [(url(cable), "NOT_CONNECTED")]
        assert stream.next() == [(url(cable), "CONNECTING")]
        peer.client().create(source="missed")
        cable.plug()
        assert stream.next() == [(url(cable), "CONNECTED")]
        wait_for_source(client, "missed")
        stored = archive(client)
        assert [entry.stateNotification.source for entry in stored] == [
            "s0", "s1", "s2", "s3", "s4", "s0", "s1", "s2", "s3", "s4", "missed"]
        assert [entry.index for entry in stored] == list(range(11))
        assert [entry.HasField("previousStateSeverity") for entry in stored] == (
            [False] * 5 + [True] * 5 + [False])
        assert error_lines(top) == [LOST.format(url(cable))]


def test_a_connection_that_is_lost_again_and_again_is_made_again_each_time(start):
    peer = start()
    peer.client().create(source="old")
    with Cable(peer.port) as cable:
        top = start(*observing(cable))
        client = top.client()
        for number in range(1, 21):
            wait_for_source(client, "old", number)
            cable.drop()
        wait_for_source(client, "old", 21)
        wait_until_connected(client)
        peer.client().create(source="new")
        wait_for_source(client, "new")
        assert len(reports(client)) == 22
        assert error_lines(top) == [LOST.format(url(cable))] * 20


def test_a_peer_at_the_end_of_a_slow_line_is_connected(start):
    peer = start()
    with Cable(peer.port, seconds=0.7) as cable:
        client = start(*observing(cable)).client()
        wait_until_connected(client)
        peer.client().create(source="distant")
        wait_for_source(client, "distant")


def test_a_stopped_peer_stays_connected_and_delays_nobody(start):
    stopped, other = start(), start()
    top = start(*observing(stopped, other))
    client = top.client()
    wait_until_connected(client)
    writer = stopped.client()
    writer.create(source="before")
    wait_for_source(client, "before")
    stopped.signal(signal.SIGSTOP)
    try:
        for number in range(5):
            other.client().create(source=f"s{number}")
            wait_for_source(client, f"s{number}")
        assert states(client) == ["CONNECTED", "CONNECTED"]
    finally:
        stopped.signal(signal.SIGCONT)
    writer.create(source="after")
    wait_for_source(client, "after")
    assert error_lines(top) == []


def test_a_peer_that_is_stopped_before_it_is_connected_is_waited_for(start):
    stopped, other = start(), start()
    stopped.client().create(source="early")
    stopped.signal(signal.SIGSTOP)
    try:
        client = start(*observing(stopped, other)).client()
        other.client().create(source="other")
        assert states(client) == ["CONNECTING", "CONNECTING"]
    finally:
        stopped.signal(signal.SIGCONT)
    wait_for_source(client, "early")
    wait_for_source(client, "other")


def test_no_list_means_no_connections(start):
    for options in (["--sys_mon"], ["--statemon_services", f"127.0.0.1:{free_port()}"], []):
        service = start(*options)
        client = service.client()
        assert connections(client) == []
        service.stop()
        assert error_lines(service) == []


def own_addresses(port):
    host = subprocess.run(["hostname"], capture_output=True, text=True, check=True).stdout.strip()
    return {
        "inprocess": "inprocess",
        "a loopback address": f"127.0.0.1:{port}",
        "another loopback address": f"127.3.2.1:{port}",
        "any address": f"0.0.0.0:{port}",
        "localhost": f"localhost:{port}",
        "IPv6": f"[::1]:{port}",
        "any address of IPv6": f"[::]:{port}",
        "mapped IPv4": f"[::ffff:127.0.0.1]:{port}",
        "the host name": f"{host}:{port}",
        "with a scheme": f"ipv4:127.0.0.1:{port}",
        "an interface": f"198.51.100.7:{port}",
    }


@pytest.fixture
def interface():
    """An interface besides the loopback one, with the address 198.51.100.7."""
    subprocess.run(["ip", "address", "add", "198.51.100.7/32", "dev", "lo"], check=True)
    yield
    subprocess.run(["ip", "address", "del", "198.51.100.7/32", "dev", "lo"], check=True)


@pytest.mark.parametrize("external", [False, True], ids=["port", "extport"])
@pytest.mark.parametrize("name", own_addresses(0))
def test_a_monitor_does_not_observe_itself(start, interface, name, external):
    port, extport = free_port(), free_port()
    own = own_addresses(extport if external else port)[name]
    service = start("--sys_mon", "--extport", str(extport), "--statemon_services", own, port=port,
                    ready=False)
    try:
        assert service.process.wait(20) == -signal.SIGABRT
        assert f"The state monitor at {own} is this service itself" in service.stderr
    finally:
        service.exit_status = service.process.poll()


def test_a_monitor_does_not_observe_itself_among_others(start):
    port = free_port()
    service = start("--sys_mon", "--statemon_services", f"127.0.0.1:{free_port()},{port}",
                    port=port, ready=False)
    try:
        assert service.process.wait(20) == -signal.SIGABRT
        assert f"The state monitor at 127.0.0.1:{port} is this service itself" in service.stderr
    finally:
        service.exit_status = service.process.poll()


def test_the_own_port_of_another_machine_is_no_reason_to_refuse(start):
    port = free_port()
    client = start("--sys_mon", "--statemon_services", f"198.51.100.8:{port}", port=port).client()
    assert connections(client) == [(f"198.51.100.8:{port}", "CONNECTING")]


def test_a_peer_that_is_listed_twice_is_connected_once(start):
    peer, other = start(), start()
    peer.client().create(source="once")
    client = start(*observing(peer, other, peer, peer, other)).client()
    wait_until_connected(client)
    assert connections(client) == [(url(peer), "CONNECTED"), (url(other), "CONNECTED")]
    peer.client().create(source="marker")
    wait_for_source(client, "marker")
    assert [report.source for report in reports(client)] == ["once", "marker"]


@pytest.mark.parametrize("value", ["", ":", ",", ",,,", "x", "127.0.0.1", "127.0.0.1:",
                                   "127.0.0.1:,,", "127.0.0.1:abc", "127.0.0.1:99999",
                                   "127.0.0.1:-1", "no such host:1", "unix:/nowhere", "a/b:1",
                                   "☃:1", "x" * 10000])
def test_an_address_that_leads_nowhere_stays_unconnected(start, value):
    service = start("--sys_mon", "--statemon_services", value)
    client = service.client()
    assert set(states(client)) == {"CONNECTING"}
    client.create(source="own")
    service.stop()


def test_an_empty_port_keeps_only_those_after_it_waiting(start):
    before, after = start(), start()
    before.client().create(source="before")
    client = start("--sys_mon", "--statemon_services",
                   f"127.0.0.1:{before.port},,{after.port}").client()
    wait_for_source(client, "before")
    assert connections(client) == [(url(before), "CONNECTED"), ("127.0.0.1:", "CONNECTING"),
                                   (url(after), "CONNECTING")]


def test_a_chain_passes_each_report_on_once(start):
    leaf = start()
    middle = start(*observing(leaf))
    top = start(*observing(middle))
    sent = [leaf.client().create(source=f"s{number}") for number in range(30)]
    wait_for_source(top.client(), "s29")
    sent.append(middle.client().create(source="of the middle"))
    wait_for_source(top.client(), "of the middle")
    assert reports(top.client()) == sent
    assert reports(middle.client()) == sent
    assert reports(leaf.client()) == sent[:-1]
    for service in (leaf, middle, top):
        assert error_lines(service) == []


def test_equal_reports_of_one_peer_all_arrive(start):
    leaf = start()
    client = start(*observing(leaf)).client()
    leaf.client().create(source="early")
    wait_for_source(client, "early")
    for _ in range(5):
        leaf.client().create(source="equal")
    leaf.client().create(source="marker")
    wait_for_source(client, "marker")
    assert [report.source for report in reports(client)] == ["early"] + ["equal"] * 5 + ["marker"]
