"""Fixtures of the tests of the SDK: an installed prefix, and the example that is built with it."""
import os
import pathlib
import shutil
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from kit.namespaces import enter_private_network  # noqa: E402

# Before the first thread of gRPC, which the next import may start.
enter_private_network()

from kit.ctl import Ctl  # noqa: E402
from kit.daemons import Bus, MdnsDaemon  # noqa: E402
from kit.namespaces import free_port  # noqa: E402
from kit.paths import program  # noqa: E402
from kit_sdk import ROOT, Program, configure, fresh, install, run  # noqa: E402


@pytest.fixture(scope="session")
def prefix():
    """All components, installed to a fresh folder."""
    return install("prefix")


@pytest.fixture(scope="session")
def lamp(prefix):
    """The build folder of the example, copied away from the project and built by the prefix."""
    source = fresh("lamp")
    shutil.copytree(ROOT / "examples/lamp", source, dirs_exist_ok=True)
    build = source / "build"
    configure(source, build, prefix)
    run("cmake", "--build", build)
    return build


@pytest.fixture(scope="session", autouse=True)
def bus(tmp_path_factory):
    """The system bus of all processes that the tests start."""
    folder = tmp_path_factory.mktemp("bus")
    with Bus(folder) as running, MdnsDaemon(running, folder, interface="nowhere"):
        os.environ.update(running.environment)
        yield running


@pytest.fixture
def ctl():
    """Makes the operator's tool for an endpoint."""
    made = []

    def make(endpoint):
        made.append(Ctl(endpoint))
        return made[-1]

    yield make
    for tool in made:
        tool.close()


@pytest.fixture
def lamp_service(lamp, tmp_path):
    """The example as a program, on a port of its own."""
    port = free_port()
    with Program(lamp / "lamp", "--logstdout", "--port", port, "--id", f"lamp-{port}",
                 "--configdir", tmp_path) as service:
        service.address = f"localhost:{port}"
        yield service


@pytest.fixture
def monitor(tmp_path):
    """The system service."""
    port = free_port()
    with Program(program(), "--logstdout", "--port", port, "--id", f"head-{port}", "--configdir",
                 tmp_path / "configuration") as service:
        service.address = f"localhost:{port}"
        yield service
