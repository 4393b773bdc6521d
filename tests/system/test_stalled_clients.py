"""A client that does not read its answers does not affect others."""
import pathlib
import signal
import subprocess
import sys

import pytest

import kit
from kit.configuration import Slice, save
from kit.raw_client import RawClient
from kit.wait import wait_until

VISITOR = pathlib.Path(kit.__file__).parent / "vanishing.py"
MONITOR = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/"
STORE = "/Hox.Capability.Configuration.Api.ConfigurationService/"


def fill(client, count=100):
    """Creates so many reports that an answer with all of them fills a connection."""
    for number in range(count):
        client.create(source=f"s{number}", msg="x" * 10000)


@pytest.fixture
def stalled(service, client):
    """A client that has requested everything, several times, and reads nothing."""
    fill(client)
    with RawClient(service.port) as raw:
        for _ in range(5):
            raw.call(MONITOR + "getStateNotifications",
                     client.protos.state.GetStateNotificationsReq())
            raw.call(MONITOR + "getLatestStateNotifications",
                     client.protos.state.GetLatestStateNotificationsReq())
        raw.wait_for_answer()
        yield raw


def test_every_method_goes_on_for_the_others(service, client, stalled):
    other = service.client()
    for number in range(3):
        assert len(other.notifications()) == 100 + number
        assert len(other.latest().stateList) == 100 + number
        other.create(source=f"other{number}")
        assert other.current_state() == "OK"


def test_the_configuration_goes_on(service, client, stalled):
    """The configuration store reports to the state monitor inside the process."""
    report = client.protos.state.CreateStateNotificationReq(stateNotification=client.notification())
    for _ in range(3):
        stalled.call(MONITOR + "createStateNotification", report)
    slice_ = Slice(service.client())
    for number in range(3):
        slice_.update({"/a": str(number)})
    assert client.current_state() == "WARN"


def test_the_end_of_the_service_does_not_wait_for_it(service, stalled):
    service.stop()
    assert service.stop_seconds < 3


def test_a_package_that_nobody_takes(service, client):
    owner = Slice(service.client())
    for number in range(20):
        owner.update({f"/{number}": "x" * 10000}, patch=True)
    save(client)
    with RawClient(service.port) as raw:
        for _ in range(5):
            raw.call(STORE + "getSysConf", client.protos.configuration.GetSysConfReq())
        raw.wait_for_answer()
        for _ in range(3):
            assert client.configuration.getSysConf(
                client.protos.configuration.GetSysConfReq()).sysConfData
        service.stop()


def test_a_client_that_observes_and_reports_and_takes_nothing(service, client):
    with RawClient(service.port) as raw:
        raw.call(MONITOR + "observeStateNotifications",
                 client.protos.tree.ObserveReq(key_pattern="/state/**"))
        fill(client, 20)
        raw.wait_for_answer()
        report = client.protos.state.CreateStateNotificationReq(
            stateNotification=client.notification("stalled"))
        for _ in range(3):
            raw.call(MONITOR + "createStateNotification", report)
        wait_until(lambda: client.notifications(typeRegEx="Test")[0].stateNotification.service_id
                   == "stalled", what="its report")
        slice_ = Slice(service.client())
        for number in range(20):
            client.create(source=f"after{number}", msg="x" * 10000)
            slice_.update({"/a": str(number)})
        service.stop()


def test_a_client_that_is_frozen_and_comes_back(service, client):
    """It misses nothing, and no other client waits for it."""
    client.create()
    stream = client.observe("/state/notifications/archive/*")
    stream.next()
    process = subprocess.Popen(
        [sys.executable, str(VISITOR), service.address, "stream-read",
         client.protos.tree.ObserveReq(key_pattern="/state/**").SerializeToString().hex()],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout.readline() == "ready\n"
        process.send_signal(signal.SIGSTOP)
        fill(client)
        for _ in range(100):
            assert stream.next().node_change_map
        process.send_signal(signal.SIGCONT)
        client.create()
        assert stream.next().node_change_map
    finally:
        process.kill()
        process.wait()
        process.stdin.close()
        process.stdout.close()
