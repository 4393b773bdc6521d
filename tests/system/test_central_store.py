"""A system monitor that keeps its configuration in the configuration service of another process."""
import json
import signal
import threading

import pytest

from kit.configuration import Slice, clear, discard, save, texts
from kit.namespaces import free_port
from kit.snmp_configuration import get_manager, remove_manager, set_manager
from kit.wait import wait_until

CAPABILITY = "state_monitoring_uservice"


def options(central):
    return ["--sys_mon", "--ccsaddr", getattr(central, "address", central)]


def manager_ip(client):
    """Where traps go; None for nowhere."""
    configuration = get_manager(client)
    return configuration.managerIp if configuration else None


def wait_for_manager(client, ip):
    wait_until(lambda: manager_ip(client) == ip, 20, lambda: f"{ip}, it is {manager_ip(client)}")


def stored(central):
    """The slice of a monitor that does not run."""
    return Slice(central.client(), CAPABILITY).content()


def test_the_store_has_what_is_set_as_text(start):
    central = start()
    monitor = start(*options(central))
    set_manager(monitor.client(), "192.0.2.1", "5162", "secret")
    monitor.stop()
    assert stored(central) == {
        "/snmp": '{"@type":"type.googleapis.com/Hox.Capability.StateMonitoring.Api.'
                 'SnmpConfiguration","managerIp":"192.0.2.1","trapPort":"5162",'
                 '"community":"secret"}'}


def test_a_monitor_with_an_empty_disk_gets_everything_from_the_store(start):
    central = start()
    monitor = start(*options(central))
    configuration = set_manager(monitor.client(), "192.0.2.1")
    monitor.stop()
    assert get_manager(start(*options(central)).client()) == configuration


def test_the_store_wins_over_the_disk(start):
    central = start()
    monitor = start(*options(central))
    set_manager(monitor.client(), "192.0.2.1")
    monitor.stop()
    owner = Slice(central.client(), CAPABILITY)
    text = stored(central)["/snmp"].replace("192.0.2.1", "192.0.2.2")
    owner.state_id = state_id(owner)
    owner.update({"/snmp": text})
    again = start(*options(central), "--configdir", str(monitor.folder / "config"))
    assert manager_ip(again.client()) == "192.0.2.2"


def state_id(owner):
    """The present one of a slice that nobody observes."""
    stream = owner.observe("no such id")
    text = texts(stream.next())["/__csid"]
    stream.cancel()
    return text.split('"value":"')[1].rstrip('"}')


def test_what_is_set_after_a_restart_is_stored_too(start):
    central = start()
    monitor = start(*options(central))
    set_manager(monitor.client(), "192.0.2.1")
    monitor.stop()
    again = start(*options(central), "--configdir", str(monitor.folder / "config"))
    assert manager_ip(again.client()) == "192.0.2.1"
    set_manager(again.client(), "192.0.2.2")
    again.stop()
    assert "192.0.2.2" in stored(central)["/snmp"]


def test_what_an_operator_does_with_the_store_reaches_the_monitor(start):
    central = start()
    operator = central.client()
    client = start(*options(central)).client()
    set_manager(client, "192.0.2.1")
    save(operator)
    set_manager(client, "192.0.2.2")
    discard(operator)
    wait_for_manager(client, "192.0.2.1")
    set_manager(client, "192.0.2.3")
    clear(operator)
    wait_for_manager(client, None)
    set_manager(client, "192.0.2.4")
    save(operator)
    remove_manager(client)
    discard(operator)
    wait_for_manager(client, "192.0.2.4")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL], ids=["stop", "kill"])
def test_a_store_that_was_away_is_followed_again(start, number):
    central = start()
    client = start(*options(central)).client()
    set_manager(client, "192.0.2.1")
    save(central.client())
    for count in range(3):
        central.signal(number)
        central.process.wait(3)
        central.exit_status = central.process.returncode
        central = start("--configdir", str(central.folder.parent / "s0/config"), port=central.port)
        operator = central.client()
        set_manager(client, f"192.0.2.1{count}")
        discard(operator)
        wait_for_manager(client, "192.0.2.1")


def test_a_setting_waits_for_a_store_that_is_away(start):
    central = start()
    monitor = start(*options(central))
    client = monitor.client()
    set_manager(client, "192.0.2.1")
    central.stop()
    setting = threading.Thread(target=set_manager, args=(client, "192.0.2.2"))
    setting.start()
    wait_until(lambda: f"Waiting for the central data store at {central.address}" in monitor.stdout)
    assert setting.is_alive()
    central = start("--configdir", str(central.folder / "config"), port=central.port)
    setting.join(20)
    assert manager_ip(client) == "192.0.2.2"
    monitor.stop()
    assert "192.0.2.2" in stored(central)["/snmp"]


def killed(central):
    """The store is gone; what was not saved is lost."""
    central.signal(signal.SIGKILL)
    central.exit_status = central.process.wait()


def again_at_its_place(start, service, *arguments):
    return start(*arguments, "--configdir", str(service.folder / "config"), port=service.port)


def wait_until_saved(central, folder, ip):
    """Looks at the saved copy in the folder: the slice cannot be observed, as its owner does."""
    value = folder / "config/configuration/sys/conf/mb/0/state_monitoring_uservice/snmp/data"

    def is_saved():
        save(central.client())
        return ip in value.read_text() if ip else not value.exists()
    wait_until(is_saved)


@pytest.mark.parametrize("ip", ["192.0.2.2", None], ids=["set", "removed"])
@pytest.mark.parametrize("is_frozen", [True, False], ids=["frozen", "gone"])
def test_a_change_that_could_not_be_stored_is_stored_when_the_store_is_back(start, is_frozen, ip):
    central = start()
    monitor = start(*options(central))
    client = monitor.client()
    set_manager(client, "192.0.2.1")
    save(central.client())
    if is_frozen:
        central.signal(signal.SIGSTOP)
    else:
        killed(central)
    change = threading.Thread(target=lambda: set_manager(client, ip) if ip
                              else remove_manager(client))
    change.start()
    if is_frozen:
        wait_until(lambda: "Waiting for the answer of the central data store" in monitor.stdout)
        killed(central)
    back = again_at_its_place(start, central)
    change.join(20)
    assert manager_ip(client) == ip
    wait_until_saved(back, central.folder, ip)


@pytest.mark.parametrize("ip", ["192.0.2.2", None], ids=["set", "removed"])
def test_a_change_that_could_not_be_stored_survives_a_restart_of_both(start, ip):
    central = start()
    monitor = start(*options(central))
    client = monitor.client()
    set_manager(client, "192.0.2.1")
    save(central.client())
    central.signal(signal.SIGSTOP)
    change = threading.Thread(target=lambda: set_manager(client, ip) if ip
                              else remove_manager(client))
    change.start()
    wait_until(lambda: "Waiting for the answer of the central data store" in monitor.stdout)
    killed(central)
    change.join(20)
    assert manager_ip(client) == ip
    monitor.stop()
    assert list(monitor.folder.rglob("*.unstored"))
    back = again_at_its_place(start, central)
    again = again_at_its_place(start, monitor, *options(back))
    assert manager_ip(again.client()) == ip
    wait_until_saved(back, central.folder, ip)
    assert not list(monitor.folder.rglob("*.unstored"))


def test_a_store_that_has_lost_everything_gets_it_again(start):
    central = start()
    monitor = start(*options(central))
    set_manager(monitor.client(), "192.0.2.1")
    central.signal(signal.SIGKILL)  # nobody has saved
    central.process.wait(3)
    central.exit_status = central.process.returncode
    central = start(port=central.port)
    wait_until(lambda: "Updating system configuration" in central.stdout, 20, "the whole picture")
    assert manager_ip(monitor.client()) == "192.0.2.1"
    monitor.stop()
    assert "192.0.2.1" in stored(central)["/snmp"]


def test_a_refused_setting_gives_way_to_what_others_have_stored(start):
    central = start()
    monitor = start(*options(central))
    client = monitor.client()
    set_manager(client, "192.0.2.1")
    other = Slice(central.client(), CAPABILITY)
    text = ('{"@type":"type.googleapis.com/Hox.Capability.StateMonitoring.Api.SnmpConfiguration",'
            '"managerIp":"192.0.2.9","trapPort":"162"}')
    save(central.client())
    other.state_id = saved_state_id(central)
    other.update({"/snmp": text})
    set_manager(client, "192.0.2.2")
    wait_until(lambda: "Store node data centrally failed" in monitor.stdout)
    wait_for_manager(client, "192.0.2.9")
    set_manager(client, "192.0.2.3")
    monitor.stop()
    assert "192.0.2.3" in stored(central)["/snmp"]


def saved_state_id(central):
    """The state id of the slice in the saved copy."""
    file = central.folder / "config/configuration/sys/conf/mb/0" / CAPABILITY / "__csid/data"
    return json.loads(json.loads(file.read_text())["value"])["value"]


def frozen(start):
    central = start()
    central.signal(signal.SIGSTOP)
    return central


@pytest.fixture
def thawed():
    """Services that continue after the test, so that they can end."""
    services = []
    yield services
    for service in services:
        service.signal(signal.SIGCONT)


WAITING = ["Waiting for the central data store at ",
           "Waiting for the answer of the central data store at "]


@pytest.mark.parametrize("is_frozen", [False, True], ids=["absent", "frozen"])
@pytest.mark.parametrize("is_told", [False, True], ids=["at-once", "later"])
def test_a_start_that_waits_for_the_store_can_be_ended(start, thawed, is_frozen, is_told):
    if is_frozen:
        thawed.append(frozen(start))
    address = thawed[0].address if is_frozen else f"localhost:{free_port()}"
    monitor = start(*options(address), ready=False)
    client = monitor.client()
    # The other capability of the process is served meanwhile.
    Slice(client).update({"/a": "1"})
    if is_told:
        wait_until(lambda: any(line + address in monitor.stdout for line in WAITING))
    assert monitor.notices() == []
    Slice(client, "another").update({"/a": "1"})
    monitor.stop()


def test_a_setting_that_waits_for_the_stores_answer_can_be_ended(start, thawed):
    central = start()
    monitor = start(*options(central))
    client = monitor.client()
    set_manager(client, "192.0.2.1")
    central.signal(signal.SIGSTOP)
    thawed.append(central)
    call = client.state.setSnmpConf
    request = client.protos.state.SetSnmpConfReq(
        conf=client.protos.state.SnmpConfiguration(managerIp="192.0.2.2", trapPort="162"))
    ended = threading.Thread(target=lambda: outcome(call, request))
    ended.start()
    wait_until(lambda: f"{WAITING[1]}{central.address}" in monitor.stdout)
    # What need not ask the state monitor is served meanwhile.
    assert texts(Slice(client).observe().next()) == {}
    assert client.configuration.getSysConf(client.protos.configuration.GetSysConfReq()).sysConfData
    monitor.stop()
    ended.join(20)
    assert not ended.is_alive()


def outcome(call, request):
    try:
        return call(request)
    except Exception as error:  # the service ends
        return error


def test_a_store_that_is_the_service_itself_is_refused(start):
    port = free_port()
    for address in (f"localhost:{port}", f"127.0.0.1:{port}", "inprocess"):
        service = start(*options(address), port=port, ready=False)
        assert service.wait_end(20) != 0
        assert f"The central data store at {address} is this service itself" in service.stderr


@pytest.mark.parametrize("text", ["", "{broken", "[]", '{"@type":"type.googleapis.com/no.Such"}'])
def test_content_that_cannot_be_read_changes_nothing(start, text):
    central = start()
    monitor = start(*options(central))
    set_manager(monitor.client(), "192.0.2.1")
    monitor.stop()
    owner = Slice(central.client(), CAPABILITY)
    owner.state_id = state_id(owner)
    owner.update({"/snmp": text})
    again = start(*options(central), "--configdir", str(monitor.folder / "config"))
    assert manager_ip(again.client()) == "192.0.2.1"
    record = f"Content of the central data store at {central.address} left out, nothing is changed: "
    wait_until(lambda: record in again.stdout)
    assert again.stdout.count("[error]") == 1


def test_keys_of_nobody_are_ignored(start):
    central = start()
    Slice(central.client(), CAPABILITY).update(
        {"/foreign": '{"@type":"type.googleapis.com/google.protobuf.StringValue","value":"x"}'})
    monitor = start(*options(central))
    assert manager_ip(monitor.client()) is None
    monitor.assert_alive()
