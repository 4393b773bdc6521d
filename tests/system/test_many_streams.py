"""The cost of ended streams, and the end of many streams at the same time."""
import itertools

import pytest

from kit.memory import is_sanitized, resident_bytes
from kit.raw_client import HEADERS, RawClient

OBSERVE = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/observeStateNotifications"
#: The memory that an ended stream may keep.
BYTES_PER_ENDED_STREAM = 200


def observe_and_cancel(client, count):
    """Opens and cancels `count` streams, each with its snapshot, in groups that are open at the
    same time."""
    request = client.protos.tree.ObserveReq(key_pattern="/state/**")
    for _ in range(count // 200):
        calls = [client.state.observeStateNotifications(request) for _ in range(200)]
        for call in calls:
            next(call)
        for call in calls:
            call.cancel()


def test_an_ended_stream_leaves_next_to_nothing(service, client):
    """One good round of several is enough: the allocator itself also takes more memory at times."""
    client.create()
    observe_and_cancel(client, 2000)
    if is_sanitized():  # a sanitizer keeps freed memory
        return
    growths = []
    while len(growths) < 5:
        before = resident_bytes(service)
        observe_and_cancel(client, 10000)
        growths.append((resident_bytes(service) - before) / 10000)
        if growths[-1] < BYTES_PER_ENDED_STREAM:
            return
    pytest.fail(f"bytes per ended stream: {growths}")


@pytest.fixture
def open_streams(service, client):
    """Opens streams on connections of a thousand each."""
    connections = []

    def launch(count):
        request = client.protos.tree.ObserveReq(key_pattern="/state/**")
        for _ in range(count // 1000):
            raw = RawClient(service.port, window=1 << 30)
            connections.append(raw)
            for _ in range(1000):
                raw.call(OBSERVE, request)
        for raw in connections:
            begun = (kind for kind in raw.frames() if kind == HEADERS)
            assert len(list(itertools.islice(begun, 1000))) == 1000

    yield launch
    for raw in connections:
        raw.close()


def test_ten_thousand_open_streams_end_in_time(service, client, open_streams):
    client.create()
    open_streams(2000 if is_sanitized() else 10000)
    client.create()
    service.stop()
    print(f"{service.stop_seconds:.1f} s")
