"""While one capability is busy, everything else is served normally."""
import os
import time

import grpc
import pytest
from google.protobuf import empty_pb2

from kit.configuration import Slice
from kit.raw_client import RawClient

FILTERED = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/getStateNotifications"
UPDATE = "/Hox.Capability.Configuration.Api.ConfigurationService/updateSysConf"
#: On a machine that does nothing else, the limits are those that the service is made for. Beside
#: other tests only the difference to a capability that waits for another one shows: seconds.
ALONE = os.environ.get("HALVO_ISOLATION") == "1"
SAMPLES = 500 if ALONE else 25
#: The maximum of the median and of the 99th percentile of an answer's time, in seconds.
MEDIAN_LIMIT, HIGH_LIMIT = (0.01, 0.05) if ALONE else (0.1, 1.0)


def send_from_many(service, path, request, count):
    """Sends the request from 20 clients, none of which takes an answer."""
    clients = [RawClient(service.port) for _ in range(20)]
    for raw in clients:
        for _ in range(count):
            raw.call(path, request)
    return clients


def slow_filters(service, client):
    """Calls of the state monitor that take about a tenth of a second each."""
    for number in range(1000):
        client.create(type="a" * 950 + str(number))
    request = client.protos.state.GetStateNotificationsReq(typeRegEx="a*[bc]")
    assert seconds(lambda: client_answers(client, request)) > 0.01, "the filter is no work"
    return send_from_many(service, FILTERED, request, 50)


def client_answers(client, request):
    """Whether the request is answered with reports."""
    try:
        return bool(client.state.getStateNotifications(request).stateList)
    except grpc.RpcError as error:
        assert error.code() == grpc.StatusCode.FAILED_PRECONDITION, error
        return False


def slow_saves(service, client):
    """Calls of the configuration that take about a tenth of a second each."""
    Slice(client).update({f"/{number}": "value" for number in range(3000)}, state_id="")
    request = client.protos.configuration.UpdateSysConfReq(
        update_type=client.protos.configuration.UpdateType(saveChanges=False))
    assert seconds(lambda: client.configuration.updateSysConf(request)) > 0.02, "too few keys"
    return send_from_many(service, UPDATE, request, 50)


def seconds(action):
    start = time.monotonic()
    action()
    return time.monotonic() - start


def export(client):
    client.configuration.getSysConf(client.protos.configuration.GetSysConfReq())


def current_state(client):
    client.current_state()


def list_loggers(client):
    client.introspection.listLoggers(empty_pb2.Empty())


def health(client):
    client.channel.unary_unary("/grpc.health.v1.Health/Check")(b"", timeout=20)


@pytest.fixture(params=[(slow_filters, export), (slow_saves, current_state)],
                ids=lambda load: load[0].__name__)
def load(request):
    """What keeps a capability busy, and a call of the other one."""
    return request.param


@pytest.fixture
def busy(load, service, client):
    """The service, one of whose capabilities is busy for minutes."""
    clients = load[0](service, client)
    yield service
    for raw in clients:
        raw.close()


@pytest.fixture
def calls(load, busy, client):
    """Calls of everything that is not busy; each was made once."""
    found = load[1], list_loggers, health
    for call in found:
        call(client)
    return found


def assert_prompt(what, action):
    samples = sorted(seconds(action) for _ in range(SAMPLES))
    median, high = (samples[int(SAMPLES * part)] for part in (0.5, 0.99))
    print(f"{what}: median {median * 1000:.1f} ms, 99 % within {high * 1000:.1f} ms")
    assert median < MEDIAN_LIMIT, samples
    assert high < HIGH_LIMIT, samples


def test_calls_on_open_connections(client, calls):
    for call in calls:
        assert_prompt(call.__name__, lambda call=call: call(client))


def test_calls_on_new_connections(busy, calls):
    def with_newcomer(call):
        with busy.client() as newcomer:
            call(newcomer)

    for call in calls:
        assert_prompt(call.__name__, lambda call=call: with_newcomer(call))


def test_the_end_of_the_service(busy):
    busy.stop()
