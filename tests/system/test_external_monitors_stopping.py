"""A system monitor ends in time, regardless of its peers."""
import contextlib
import itertools
import os
import random
import signal
import time

import pytest

from kit.false_peer import Cable, ClosingPeer, Elements, FalsePeer
from kit.memory import is_sanitized
from kit.monitors import observing, states, wait_for_source, wait_until_connected
from kit.namespaces import free_port
from kit.wait import wait_until

#: How many monitors are stopped at a random moment.
STOPS = 200 if os.environ.get("HALVO_MANY_STOPS") == "1" else 20


@pytest.fixture
def elements(protos):
    return Elements(protos)


class Peers:
    """Ten peers of which five are absent, and what may happen to them."""

    def __init__(self, elements):
        self._running = contextlib.ExitStack()
        self._elements = elements
        talkative = [self._open(self._talk) for _ in range(2)]
        self._cable = self._running.enter_context(Cable(talkative[0].port))
        self.present = [talkative[1], self._cable, self._open(self._liar),
                        self._open(self._silence),
                        self._running.enter_context(ClosingPeer())]
        self.absent = [free_port() for _ in range(5)]

    def _open(self, talk, **kwargs):
        return self._running.enter_context(FalsePeer(talk, **kwargs))

    def _talk(self, call):
        yield self._elements.of_sources(*(f"s{number}" for number in range(100)))
        for number in itertools.count():
            if not call.is_active():
                return
            yield self._elements.of_sources(f"t{number % 1000}")

    def _liar(self, call):
        yield self._elements.empty(1, "gone")
        call.wait()

    @staticmethod
    def _silence(call):
        call.wait()
        yield from ()

    def happen(self, chance):
        """Something that moves the connections on, perhaps."""
        event = chance.randrange(4)
        if event == 0:
            self._cable.drop()
        elif event == 1:
            self._open(self._silence, port=chance.choice(self.absent)).close()

    def close(self):
        self._running.close()


def test_stops_at_random_moments_are_clean_and_in_time(start, elements):
    seed = random.SystemRandom().randrange(1 << 32)
    print(f"seed {seed}")
    chance = random.Random(seed)
    with contextlib.closing(Peers(elements)) as peers:
        for _ in range(STOPS):
            observed = peers.present + peers.absent
            # Those that are there first, in half of the rounds: an absent one stops all after it.
            if chance.randrange(2):
                chance.shuffle(observed)
            service = start(*observing(*observed))
            time.sleep(chance.random() * 0.5)  # the moment, not a wait
            peers.happen(chance)
            time.sleep(chance.random() * 0.02)
            service.stop()
            assert service.stop_seconds < 3  # also with a sanitizer
            service.close()
            assert service.stderr == ""


def test_a_stop_while_all_wait_for_an_absent_peer(start):
    service = start(*observing(free_port(), *(start() for _ in range(2))))
    assert states(service.client()) == ["CONNECTING"] * 3
    service.stop()
    assert service.stderr == ""


def test_a_stop_while_a_peer_does_not_answer(start):
    peer = start()
    peer.signal(signal.SIGSTOP)
    try:
        service = start(*observing(peer, free_port()))
        assert states(service.client()) == ["CONNECTING"] * 2
        service.stop()
        assert service.stderr == ""
    finally:
        peer.signal(signal.SIGCONT)


def test_a_stop_while_the_connection_is_in_use(start):
    peer = start()
    peer.client().create(source="there")
    service = start(*observing(peer))
    wait_for_source(service.client(), "there")
    service.stop()
    assert service.stderr == ""
    peer.assert_alive()


@pytest.mark.parametrize("size", [1, 2_500 if is_sanitized() else 25_000])
def test_a_stop_while_a_peer_floods(start, elements, size):
    flood = [elements.of_sources(*(f"s{number}" for number in range(size))).SerializeToString()]

    def talk(call):
        while call.is_active():
            yield from flood

    with FalsePeer(talk) as first, FalsePeer(talk) as second:
        service = start(*observing(first, second))
        client = service.client()
        wait_until_connected(client)
        wait_until(lambda: client.latest(fromIndex=(1 << 31) - 1).latestStateNotificationIndex
                   > 2 * size, 30, "the flood")
        service.stop()
        assert service.stderr == ""


def test_monitors_of_a_circle_stop_one_after_the_other(start):
    ports = free_port(), free_port()
    services = [start(*observing(ports[1 - number]), port=ports[number]) for number in range(2)]
    for service in services:
        wait_until_connected(service.client())
    services[0].client().create(source="round")
    wait_for_source(services[1].client(), "round")
    for service in services:
        service.stop()
        assert service.stderr == ""
