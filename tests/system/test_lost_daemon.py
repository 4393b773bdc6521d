"""The mDNS daemon or the bus is absent, silent or restarted while the service starts or runs."""
import re
import signal
import time

import pytest

from kit.daemons import AVAHI, Bus, MdnsDaemon
from kit.dns_sd import Browser, Wire, browse, instance_names
from kit.service import STOP_SECONDS
from kit.wait import wait_until

WAITING = "[warning] Waiting for the mDNS daemon"
APPEARED = "[info] The mDNS daemon has appeared"
LOST = "[warning] The mDNS daemon is lost, its records will be published again once it is back"
RENAMED = "[warning] The host name is taken or has changed, all records will be published again"
PUBLISHED_AGAIN = "[info] All records are published again"
#: From the start of a wait to the report of it, in seconds.
PATIENCE = 3


@pytest.fixture
def own_bus(tmp_path):
    with Bus(tmp_path / "own-bus") as running:
        yield running


@pytest.fixture
def mdns(own_bus, tmp_path):
    """A daemon that does not run yet."""
    daemon = MdnsDaemon(own_bus, tmp_path / "own-bus", has_addresses=False)
    yield daemon
    daemon.close()


def count(service, record):
    return len(re.findall(rf"\] {re.escape(record)}$", service.stdout, re.M))


def wait_for_record(service, record, times=1, seconds=20):
    wait_until(lambda: count(service, record) >= times, seconds, f"'{record}' x {times}")
    assert count(service, record) == times


def wait_until_found(service, bus):
    with Browser(bus) as browser:
        for name in instance_names(service):
            browser.wait_for("+", name)


def wait_until_published_again(service, bus, times=1):
    wait_until_found(service, bus)
    wait_for_record(service, PUBLISHED_AGAIN, times)
    assert count(service, LOST) == times


def wait_for_probe(wire, service):
    """Waits until the daemon asks the network for the first name of the service: from then on a
    publication is pending for most of a second."""
    wire.wait_for(f"_{service.service_id}".encode(), is_answer=False)


def test_a_start_with_a_daemon_says_nothing_of_it(start, own_bus, mdns):
    mdns.start()
    service = start(bus=own_bus)
    service.stop()
    for record in (WAITING, APPEARED, LOST, PUBLISHED_AGAIN):
        assert count(service, record) == 0


def test_a_start_without_a_daemon_says_so_once_and_continues_when_there_is_one(start, own_bus,
                                                                              mdns):
    begin = time.monotonic()
    service = start(bus=own_bus, ready=False)
    wait_for_record(service, WAITING)
    assert PATIENCE <= time.monotonic() - begin < PATIENCE + 2
    assert count(service, APPEARED) == 0
    assert service.notices() == []
    mdns.start()
    service.wait_ready()
    for record in (WAITING, APPEARED):
        assert count(service, record) == 1
    for record in (LOST, PUBLISHED_AGAIN):
        assert count(service, record) == 0
    wait_until_found(service, own_bus)


def start_beside_suspended(mdns, start, bus):
    """A service whose start waits for a daemon that has the question and does not answer."""
    mdns.start()
    mdns.pause()
    service = start(bus=bus, ready=False)
    wait_for_record(service, WAITING)
    return service


def test_a_start_with_a_suspended_daemon_says_so_and_continues_with_it(start, own_bus, mdns):
    service = start_beside_suspended(mdns, start, own_bus)
    mdns.resume()
    service.wait_ready()
    assert count(service, APPEARED) == 1
    wait_until_found(service, own_bus)


@pytest.mark.parametrize("is_suspended", [False, True], ids=["absent", "suspended"])
def test_a_signal_while_the_start_waits_ends_the_process(start, own_bus, mdns, is_suspended):
    if is_suspended:
        mdns.start()
        mdns.pause()
    service = start(bus=own_bus, ready=False)
    wait_for_record(service, WAITING)
    service.signal()
    assert service.wait_end(STOP_SECONDS / 3) == -signal.SIGTERM
    assert service.notices() == []


def kill_mdns(_bus, mdns):
    mdns.kill()


def restart_mdns(_bus, mdns):
    mdns.stop()


def stop_bus(bus, mdns):
    bus.stop()
    mdns.process.wait(10)  # it ends with its bus


def kill_bus(bus, mdns):
    bus.kill()
    mdns.process.wait(10)


WAYS = pytest.mark.parametrize("take_away", [kill_mdns, restart_mdns, kill_bus, stop_bus])


def bring_back(bus, mdns):
    if bus.process.poll() is not None:
        bus.start()
    mdns.start()


@WAYS
def test_after_a_loss_everything_is_published_again(start, own_bus, mdns, take_away):
    mdns.start()
    service = start(bus=own_bus)
    take_away(own_bus, mdns)
    wait_for_record(service, LOST)
    service.assert_alive()
    assert count(service, PUBLISHED_AGAIN) == 0
    bring_back(own_bus, mdns)
    wait_until_published_again(service, own_bus)
    service.stop()
    assert count(service, LOST) == count(service, PUBLISHED_AGAIN) == 1


def test_what_is_published_again_is_what_was_published(start, own_bus, tmp_path):
    with MdnsDaemon(own_bus, tmp_path / "own-bus") as mdns:
        service = start(bus=own_bus)
        before = browse(own_bus)
        assert [found.name for found in before] == instance_names(service)
        mdns.kill()
        mdns.start()
        wait_until_published_again(service, own_bus)
        assert browse(own_bus) == before


def test_after_the_twentieth_loss_everything_is_published_again(start, own_bus, mdns):
    mdns.start()
    service = start(bus=own_bus)
    for times in range(1, 21):
        mdns.kill()
        mdns.start()
        wait_until_published_again(service, own_bus, times)
    service.assert_alive()


@pytest.mark.parametrize("kill", [kill_mdns, kill_bus])
def test_losses_in_a_row_leave_a_service_that_is_published_in_the_end(start, own_bus, mdns, kill):
    """The daemon does not live long enough for a publication."""
    mdns.start()
    service = start(bus=own_bus)
    for _ in range(20):
        kill(own_bus, mdns)
        bring_back(own_bus, mdns)
    wait_until_found(service, own_bus)
    wait_until(lambda: count(service, PUBLISHED_AGAIN) == count(service, LOST),
               what="the last record")
    service.assert_alive()


def test_after_a_change_of_the_host_name_everything_is_published_again(start, own_bus, mdns):
    mdns.start()
    service = start(bus=own_bus)
    own_bus.ask(AVAHI, "/", f"{AVAHI}.Server.SetHostName", "string:another-name")
    wait_for_record(service, RENAMED)
    wait_for_record(service, PUBLISHED_AGAIN)
    wait_until_found(service, own_bus)
    assert count(service, LOST) == 0


@WAYS
def test_a_loss_while_the_first_publication_is_pending_delays_the_start(start, own_bus, mdns,
                                                                       take_away):
    mdns.start()
    with Wire() as wire:
        service = start(bus=own_bus, ready=False)
        wait_for_probe(wire, service)
    take_away(own_bus, mdns)
    wait_for_record(service, LOST)
    assert service.notices() == []
    bring_back(own_bus, mdns)
    service.wait_ready()
    wait_until_found(service, own_bus)


@pytest.mark.parametrize("take_away", [kill_mdns, kill_bus])
def test_a_signal_at_the_moment_of_a_loss_ends_the_process(start, own_bus, mdns, take_away):
    for _ in range(5):
        bring_back(own_bus, mdns)
        service = start(bus=own_bus)
        lost = mdns if take_away is kill_mdns else own_bus
        lost.process.kill()
        service.signal()
        assert service.wait_end() == 0
        take_away(own_bus, mdns)


@WAYS
def test_a_loss_while_it_is_published_again_leads_to_another_try(start, own_bus, mdns, take_away):
    mdns.start()
    service = start(bus=own_bus)
    mdns.kill()
    with Wire() as wire:
        mdns.start()
        wait_for_probe(wire, service)
    take_away(own_bus, mdns)
    bring_back(own_bus, mdns)
    wait_until_published_again(service, own_bus)


def test_a_daemon_that_dies_while_the_start_asks_it_delays_the_start(start, own_bus, mdns):
    service = start_beside_suspended(mdns, start, own_bus)
    mdns.kill()
    mdns.start()
    service.wait_ready()
    wait_until_found(service, own_bus)


@pytest.mark.parametrize("take_away", [kill_bus, stop_bus])
def test_a_bus_that_is_restarted_while_the_start_waits_delays_the_start(start, own_bus, mdns,
                                                                       take_away):
    mdns.start()
    mdns.kill()
    service = start(bus=own_bus, ready=False)
    wait_for_record(service, WAITING)
    take_away(own_bus, mdns)
    bring_back(own_bus, mdns)
    service.wait_ready()
    wait_until_found(service, own_bus)


def test_a_loss_as_soon_as_the_service_is_on_the_bus_delays_the_start(start, own_bus, mdns):
    mdns.start()
    for number in range(10):
        before = own_bus.connections()
        service = start(bus=own_bus, ready=False, service_id=f"early-{number}")
        wait_until(lambda others=before: own_bus.connections() > others,
                   what="the service's connection")
        mdns.kill()
        mdns.start()
        service.wait_ready()
        service.stop()


def absent(_bus, mdns, service):
    mdns.kill()
    wait_for_record(service, LOST)


def without_bus(bus, _mdns, service):
    bus.kill()
    wait_for_record(service, LOST)


def suspended(_bus, mdns, _service):
    mdns.pause()


def on_a_suspended_bus(bus, _mdns, _service):
    bus.pause()


def on_a_bus_that_comes_back_suspended(bus, mdns, service):
    without_bus(bus, mdns, service)
    bus.start()
    bus.pause()
    wait_until(lambda: bus.waiting() > 0, what="a connection that nobody accepts")


def back_and_suspended(bus, mdns, service):
    absent(bus, mdns, service)
    mdns.launch()
    wait_until(lambda: AVAHI in bus.names(), what="the daemon's name")
    mdns.pause()


def back_and_asking(bus, mdns, service):
    absent(bus, mdns, service)
    with Wire() as wire:
        mdns.launch()
        wait_for_probe(wire, service)


def suspended_while_asking(bus, mdns, service):
    back_and_asking(bus, mdns, service)
    mdns.pause()


@pytest.mark.parametrize("state", [absent, without_bus, suspended, on_a_suspended_bus,
                                   on_a_bus_that_comes_back_suspended, back_and_suspended, back_and_asking, suspended_while_asking])
def test_a_signal_ends_the_service_cleanly_whatever_the_daemon_does(start, own_bus, mdns, state):
    mdns.start()
    service = start(bus=own_bus)
    state(own_bus, mdns, service)
    service.stop()
