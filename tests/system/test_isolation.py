"""While one capability is busy, everything else is served normally."""
import statistics
import time

import grpc
import pytest
from google.protobuf import empty_pb2

from kit.raw_client import RawClient

FILTERED = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/getStateNotifications"
#: The maximum median and worst time of an answer, in seconds. Without load on the machine it takes
#: a tenth of that; a capability that must wait for another one takes seconds.
MEDIAN_LIMIT, WORST_LIMIT = 0.1, 1.0
SAMPLES = 25


@pytest.fixture
def busy_monitor(service, client):
    """Keeps the state monitor busy for minutes: each of its calls takes about a tenth of a second.
    """
    for number in range(1000):
        client.create(type="a" * 700 + str(number))
    request = client.protos.state.GetStateNotificationsReq(typeRegEx="a*[bc]")
    start = time.monotonic()
    assert not client_answers(client, request)
    assert time.monotonic() - start > 0.02, "the filter is no work"
    clients = [RawClient(service.port) for _ in range(20)]
    for raw in clients:
        for _ in range(50):
            raw.call(FILTERED, request)
    yield service
    for raw in clients:
        raw.close()


def client_answers(client, request):
    """Whether the request is answered with reports."""
    try:
        return bool(client.state.getStateNotifications(request).stateList)
    except grpc.RpcError as error:
        assert error.code() == grpc.StatusCode.FAILED_PRECONDITION, error
        return False


def seconds(action):
    start = time.monotonic()
    action()
    return time.monotonic() - start


def assert_prompt(what, samples):
    samples = sorted(samples)
    print(f"{what}: median {statistics.median(samples) * 1000:.1f} ms, "
          f"worst {samples[-1] * 1000:.1f} ms")
    assert statistics.median(samples) < MEDIAN_LIMIT, samples
    assert samples[-1] < WORST_LIMIT, samples


def status_of_configuration(client):
    client.configuration.getSysConf(client.protos.configuration.GetSysConfReq())


def list_loggers(client):
    client.introspection.listLoggers(empty_pb2.Empty())


@pytest.mark.parametrize("action", [status_of_configuration, list_loggers])
def test_calls_on_open_connections(client, busy_monitor, action):
    action(client)
    assert_prompt(action.__name__, [seconds(lambda: action(client)) for _ in range(SAMPLES)])


@pytest.mark.parametrize("action", [status_of_configuration, list_loggers])
def test_calls_on_new_connections(client, busy_monitor, action):
    def call():
        with_client = busy_monitor.client()
        action(with_client)
        with_client.close()

    assert_prompt(action.__name__, [seconds(call) for _ in range(SAMPLES)])


def test_the_end_of_the_service(busy_monitor):
    busy_monitor.stop()
