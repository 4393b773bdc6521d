"""Two services that a third one connects by proxy trees of their state."""
import contextlib
import signal
import subprocess

import pytest

from kit.lines import Lines
from kit.paths import program
from kit.wait import wait_until


def address(service):
    """A numeric address: the resolver of gRPC leaks some bytes at each look-up of a name."""
    return f"127.0.0.1:{service.port}"


class Relay:
    """The running relay."""

    def __init__(self, *services):
        self.process = subprocess.Popen(
            [str(program().parent / "halvo-relay"), *(address(service) for service in services)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.lines = Lines(self.process.stdout)

    def stop(self):
        try:
            self.process.stdin.close()
            assert self.process.wait(10) == 0
        finally:
            self.process.kill()
            self.process.wait()
            self.lines.close()


@pytest.fixture
def relay():
    with contextlib.ExitStack() as running:
        def launch(*services):
            started = Relay(*services)
            running.callback(started.stop)
            for service in services:
                started.lines.wait_for("observing " + address(service))
            return started

        yield launch


def sources(client):
    return {stored.stateNotification.source for stored in client.latest().stateList}


def wait_for_source(client, source):
    wait_until(lambda: source in sources(client), 20, lambda: f"{source} among {sources(client)}")


def test_each_hears_what_the_other_one_is_told(start, relay):
    first, second = start(), start()
    first.client().create(source="before", severity="ERROR")
    relay(first, second)
    wait_for_source(second.client(), "before")
    second.client().create(source="behind", severity="WARN")
    wait_for_source(first.client(), "behind")
    assert second.client().current_state() == "ERROR"


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_one_that_goes_and_comes_back_is_found_again(start, relay, number):
    first, second = start(), start()
    running = relay(first, second)
    first.signal(number)
    first.wait_end()
    running.lines.wait_for(f"lost {address(first)}: Some error occured!")
    second.client().create(source="alone")
    second.assert_alive()
    again = start(port=first.port)
    running.lines.wait_for("observing " + address(first), times=2)
    again.client().create(source="back")
    wait_for_source(second.client(), "back")
    second.client().create(source="answer")
    wait_for_source(again.client(), "answer")


def test_both_end_in_time_while_they_are_observed(start, relay):
    services = start(), start()
    running = relay(*services)
    for service in services:
        service.stop()
    for service in services:
        running.lines.wait_for(f"lost {address(service)}: Some error occured!")
