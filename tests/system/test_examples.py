"""The examples for authors of other services, as built."""
import os
import signal
import subprocess

from kit.daemons import Bus, MdnsDaemon
from kit.dns_sd import instance_names, published
from kit.lines import Lines
from kit.paths import program
from kit.wait import wait_until


class Browse:
    """The running example that lists the head-end services."""

    def __init__(self, bus):
        self.process = subprocess.Popen(
            [str(program().parent / "halvo-browse")], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={**os.environ, **bus.environment})
        self.lines = Lines(self.process.stdout)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.lines.close()
        self.process.stderr.close()


def test_browse_follows_the_services_until_an_interrupt(start, network):
    with Browse(network) as browse:
        service = start(bus=network)
        for name in instance_names(service):
            browse.lines.wait_for(f"appeared {name}", f"resolved {name} 127.0.0.1:{service.port}")
        service.stop()
        for name in instance_names(service):
            browse.lines.wait_for(f"vanished {name}")
        browse.process.send_signal(signal.SIGINT)
        assert browse.process.wait(10) == 0
        assert browse.process.stderr.read() == ""


def test_browse_lists_what_is_there_already(start, network):
    service = start(bus=network)
    with Browse(network) as browse:
        for name in instance_names(service):
            browse.lines.wait_for(f"resolved {name} 127.0.0.1:{service.port}")


def test_browse_waits_for_the_daemon_and_ends_with_it(tmp_path):
    with Bus(tmp_path) as bus, Browse(bus) as browse:
        with MdnsDaemon(bus, tmp_path), published(bus, "here", 5005):
            browse.lines.wait_for("resolved here 127.0.0.1:5005")
        assert browse.process.wait(10) == 1


def test_an_interrupt_while_browse_waits_for_the_daemon_ends_it(tmp_path):
    with Bus(tmp_path) as bus, Browse(bus) as browse:
        wait_until(lambda: bus.connections() == 1, what="the connection of the example")
        browse.process.send_signal(signal.SIGINT)
        assert browse.process.wait(10) == 0
