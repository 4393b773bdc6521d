"""Fixtures of the head-end test: a private network with a bus and an mDNS daemon."""
import pathlib
import signal
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from kit.namespaces import enter_private_network  # noqa: E402

# Programs inherit that they are ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)

# Before the first thread of gRPC, which the next import starts.
enter_private_network()

from head_end.assembly import HeadEnd  # noqa: E402
from kit.daemons import Bus, MdnsDaemon  # noqa: E402
from kit.paths import program  # noqa: E402
from kit.protos import Protos  # noqa: E402


@pytest.fixture(scope="session")
def protos(tmp_path_factory):
    return Protos(tmp_path_factory.mktemp("protos"))


@pytest.fixture
def head_end(tmp_path, protos):
    """A head-end that has not been started, on a bus of its own."""
    if not program().exists():
        pytest.exit(f"{program()} is not built: run scripts/build", returncode=2)
    with Bus(tmp_path) as bus, MdnsDaemon(bus, tmp_path):
        running = HeadEnd(tmp_path, protos, bus)
        yield running
        running.close()
