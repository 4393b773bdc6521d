"""System monitors that observe each other, directly or through others."""
import signal

import pytest

from kit.false_peer import Cable
from kit.memory import is_sanitized
from kit.monitors import (CIRCLE, LOST, copies, error_lines, observing, reports, url,
                          wait_for_source, wait_until_connected)
from kit.namespaces import free_port
from kit.wait import wait_until


#: Of a stream that gets many changes at once; not about peers.
BURST = "Scheduled delayed observe writes above threshhold"


def next_index(client):
    return client.latest(fromIndex=(1 << 31) - 1).latestStateNotificationIndex


class Ring:
    """Monitors of which each observes the one after it, and the last one the first."""

    def __init__(self, start, size):
        self._start = start
        self.ports = [free_port() for _ in range(size)]
        self.services = [self._launch(number) for number in range(size)]
        self._markers = 0
        self.wait_until_connected()

    def _launch(self, number):
        observed = self.ports[(number + 1) % len(self.ports)]
        return self._start(*observing(observed), port=self.ports[number])

    @property
    def clients(self):
        return [service.client() for service in self.services]

    def wait_until_connected(self):
        for client in self.clients:
            wait_until_connected(client)

    def restart(self, number, signal_number=signal.SIGKILL):
        self.services[number].signal(signal_number)
        self.services[number].wait_end()
        self.services[number] = self._launch(number)
        self.wait_until_connected()

    def pass_marker(self):
        """Waits until a new report of each monitor has been everywhere."""
        self._markers += 1
        for number, client in enumerate(self.clients):
            client.create(source=f"marker {self._markers} of {number}", seconds=self._markers)
        sent = {f"marker {self._markers} of {number}" for number in range(len(self.services))}
        for client in self.clients:
            # Not from the archive, where other reports may have replaced it.
            wait_until(lambda: {stored.stateNotification.source
                                for stored in client.latest().stateList} >= sent, 20, f"{sent}")

    def create(self, count, seconds):
        """Creates that many reports at each monitor."""
        for number, client in enumerate(self.clients):
            for index in range(count):
                client.create(source=f"s{index} of {number}", seconds=seconds)

    def wait_until_quiet(self):
        """Waits until nothing is stored but new markers and their copies."""
        passes = 20

        def is_quiet():
            before = [next_index(client) for client in self.clients]
            for _ in range(passes):
                self.pass_marker()
            grown = [next_index(client) - former for client, former in zip(self.clients, before)]
            # Each marker and its copy; those of an earlier one may be late.
            return all(count <= (passes + 1) * 2 * len(self.services) for count in grown)

        wait_until(is_quiet, 120 if is_sanitized() else 30, "quiet")

    def counts(self, source):
        """How often the report of this source is in each archive."""
        return [copies(client, source).total() for client in self.clients]

    def assert_each_names_its_circle_once(self):
        for number, service in enumerate(self.services):
            peer = (number + 1) % len(self.ports)
            lines = [line for line in error_lines(service) if line != BURST]
            assert lines == [CIRCLE.format(url(self.ports[peer]))]


@pytest.mark.parametrize("seconds", [0, 1700000000], ids=["no-time", "time"])
@pytest.mark.parametrize("size", [2, 3])
def test_a_report_goes_round_once(start, size, seconds):
    ring = Ring(start, size)
    ring.create(20, seconds)
    ring.wait_until_quiet()
    for client in ring.clients:
        counts = copies(client)
        assert len(counts) >= 20 * size
        assert set(counts.values()) == {2}
    ring.assert_each_names_its_circle_once()


def test_equal_reports_go_round_once_each(start):
    ring = Ring(start, 2)
    for _ in range(5):
        ring.clients[0].create(source="equal")
    ring.wait_until_quiet()
    assert all(5 <= count <= 10 for count in ring.counts("equal")), ring.counts("equal")


@pytest.mark.parametrize("seconds", [0, 1700000000], ids=["no-time", "time"])
@pytest.mark.parametrize("size", [2, 3])
def test_a_restart_in_the_circle_sends_nothing_round_for_ever(start, size, seconds):
    ring = Ring(start, size)
    ring.create(5, seconds)
    ring.wait_until_quiet()
    # Without a time, some ten thousand copies go round before it ends.
    for number in range(1 if is_sanitized() and not seconds else size):
        ring.restart(number)
        ring.wait_until_quiet()


@pytest.mark.parametrize("seconds", [0, 1700000000], ids=["no-time", "time"])
def test_a_lost_connection_in_the_circle_sends_nothing_round_for_ever(start, seconds):
    port, other_port = free_port(), free_port()
    with Cable(port) as cable:
        first = start(*observing(other_port), port=port)
        second = start(*observing(cable), port=other_port)
        clients = [first.client(), second.client()]
        for count in range(5):
            for number, client in enumerate(clients):
                client.create(source=f"s{count} of {number}", seconds=seconds)
        for round_number in range(3):
            for client in clients:
                wait_until_connected(client)
            lost = second.stdout.count(LOST.format(url(cable)))
            cable.drop()
            wait_until(lambda: second.stdout.count(LOST.format(url(cable))) > lost, 20, "the loss")
            for client in clients:
                wait_until_connected(client)
            first.client().create(source=f"marker {round_number}", seconds=round_number + 1)
            for client in clients:
                wait_for_source(client, f"marker {round_number}", 2)
        assert all(next_index(client) < 500 for client in clients)


def test_equal_reports_of_two_nodes_all_arrive(start):
    nodes = start(), start()
    client = start(*observing(*nodes)).client()
    wait_until_connected(client)
    for numbers in ((5, 1), (1, 5), (0, 7)):
        for node, number in zip(nodes, numbers):
            for _ in range(number):
                node.client().create(source="equal")
    for number, node in enumerate(nodes):
        node.client().create(source=f"marker {number}")
        wait_for_source(client, f"marker {number}")
    assert copies(client, "equal").total() == 19


def test_reports_of_a_node_reach_two_monitors_that_observe_each_other(start):
    node = start()
    ports = free_port(), free_port()
    monitors = [start(*observing(node, ports[1 - number]), port=ports[number])
                for number in range(2)]
    clients = [monitor.client() for monitor in monitors]
    for client in clients:
        wait_until_connected(client)
    states = ["ERROR", "OK", "ERROR", "OK", "WARN", "OK", "ERROR"]
    for count, severity in enumerate(states):
        node.client().create("svc", "T", "flapping", severity)
        node.client().create(source=f"marker {count}", seconds=count + 1)
        for client in clients:
            wait_for_source(client, f"marker {count}", 2)
            assert client.current_state() == severity
    for client in clients:
        assert len(states) <= copies(client, "flapping").total() <= 3 * len(states)


def test_reports_that_arrive_on_two_roads_are_never_lost(start):
    node = start()
    middle = [start(*observing(node)) for _ in range(2)]
    client = start(*observing(*middle)).client()
    for monitor in middle:
        wait_until_connected(monitor.client())
    wait_until_connected(client)
    states = ["ERROR", "OK", "ERROR", "OK", "WARN", "OK", "ERROR"]
    for count, severity in enumerate(states):
        node.client().create("svc", "T", "flapping", severity)
        node.client().create(source=f"marker {count}", seconds=count + 1)
        wait_for_source(client, f"marker {count}", 2)
        assert client.current_state() == severity
    assert copies(client, "flapping").total() >= len(states)
