"""Fixtures of the system tests: one private network with a bus and an mDNS daemon per worker,
services that end cleanly."""
import os
import pathlib
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from kit.namespaces import enter_private_network  # noqa: E402

# Programs inherit that they are ignored: a shell does so in what it starts in the background, and
# nohup in what outlives its terminal.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)

# Before the first thread of gRPC, which the next import starts.
enter_private_network()

from kit.ctl import Ctl  # noqa: E402
from kit.daemons import Bus, MdnsDaemon  # noqa: E402
from kit.node import Node  # noqa: E402
from kit.paths import program  # noqa: E402
from kit.protos import Protos  # noqa: E402
from kit.service import Service  # noqa: E402
from kit.trap_receiver import TrapSocket  # noqa: E402


def pytest_sessionstart(session):
    if not program().exists():
        pytest.exit(f"{program()} is not built: run scripts/build", returncode=2)


def pytest_collection_modifyitems(items):
    """With HALVO_SAMPLE=<n> only each nth test runs, each time others: the number of commits
    decides."""
    sample = int(os.environ.get("HALVO_SAMPLE", "1"))
    if sample > 1:
        count = subprocess.run(["git", "rev-list", "--count", "HEAD"], check=True,
                               stdout=subprocess.PIPE, text=True).stdout
        items[:] = items[int(count) % sample::sample]


@pytest.fixture(scope="session")
def protos(tmp_path_factory):
    return Protos(tmp_path_factory.mktemp("protos"))


@pytest.fixture(scope="session", autouse=True)
def bus(tmp_path_factory):
    """The system bus of all processes that the tests start, unless they get another one.

    Its mDNS daemon has no network, so that a publication takes no time. Services with the same name
    collide there too.
    """
    folder = tmp_path_factory.mktemp("bus")
    with Bus(folder) as running, MdnsDaemon(running, folder, interface="nowhere"):
        os.environ.update(running.environment)
        yield running


@pytest.fixture(scope="session")
def network(tmp_path_factory):
    """A bus whose mDNS daemon uses the loopback interface; never disturbed."""
    folder = tmp_path_factory.mktemp("network")
    with Bus(folder) as running, MdnsDaemon(running, folder):
        yield running


@pytest.fixture
def start(protos, tmp_path):
    """Starts services and waits until they are ready; each must end cleanly after the test."""
    services = []

    def launch(*args, ready=True, **kwargs):
        service = Service(protos, tmp_path / f"s{len(services)}", *args, **kwargs)
        services.append(service)
        return service.wait_ready() if ready else service

    yield launch
    try:
        for service in services:
            service.stop()
    finally:
        for service in services:
            service.close()


@pytest.fixture
def service(start):
    """A running service that logs to standard output."""
    return start()


@pytest.fixture
def client(service):
    """A client of the running service."""
    return service.client()


@pytest.fixture
def ctl(service):
    """The operator's tool for the running service."""
    tool = Ctl(service.address)
    yield tool
    tool.close()


@pytest.fixture
def monitor(start):
    """A running system monitor."""
    return start("--sys_mon")


@pytest.fixture
def node(protos, tmp_path):
    """A node monitor on a separate machine, whose boot waits."""
    machine = Node(tmp_path, protos, "node")
    yield machine
    machine.close()


@pytest.fixture
def trap_socket():
    """A plain receiver of traps."""
    with TrapSocket() as running:
        yield running
