"""The operator's tool finds services on the network."""
import re

import pytest
from kit.ctl import Ctl
from kit.daemons import Bus, MdnsDaemon
from kit.dns_sd import published
from kit.namespaces import free_port

CONFIGURATION = "Hox.Capability.Configuration.Api.ConfigurationService"
MONITOR = "Hox.Capability.StateMonitoring.Api.StateMonitoringService"


@pytest.fixture
def own_network(tmp_path):
    """A network that has only the services of one test."""
    with Bus(tmp_path / "bus") as bus, MdnsDaemon(bus, tmp_path / "bus"):
        yield bus


def rows(result):
    return [re.split("  +", line) for line in result.lines]


def test_the_capabilities_are_listed(start, own_network):
    service = start(bus=own_network)
    ctl = Ctl("localhost:1", **own_network.environment)
    address = f"127.0.0.1:{service.port}"
    assert rows(ctl.ok("discover")) == [
        ["CAPABILITY", "SERVICE", "ENDPOINT", "INTERFACE"],
        ["configuration", service.service_id, address, CONFIGURATION],
        ["state_monitoring_uservice", service.service_id, address, MONITOR]]
    first = ctl.ok("discover", "-o", "json").json["capabilities"][0]
    assert first == {"capability": "configuration", "service_id": service.service_id,
                     "endpoint": address, "interface": CONFIGURATION}


def test_a_service_is_reached_by_what_it_is(start, own_network):
    service = start(bus=own_network)
    ctl = Ctl("mdns:configuration", **own_network.environment)
    assert ctl.ok("state").out == f"OK     127.0.0.1:{service.port}\n"
    other = start(bus=own_network)
    result = ctl("state")
    assert (result.status, result.out) == (1, "")
    assert result.err == (
        "halvoctl: mdns:configuration is the name of several:\n" + "".join(sorted(
            f"  configuration/{each.service_id} at 127.0.0.1:{each.port}\n"
            for each in (service, other))) + "hint: mdns:CAPABILITY/ID names one\n")
    named = Ctl(f"mdns:configuration/{other.service_id}", **own_network.environment)
    assert named.ok("state").out == f"OK     127.0.0.1:{other.port}\n"


def test_nobody_by_that_name_is_not_reached(own_network):
    result = Ctl("mdns:tuner/a", **own_network.environment)("state")
    assert (result.status, result.err) == (
        2, "halvoctl: nobody on the network is mdns:tuner/a\n"
           "hint: halvoctl discover lists all\n")


def test_a_foreign_record_is_shown_as_it_is(own_network):
    with published(own_network, "foreign", 20000):
        result = Ctl("localhost:1", **own_network.environment).ok("discover")
    assert re.search(r"^ +127\.0\.0\.1:20000 *$", result.out, re.M)


def test_one_whose_host_does_not_answer_is_left_out(start, own_network):
    service = start(bus=own_network)
    with published(own_network, "dead", 20000, host="dead.local"):
        result = Ctl("localhost:1", **own_network.environment)("discover", "--timeout", "3s")
    assert result.status == 0
    assert result.err == "halvoctl: left out, its host does not answer in time: dead\n"
    assert [row[1] for row in rows(result)[1:]] == [service.service_id] * 2


def test_others_are_shown_beside_one_that_is_not_found(own_network, service):
    ctl = Ctl(service.address, **own_network.environment)
    nobody = ("-e", "mdns:tuner")
    for words, status in (("state",), 2), (("ping",), 2), (("metrics",), 2), (("doctor",), 4):
        result = ctl(*words, *nobody)
        assert result.status == status and service.address in result.out, result
        assert "nobody on the network is mdns:tuner" in result.out + result.err
    assert 'halvo_up{endpoint="mdns:tuner"} 0\n' in ctl("metrics", *nobody).out
    assert ctl("state", "-e", f"localhost:{free_port()}", *nobody).status == 2
    refused = ctl("doctor", "--before-start", *nobody)
    assert (refused.status, refused.out) == (1, "")
    assert "--before-start looks for nothing on the network" in refused.err


def test_without_a_daemon_nothing_is_waited_for(tmp_path):
    with Bus(tmp_path / "bus") as bus:
        result = Ctl("localhost:1", **bus.environment)("--timeout", "1h", "discover")
    assert (result.status, result.err) == (
        2, "halvoctl: there is no mDNS daemon: No such device or address\n")
    result = Ctl("localhost:1", DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nonexistent")("discover")
    assert result.status == 2 and result.err.startswith("halvoctl: ")
