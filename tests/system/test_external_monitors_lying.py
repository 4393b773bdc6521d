"""Nothing that a peer sends stops a system monitor or the reports of its other peers."""
import contextlib
import re
import threading
import time

import grpc
import pytest
from google.protobuf import any_pb2, wrappers_pb2

from kit.false_peer import Cable, ClosingPeer, Elements, FalsePeer
from kit.memory import is_sanitized, resident_bytes
from kit.monitors import (LOST, error_lines, observing, reports, states, url, wait_for_source,
                          wait_until_connected)
from kit.wait import wait_until

STORED = "Hox.Capability.StateMonitoring.Api.StoredNotification"


@pytest.fixture
def elements(protos):
    return Elements(protos)


@pytest.fixture
def false_peer():
    """Starts false peers that behave as a test wants."""
    with contextlib.ExitStack() as running:
        yield lambda talk, **kwargs: running.enter_context(FalsePeer(talk, **kwargs))


def saying(*said):
    """For a peer that sends these elements to every observer and leaves the stream open."""
    def talk(call):
        yield from said
        call.wait()

    return talk


class Watched:
    """A system monitor with false peers and an honest one."""

    def __init__(self, start, *peers):
        self.peers = peers
        self.honest = start()
        self.service = start(*observing(*peers, self.honest))
        self.client = self.service.client()
        self._count = 0

    def assert_the_honest_peer_is_heard(self):
        wait_until_connected(self.client, self.honest)
        for _ in range(3):
            self._count += 1
            source = f"honest {self._count}"
            self.honest.client().create(source=source)
            wait_for_source(self.client, source)

    def sources(self):
        """The sources of all stored reports, without those of the honest peer."""
        return [report.source for report in reports(self.client)
                if not report.source.startswith("honest")]

    def error_lines(self):
        """The error lines about the false peers; there must be no others."""
        lines = error_lines(self.service)
        addresses = tuple(map(url, self.peers))
        assert all("Element of" in line or any(address in line for address in addresses)
                   for line in lines), lines
        return lines

    def assert_hardly_any_loss_is_logged(self):
        """One of each peer, or some more on a machine that is so busy that a connection lasts for a
        second."""
        lines = self.error_lines()
        assert set(lines) == {LOST.format(url(peer)) for peer in self.peers}
        assert len(lines) <= 5 * len(self.peers)


def strange_values(protos, elements):
    """Elements with a value that is no report, by what is wrong."""
    notification = elements.report("not stored by its monitor")
    text = wrappers_pb2.StringValue(value="text")
    nested = any_pb2.Any()
    nested.Pack(text)
    return {
        "a text": elements.of_values(text),
        "a notification": elements.of_values(notification),
        "a status": elements.of_values(protos.state.StateMonitorStatus()),
        "an Any": elements.of_values(nested),
        "an unknown type": elements.of_bytes("Nobody.Knows", b"\x0a\x01a"),
        "no type": elements.of_bytes("", b""),
        "bytes that cannot be decoded": elements.of_bytes(STORED, b"\x12\xff\xff"),
        "text that is not UTF-8": elements.of_bytes(STORED, b"\x12\x05\x1a\x03a\xff\xfe"),
    }


@pytest.mark.parametrize("wrong", [
    "a text", "a notification", "a status", "an Any", "an unknown type", "no type",
    "bytes that cannot be decoded", "text that is not UTF-8"])
def test_values_that_are_no_reports_are_left_out(start, protos, elements, false_peer, wrong):
    strange = [strange_values(protos, elements)[wrong] for _ in range(50)]
    watched = Watched(start, false_peer(saying(elements.of_sources("before"), *strange,
                                               elements.of_sources("after"))))
    wait_for_source(watched.client, "after")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["before", "after"]
    line, = watched.error_lines()
    assert line.startswith(f"Service {url(watched.peers[0])} has sent a report ")


def test_a_strange_value_beside_reports_takes_none_of_them_with_it(start, elements, false_peer):
    mixed = elements.of_sources("a", "b")
    mixed.MergeFrom(elements.of_values(wrappers_pb2.Int32Value(value=1)))
    mixed.MergeFrom(elements.of_sources("c"))
    watched = Watched(start, false_peer(saying(mixed)))
    wait_for_source(watched.client, "c")
    assert watched.sources() == ["a", "b", "c"]
    assert len(watched.error_lines()) == 1


def test_a_key_without_a_value_is_left_out(start, elements, false_peer):
    empty = elements.of_sources("a")
    for _ in range(50):
        empty.node_change_map[elements.key()].SetInParent()
    pairless = elements.empty()
    for _ in range(50):
        pairless.node_change_map[elements.key()].nodePairList.add()
    watched = Watched(start, false_peer(saying(empty, pairless, elements.of_sources("b"))))
    wait_for_source(watched.client, "b")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["a", "b"]
    assert watched.error_lines() == [
        f"Service {url(watched.peers[0])} has sent a report without a value"]


def test_only_the_first_change_of_a_key_counts(start, elements, false_peer):
    element = elements.of_sources("first", "of another key")
    key = min(element.node_change_map)
    for source in ("second", "third"):
        other, = elements.of_sources(source).node_change_map.values()
        element.node_change_map[key].nodePairList.extend(other.nodePairList)
    watched = Watched(start, false_peer(saying(element)))
    wait_for_source(watched.client, "of another key")
    assert watched.sources() == ["first", "of another key"]


def test_an_element_that_is_ok_may_bear_a_text(start, elements, false_peer):
    said = [elements.of_reports(elements.report(f"s{number}"), text="all is well")
            for number in range(50)]
    watched = Watched(start, false_peer(saying(*said)))
    wait_for_source(watched.client, "s49")
    watched.assert_the_honest_peer_is_heard()
    assert len(watched.sources()) == 50
    line, = watched.error_lines()
    assert "without its text, as its status is OK: all is well" in line


@pytest.mark.parametrize("code", [2, 3, 13, 16, 99])
def test_an_element_with_the_status_of_an_error_counts(start, elements, false_peer, code):
    watched = Watched(start, false_peer(saying(
        *(elements.of_reports(elements.report(f"s{number}"), code=code, text="bad")
          for number in range(10)), elements.empty(code, "worse"), elements.of_sources("after"))))
    wait_for_source(watched.client, "after")
    watched.assert_the_honest_peer_is_heard()
    assert len(watched.sources()) == 11
    assert states(watched.client) == ["CONNECTED", "CONNECTED"]
    assert watched.error_lines() == []


def test_reports_that_make_no_key_are_refused(start, protos, elements, false_peer):
    bad = [elements.report(type=""), elements.report(service_id=""), elements.report(source=""),
           elements.report("a//b"), elements.report("*"), elements.report("a/"),
           protos.state.StateNotification()]
    said = [elements.of_reports(*bad) for _ in range(20)]
    said.append(elements.of_values(protos.state.StoredNotification()))
    watched = Watched(start, false_peer(saying(*said, elements.of_sources("after"))))
    wait_for_source(watched.client, "after")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["after"]
    line, = watched.error_lines()
    assert line.startswith(f"Service {url(watched.peers[0])} has sent a report PathError: ")


def test_keys_outside_the_archive_make_no_difference(start, elements, false_peer):
    element = elements.empty()
    for number, key in enumerate(["", "/", "//", "/state", "no key", "/conf", "/status", "/**"]):
        other, = elements.of_sources(f"s{number}").node_change_map.values()
        element.node_change_map[key].CopyFrom(other)
    watched = Watched(start, false_peer(saying(element)))
    wait_for_source(watched.client, "s7")
    watched.assert_the_honest_peer_is_heard()
    assert sorted(watched.sources()) == [f"s{number}" for number in range(8)]
    assert states(watched.client) == ["CONNECTED", "CONNECTED"]


def test_removals_alone_change_nothing(start, elements, false_peer):
    watched = Watched(start, false_peer(saying(
        *(elements.of_removals("a", "b") for _ in range(50)), elements.of_sources("after"))))
    wait_for_source(watched.client, "after")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["after"]
    assert watched.error_lines() == []


def test_an_element_of_four_megabytes_counts(start, elements, false_peer):
    big = elements.of_reports(elements.report("big", msg="x" * ((4 << 20) - 1000)))
    assert 4 << 20 > big.ByteSize() > (4 << 20) - 1000
    watched = Watched(start, false_peer(saying(big, elements.of_sources("after"))))
    wait_for_source(watched.client, "after")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["big", "after"]
    assert watched.error_lines() == []


def test_a_hundred_thousand_reports_in_one_go_are_all_stored(start, elements, false_peer):
    count, parts = 100_000, 4
    size = count // parts
    flood = [elements.of_sources(*(f"s{number}" for number in range(first, first + size)))
             .SerializeToString() for first in range(0, count, size)]
    watched = Watched(start, false_peer(saying(*flood)))
    watched.assert_the_honest_peer_is_heard()
    latest = watched.client.latest
    wait_until(lambda: latest(fromIndex=(1 << 31) - 1).latestStateNotificationIndex == count + 3,
               60, "all reports")
    assert {report.source for report in reports(watched.client)} > {"s99990", "s99999"}
    assert watched.error_lines() == []


ENDED = re.compile(r"\[warning\] /\S+/observeStateNotifications of \S+ has ended, "
                   "but its connection remains: nothing more arrives")


@pytest.mark.parametrize("rest", [b"\xff" * 10, b"\x12\xff\xff\xff\xff\x0f", None])
def test_a_stream_that_ends_badly_takes_nothing_else_with_it(start, elements, false_peer, rest):
    """With bytes that are no element, or with a status."""
    def talk(call):
        yield elements.of_sources("before")
        if rest is None:
            call.abort(grpc.StatusCode.INTERNAL, "out of order")
        yield rest
        call.wait()

    watched = Watched(start, false_peer(talk))
    wait_for_source(watched.client, "before")
    watched.assert_the_honest_peer_is_heard()
    assert watched.sources() == ["before"]
    wait_until(lambda: ENDED.search(watched.service.stdout), what="the warning")
    assert watched.error_lines() == []


def test_a_peer_with_large_reports_is_mirrored(start):
    peer = start()
    for number in range(20):
        peer.client().create(source=f"s{number}", msg="x" * (3 << 20))
    client = start(*observing(peer)).client()
    wait_for_source(client, "s19")
    assert len(reports(client)) == 20


def test_an_element_that_is_too_large_takes_nothing_else_with_it(start, elements, false_peer):
    big = elements.of_reports(elements.report("big", msg="x" * (64 << 20)))
    watched = Watched(start, false_peer(saying(elements.of_sources("before"), big)))
    wait_for_source(watched.client, "before")
    watched.assert_the_honest_peer_is_heard()
    wait_until(lambda: ENDED.search(watched.service.stdout), what="the warning")
    assert watched.error_lines() == []


def test_a_peer_whose_stream_has_ended_is_heard_again_after_a_lost_connection(
        start, elements, false_peer):
    def talk(call):
        yield elements.of_sources(f"s{call.number}")
        if call.number:
            call.wait()

    peer = false_peer(talk)
    with Cable(peer.port) as cable:
        watched = Watched(start, cable)
        wait_for_source(watched.client, "s0")
        watched.assert_the_honest_peer_is_heard()
        cable.drop()
        wait_for_source(watched.client, "s1")
        assert watched.error_lines() == [LOST.format(url(cable))]


def test_a_slow_peer_delays_nobody(start, elements, false_peer):
    go = threading.Semaphore(0)

    def talk(call):
        for number in range(3):
            while call.is_active() and not go.acquire(timeout=0.01):
                pass
            yield elements.of_sources(f"s{number}")
        call.wait()

    watched = Watched(start, false_peer(talk))
    for number in range(3):
        watched.assert_the_honest_peer_is_heard()
        assert len(watched.sources()) == number
        go.release()
        wait_for_source(watched.client, f"s{number}")
    assert watched.error_lines() == []


def test_a_silent_peer_delays_nobody(start, false_peer):
    watched = Watched(start, false_peer(saying()))
    watched.assert_the_honest_peer_is_heard()
    assert states(watched.client) == ["CONNECTED", "CONNECTED"]
    assert watched.error_lines() == []


def test_a_peer_without_such_a_method_delays_nobody(start, elements, false_peer):
    def talk(call):
        call.abort(grpc.StatusCode.UNIMPLEMENTED, "no such method")
        yield

    watched = Watched(start, false_peer(talk))
    watched.assert_the_honest_peer_is_heard()
    assert len(watched.error_lines()) <= 1


def test_a_peer_that_says_again_and_again_that_it_is_cancelled(start, elements, false_peer):
    said = [elements.empty(1, "Some error occured!") for _ in range(1000)]
    peer = false_peer(saying(*said))
    watched = Watched(start, peer)
    wait_until(lambda: peer.observations >= 10, 30, "10 observations")
    watched.assert_the_honest_peer_is_heard()
    watched.assert_hardly_any_loss_is_logged()


@pytest.mark.parametrize("after_call", [True, False], ids=["after-the-call", "at-once"])
def test_peers_that_close_at_once_a_thousand_times(start, after_call):
    with contextlib.ExitStack() as running:
        peers = [running.enter_context(ClosingPeer(after_call)) for _ in range(20)]
        watched = Watched(start, *peers)
        memory = []
        for count in (500, 1000):  # arenas of the threads come first
            wait_until(lambda: sum(peer.connections for peer in peers) >= count, 60,
                       f"{count} connections")
            watched.assert_the_honest_peer_is_heard()
            memory.append(resident_bytes(watched.service))
        watched.assert_hardly_any_loss_is_logged()
        assert is_sanitized() or memory[1] < memory[0] + (8 << 20)


def test_a_peer_that_closed_at_once_is_heard_as_soon_as_it_stays(start, elements, false_peer):
    with ClosingPeer() as peer:
        begin = time.monotonic()
        watched = Watched(start, peer)
        wait_until(lambda: peer.connections >= 20, 30, "20 connections")
        # Otherwise such a peer would occupy a processor.
        assert time.monotonic() - begin > 3
    false_peer(saying(elements.of_sources("at last")), port=peer.port)
    wait_for_source(watched.client, "at last")
    watched.assert_hardly_any_loss_is_logged()


def test_a_peer_that_is_lost_while_the_monitor_is_busy_is_heard_again(start, elements, false_peer):
    """A channel that is lost between its connection and the subscription is not taken for one that
    is connected."""
    size = 2_500 if is_sanitized() else 25_000
    flood = [elements.of_sources(*(f"s{number}" for number in range(size))).SerializeToString()]
    is_over = threading.Event()

    def talk(call):
        while call.is_active() and not is_over.is_set():
            yield from flood
        call.wait()

    with contextlib.ExitStack() as running:
        brief = [running.enter_context(ClosingPeer(after_call=False, limit=1)) for _ in range(5)]
        service = start(*observing(false_peer(talk), *brief))
        client = service.client()

        def stored():
            return client.latest(fromIndex=(1 << 31) - 1).latestStateNotificationIndex

        for peer in brief:
            wait_until(lambda: peer.connections == 1, 30, "a connection")
            seen = stored()
            wait_until(lambda: stored() > seen + 3 * size, 30, "more of the flood")
            false_peer(saying(elements.of_sources(f"of {peer.port}")), port=peer.port)
        is_over.set()
        # Some have come before the end of the flood, which has filled the archive.
        wait_until(lambda: {stored.stateNotification.source for stored in client.latest().stateList}
                   >= {f"of {peer.port}" for peer in brief}, 30, "reports of all peers")
