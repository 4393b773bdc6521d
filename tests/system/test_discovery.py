"""What the service publishes, as a foreign browser sees it."""
import signal

import pytest

from kit.daemons import Bus, MdnsDaemon
from kit.dns_sd import CAPABILITY, Browser, Wire, browse, browse_all, published, subtype
from kit.service import STOP_SECONDS

CONFIGURATION = ("configuration", "Hox.Capability.Configuration.Api.ConfigurationService")
MONITOR_API = "Hox.Capability.StateMonitoring.Api.StateMonitoringService"
MONITOR = ("state_monitoring_uservice", MONITOR_API)
SYSTEM_MONITOR = ("state_monitoring_system", MONITOR_API)
#: Capabilities under whose subtypes somebody may look for this service.
NAMES = {"configuration", "introspection", "state_monitoring_uservice", "state_monitoring_node",
         "state_monitoring_system"}
#: The longest id with which the names of both instances have the 63 bytes of a label.
LONGEST_ID = 63 - len("state_monitoring_uservice_")


def records(capability, interface, service_id):
    return ["vendor=halvo", f"capability={capability}", f"service_id={service_id}",
            f"service_iface={interface}", "type=grpc", "visiblity=private"]


def is_of(service, instance):
    return instance.name.endswith(f"_{service.service_id}")


def instances(service, bus):
    """The instances of one service, resolved."""
    return [instance for instance in browse(bus) if is_of(service, instance)]


def instance_names(service):
    return [f"{capability}_{service.service_id}" for capability, _ in (CONFIGURATION, MONITOR)]


def as_label(text):
    data = text.encode()
    return bytes([len(data)]) + data


@pytest.mark.parametrize("roles, monitor", [
    ([], MONITOR),
    (["--sys_mon"], SYSTEM_MONITOR),
    (["--node_mon"], MONITOR),
    (["--sys_mon", "--node_mon"], SYSTEM_MONITOR),
], ids=["none", "system", "node", "both"])
def test_each_capability_is_found_once_under_the_type_and_its_subtype(start, network, roles,
                                                                      monitor):
    service = start(*roles, bus=network)
    kinds = browse_all(network, [CAPABILITY, *map(subtype, NAMES)])
    found = {kind: [instance for instance in instances if is_of(service, instance)]
             for kind, instances in kinds.items()}
    for capability, interface in (CONFIGURATION, monitor):
        instance, = found.pop(subtype(capability))
        assert instance.name == f"{capability}_{service.service_id}"
        assert (instance.type, instance.domain) == (CAPABILITY, "local")
        assert (instance.interface, instance.protocol) == ("lo", "IPv4")
        assert (instance.address, instance.port) == ("127.0.0.1", service.port)
        assert instance.txt == records(capability, interface, service.service_id)
        assert found[CAPABILITY].count(instance) == 1
    assert len(found.pop(CAPABILITY)) == 2
    assert found == {subtype(name): [] for name in NAMES - {CONFIGURATION[0], monitor[0]}}


def test_the_network_carries_the_records_in_this_order(start, network):
    with Wire() as wire:
        service = start(bus=network)
        for capability, interface in (CONFIGURATION, MONITOR):
            wire.wait_for(b"".join(map(as_label, records(capability, interface,
                                                         service.service_id))), is_answer=True)


def test_the_published_port_serves_the_capabilities(start, network):
    service = start(bus=network)
    found = instances(service, network)
    assert len(found) == 2
    for instance in found:
        assert service.client(f"{instance.address}:{instance.port}").current_state() == "OK"


def test_the_external_port_is_not_published(start, network):
    service = start(bus=network, extport=True)
    assert [found.port for found in instances(service, network)] == [service.port] * 2


def test_without_an_id_the_names_end_with_an_underscore(start, network):
    service = start(bus=network, service_id=None)
    found = {instance.name: instance for instance in browse(network)
             if instance.port == service.port}
    assert set(found) == {"configuration_", "state_monitoring_uservice_"}
    assert "service_id=" in found["configuration_"].txt


@pytest.mark.parametrize("service_id", [
    "x" * LONGEST_ID, "ü" * (LONGEST_ID // 2), "Köln Süd.1", "a=b;c\\d\"e"],
    ids=["longest", "longest-in-two-bytes", "blank-and-dot", "signs"])
def test_an_id_is_published_letter_for_letter(start, network, service_id):
    service = start(bus=network, service_id=service_id)
    found = instances(service, network)
    assert sorted(instance.name for instance in found) == instance_names(service)
    for instance in found:
        assert f"service_id={service_id}" in instance.txt


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_the_records_vanish_with_the_service(start, network, number):
    service = start(bus=network)
    with Browser(network) as browser:
        for name in instance_names(service):
            browser.wait_for("=", name)
        service.signal(number)
        service.wait_end()
        for name in instance_names(service):
            browser.wait_for("-", name)
    assert instances(service, network) == []


def test_a_killed_service_that_is_back_at_once_is_published_again(start, network):
    for _ in range(3):
        service = start(bus=network, service_id="comes-back")
        service.signal(signal.SIGKILL)
        service.wait_end()
    service = start(bus=network, service_id="comes-back")
    assert [found.port for found in instances(service, network)] == [service.port] * 2


@pytest.mark.parametrize("capability", ["configuration", "state_monitoring_uservice"])
def test_the_service_is_not_ready_while_a_publication_is_pending(start, tmp_path, capability):
    with Bus(tmp_path) as bus, MdnsDaemon(bus, tmp_path) as mdns, Wire() as wire:
        service = start(bus=bus, ready=False)
        wire.wait_for(f"{capability}_{service.service_id}".encode(), is_answer=False)
        mdns.pause()
        with pytest.raises(AssertionError, match="sent no notice in time"):
            service.next_notice(seconds=2)
        mdns.resume()
        service.wait_ready()
        assert len(instances(service, bus)) == 2


def ends_at_the_start(service):
    """The texts of standard error and of the log of a service that does not get ready."""
    assert service.wait_end(20) == -signal.SIGABRT
    assert service.notices() == []
    return service.stderr, service.log


def assert_tells(service, text):
    for place in ends_at_the_start(service):
        assert text in place, place
    line, = [line for line in service.log.splitlines() if text in line]
    assert "][error][" in line


def test_two_services_with_one_id_collide(start, network):
    first = start(bus=network)
    second = start(bus=network, service_id=first.service_id, ready=False, log_to_file=True)
    assert_tells(second, "Service Discovery Publish Error(1): failed to publish capability")
    assert len(instances(first, network)) == 2
    first.assert_alive()


@pytest.mark.parametrize("capability", ["configuration", "state_monitoring_uservice"])
def test_a_taken_name_ends_the_start(start, network, capability):
    """Whichever of the two is published last: the service never reports ready."""
    with published(network, f"{capability}_taken", 9):
        service = start(bus=network, service_id="taken", ready=False, log_to_file=True)
        assert_tells(service, "Service Discovery Publish Error(1): failed to publish capability")


def test_a_name_that_another_daemon_has_published_ends_the_start(start, network, tmp_path):
    with Bus(tmp_path) as bus, MdnsDaemon(bus, tmp_path), published(bus, "configuration_far", 9):
        service = start(bus=network, service_id="far", ready=False, log_to_file=True)
        assert_tells(service, "Service Discovery Publish Error(1): failed to publish capability")


@pytest.mark.parametrize("service_id", [
    "x" * (LONGEST_ID + 1), "x" * 50, "x" * 300, "bad-\udcff"],
    ids=["one-byte-too-long", "too-long-for-both", "far-too-long", "not-utf-8"])
def test_an_id_that_the_daemon_refuses_ends_the_start(start, network, service_id):
    service = start(bus=network, service_id=service_id, ready=False, log_to_file=True)
    assert_tells(service, "Service Discovery Publish Error(3): failed to publish capability")


def test_without_a_bus_the_start_ends(start):
    service = start(environment={"DBUS_SYSTEM_BUS_ADDRESS": "unix:abstract=halvo-no-such-bus"},
                    ready=False, log_to_file=True)
    stderr, log = ends_at_the_start(service)
    assert "Initialization Error: Unable to initialize service discovery." in stderr
    line, = [line for line in log.splitlines() if "][error][" in line]
    assert "Service Discovery Error: Avahi: failed to create client instance" in line


@pytest.mark.parametrize("is_suspended", [False, True], ids=["serving", "suspended"])
def test_a_signal_while_a_publication_is_pending_ends_the_process(start, tmp_path, is_suspended):
    with Bus(tmp_path) as bus, MdnsDaemon(bus, tmp_path) as mdns, Wire() as wire:
        service = start(bus=bus, ready=False)
        wire.wait_for(f"_{service.service_id}".encode(), is_answer=False)
        if is_suspended:
            mdns.pause()
        service.signal()
        assert service.wait_end(STOP_SECONDS / 3) == -signal.SIGTERM
        assert service.notices() == []
