"""Clients that are killed in every state of a call."""
import pathlib
import signal
import subprocess
import sys

import pytest

import kit
from kit.wait import wait_until

PROGRAM = pathlib.Path(kit.__file__).parent / "vanishing.py"
CLEANED_UP = "Received FINISHED_STREAMING_CLEANUP call data resetting RAII handle"


@pytest.fixture
def visitor(service):
    """Starts client programs and waits until each has reached its state."""
    running = []

    def launch(state, message=None):
        words = [sys.executable, str(PROGRAM), service.address, state]
        if message is not None:
            words.append(message.SerializeToString().hex())
        process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        running.append(process)
        return process

    yield launch
    for process in running:
        process.kill()
        process.wait()
        process.stdin.close()
        process.stdout.close()


def wait_for(process, word="ready"):
    assert process.stdout.readline().strip() == word


def observe_request(client, pattern):
    return client.protos.tree.ObserveReq(key_pattern=pattern)


def trace(client):
    """From now on the service logs each stream that it cleans up."""
    client.introspection.setAllLogLevels(
        client.protos.introspection.SetAllLogLevelsReq(level=0))


def assert_in_order(service, client, count=20):
    """Asserts that the store accepts reports and that a new observer gets each of them."""
    service.assert_alive()
    client.create("after", "T", "s")
    begin = client.latest().latestStateNotificationIndex
    stream = client.observe("/state/notifications/archive/*")
    stream.next()
    for _ in range(count):
        client.create("after", "T", "s")
    for number in range(count):
        assert list(stream.next().node_change_map) == [
            f"/state/notifications/archive/{begin + number:010d}"]
    stream.cancel()


@pytest.mark.parametrize("state", ["connected", "half-a-preface", "no-protocol-at-all"])
def test_with_a_connection_and_no_call(service, client, visitor, state):
    for _ in range(3):
        process = visitor(state)
        wait_for(process)
        process.kill()
    assert_in_order(service, client)


def test_before_its_calls_are_answered(service, client, visitor):
    request = client.protos.state.CreateStateNotificationReq(
        stateNotification=client.notification("gone", "T", "s"))
    process = visitor("calls-unanswered", request)
    wait_for(process, "connected")
    service.signal(signal.SIGSTOP)
    try:
        process.stdin.write("\n")
        process.stdin.flush()
        wait_for(process)
        process.kill()
        process.wait()
    finally:
        service.signal(signal.SIGCONT)
    assert_in_order(service, client)
    assert client.latest().latestStateNotificationIndex <= 20 + 21


@pytest.mark.parametrize("pattern", ["/state/**", "/a/**/b", "/a/b*"])
def test_with_a_stream_and_no_write_in_flight(service, client, visitor, pattern):
    client.create()
    process = visitor("stream-read", observe_request(client, pattern))
    wait_for(process)
    trace(client)
    process.kill()
    wait_until(lambda: CLEANED_UP in service.stdout, what="the end of the observation")
    assert_in_order(service, client)


def test_with_a_stream_that_never_had_a_write(service, client, visitor):
    client.create()
    trace(client)
    process = visitor("stream-unread", observe_request(client, "/none/**"))
    wait_for(process)
    wait_until(lambda: "Received OBSERVE Call Data, key /state, " in service.stdout,
               what="the arrival of the call")
    process.kill()
    wait_until(lambda: CLEANED_UP in service.stdout, what="the end of the observation")
    assert_in_order(service, client)


def test_with_a_stream_that_it_never_read_and_writes_in_flight(service, client, visitor):
    client.create(msg="x" * 100000)
    process = visitor("stream-unread", observe_request(client, "/state/**"))
    wait_for(process)
    witness = client.observe("/state/notifications/archive/*")
    witness.next()
    for _ in range(100):
        client.create(msg="x" * 100000)
    for _ in range(100):
        assert witness.next().node_change_map
    trace(client)
    process.kill()
    wait_until(lambda: CLEANED_UP in service.stdout, what="the end of the observation")
    assert_in_order(service, client)


def test_while_changes_flow(service, client, visitor):
    client.create()
    processes = [visitor("stream-read", observe_request(client, "/state/**")) for _ in range(4)]
    for process in processes:
        wait_for(process)
    trace(client)
    for number in range(200):
        client.create(msg="x" * 1000)
        if number % 50 == 25:
            processes[number // 50].kill()
    wait_until(lambda: service.stdout.count(CLEANED_UP) == 4, what="the end of four observations")
    assert_in_order(service, client)


def test_streams_that_come_and_go_leave_no_observer(service, client):
    client.create()
    trace(client)
    for _ in range(50):
        stream = client.observe("/state/**")
        stream.next()
        stream.cancel()
    wait_until(lambda: service.stdout.count(CLEANED_UP) == 50, what="the end of all observations")
    assert_in_order(service, client)
