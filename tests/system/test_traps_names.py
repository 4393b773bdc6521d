"""A manager that is named: what its look-up finds, and that nobody waits for it."""
import os
import pathlib
import subprocess
import time

import pytest

from kit.name_server import NameServer
from kit.namespaces import own_path
from kit.snmp_configuration import get_manager, remove_manager, set_manager
from kit.trap_receiver import TrapSocket
from kit.traps import assert_next_trap, refused_managers, report
from kit.wait import wait_until

NAME = "manager.example"
#: Nobody waits longer for an answer, whatever a resolver does.
PATIENCE = 1.0
#: From a failed look-up to the next one.
PAUSE = 30


@pytest.fixture
def name_server(tmp_path):
    with NameServer(tmp_path) as running:
        yield running


@pytest.fixture
def asking_monitor(start, name_server):
    """A system monitor that asks the name server."""
    return start("--sys_mon", prefix=own_path("/etc/resolv.conf", name_server.configuration))


def fake_getent(folder, commands):
    """An environment with these commands of the shell instead of the look-up."""
    file = folder / "getent"
    file.write_text(f"#!/bin/sh\n{commands}\n")
    file.chmod(0o755)
    return {"PATH": f"{folder}:{os.environ['PATH']}"}


def write_hosts(file, addresses=()):
    """A file of host names in which the manager has these addresses; the program needs localhost.
    """
    file.write_text("127.0.0.1 localhost\n"
                    + "".join(f"{address} {NAME}\n" for address in addresses))


def children(service):
    """Process ids."""
    words = subprocess.run(["ps", "-o", "pid=", "--ppid", str(service.process.pid)],
                           capture_output=True, text=True, check=False).stdout.split()
    return [int(word) for word in words]


def wait_for_a_trap(client, socket, seconds=10):
    """Sends reports until one arrives."""
    def arrives():
        report(client)
        try:
            return socket.next(0.1)
        except TimeoutError:
            return None
    wait_until(arrives, seconds, "a trap")


class Stopwatch:
    """Asserts that its block takes at most that long."""

    def __init__(self, seconds=PATIENCE):
        self._limit = seconds
        self._start = None

    def __enter__(self):
        self._start = time.monotonic()

    def __exit__(self, *_):
        assert time.monotonic() - self._start < self._limit


@pytest.mark.parametrize("name", ["localhost", "LOCALHOST", "udp:localhost"])
def test_the_traps_to_a_known_name_begin_with_the_answer(monitor, trap_socket, name):
    client = monitor.client()
    set_manager(client, name, trap_socket.port)
    assert_next_trap(client, trap_socket)
    assert refused_managers(monitor) == 0


@pytest.mark.parametrize("addresses, used", [
    (["127.0.0.1", "::1"], "127.0.0.1"), (["::1", "127.0.0.1"], "127.0.0.1"), (["::1"], "::1")])
def test_a_manager_listens_on_ipv4_if_its_name_has_such_an_address(start, tmp_path, addresses, used):
    hosts = tmp_path / "hosts"
    write_hosts(hosts, addresses)
    client = start("--sys_mon", prefix=own_path("/etc/hosts", hosts)).client()
    with TrapSocket(used) as socket:
        set_manager(client, NAME, socket.port)
        assert_next_trap(client, socket)


def test_a_slow_resolver_holds_nobody(asking_monitor, name_server, trap_socket):
    client, other = asking_monitor.client(), asking_monitor.client()
    set_manager(client, trap_port=trap_socket.port)
    with TrapSocket() as named:
        for _ in range(3):
            with Stopwatch():
                configuration = set_manager(client, NAME, named.port)
        wait_until(lambda: name_server.was_asked(NAME), what="the question")
        assert len(children(asking_monitor)) == 1
        with Stopwatch():
            assert other.current_state() == "OK"
        with Stopwatch():
            assert get_manager(client) == configuration
        with Stopwatch():
            assert_next_trap(client, trap_socket, "to the former one")
        name_server.release()
        wait_for_a_trap(client, named)
        assert_next_trap(client, named, "to the new one")
    wait_until(lambda: not children(asking_monitor), what="the end of the look-up")
    assert refused_managers(asking_monitor) == 0


def test_a_number_does_not_wait_for_the_name_before_it(asking_monitor, name_server, trap_socket):
    client = asking_monitor.client()
    set_manager(client, NAME, 1)
    wait_until(lambda: name_server.was_asked(NAME), what="the question")
    with Stopwatch():
        set_manager(client, trap_port=trap_socket.port)
        assert_next_trap(client, trap_socket)
    name_server.release()
    assert_next_trap(client, trap_socket)
    assert refused_managers(asking_monitor) == 0


def test_the_program_ends_in_time_while_a_name_is_looked_up(asking_monitor, name_server):
    set_manager(asking_monitor.client(), NAME)
    wait_until(lambda: name_server.was_asked(NAME), what="the question")
    look_up, = children(asking_monitor)
    asking_monitor.stop()
    assert not pathlib.Path(f"/proc/{look_up}").exists()


def test_a_stored_name_does_not_hold_the_start(start, asking_monitor, name_server, trap_socket):
    set_manager(asking_monitor.client(), NAME, trap_socket.port)
    asking_monitor.stop()
    name_server.questions.clear()
    service = start("--sys_mon", "--configdir", str(asking_monitor.folder / "config"),
                    prefix=own_path("/etc/resolv.conf", name_server.configuration))
    assert service.ready_seconds < 3
    wait_until(lambda: name_server.was_asked(NAME), what="the question")
    client = service.client()
    report(client, "lost")
    name_server.release()
    wait_for_a_trap(client, trap_socket)


#: Runs until it is killed.
HUNG = "trap '' TERM; exec sleep infinity"


@pytest.mark.parametrize("end", [
    lambda service: set_manager(service.client()),
    lambda service: set_manager(service.client(), "-"),
    lambda service: remove_manager(service.client()),
    lambda service: service.stop(),
], ids=["number", "invalid", "removal", "stop"])
def test_a_look_up_ends_with_the_need_for_it(start, tmp_path, end):
    service = start("--sys_mon", environment=fake_getent(tmp_path, HUNG))
    set_manager(service.client(), NAME)
    look_up, = children(service)
    with Stopwatch(3):
        end(service)
        assert not pathlib.Path(f"/proc/{look_up}").exists()


def test_a_look_up_inherits_nothing(start, tmp_path):
    """Neither the log file nor a connection stays open with it."""
    service = start("--sys_mon", environment=fake_getent(tmp_path, HUNG), log_to_file=True)
    set_manager(service.client())
    set_manager(service.client(), NAME)
    look_up, = children(service)
    process = pathlib.Path(f"/proc/{look_up}")
    wait_until(lambda: (process / "comm").read_text() == "sleep\n", what="the look-up")
    assert sorted(os.listdir(process / "fd")) == ["0", "1", "2"]
    assert "SigBlk:\t0000000000000000\n" in (process / "status").read_text()


@pytest.mark.parametrize("commands", [
    "exit 2", "kill -9 $$", "echo unknown", "echo '127.0.0.1.5 STREAM'", "echo; echo",
    "exec head -c 100000 /dev/zero", "exec yes rubbish",
], ids=["fails", "killed", "word", "long-number", "empty-lines", "zeros", "endless"])
def test_a_look_up_that_finds_nothing_leaves_the_former_manager(start, tmp_path, trap_socket,
                                                               commands):
    service = start("--sys_mon", environment=fake_getent(tmp_path, commands))
    client = service.client()
    set_manager(client, trap_port=trap_socket.port)
    set_manager(client, NAME)
    wait_until(lambda: refused_managers(service) == 1, what="the error line")
    assert_next_trap(client, trap_socket)


def test_without_the_program_that_looks_names_up_numbers_are_enough(start, tmp_path, trap_socket):
    service = start("--sys_mon", environment={"PATH": str(tmp_path)})
    client = service.client()
    set_manager(client, "localhost", trap_socket.port)
    wait_until(lambda: refused_managers(service) == 1, what="the error line")
    set_manager(client, trap_port=trap_socket.port)
    assert_next_trap(client, trap_socket)


def test_an_unknown_name_is_looked_up_again(start, tmp_path, trap_socket):
    """A manager that is known later needs no operator."""
    hosts = tmp_path / "hosts"
    write_hosts(hosts)
    service = start("--sys_mon", prefix=own_path("/etc/hosts", hosts))
    client = service.client()
    set_manager(client, NAME, trap_socket.port)
    wait_until(lambda: refused_managers(service) == 1, what="the error line")
    write_hosts(hosts, ["127.0.0.1"])
    wait_for_a_trap(client, trap_socket, PAUSE + 15)
    assert refused_managers(service) == 1
