"""Fixtures of the tests of the packages: machines that boot, in a private network."""
import os
import pathlib
import signal
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from kit.namespaces import enter_private_network  # noqa: E402

# Programs inherit that they are ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)

enter_private_network()

from kit.packaged_machine import PackagedMachine, Packages  # noqa: E402
from kit.paths import ROOT  # noqa: E402

#: From HALVO_PACKAGES, or where scripts/package leaves them.
PACKAGES = Packages(os.environ.get("HALVO_PACKAGES", ROOT / "build/packages"))
if not PACKAGES.files():
    pytest.exit(f"no packages in {PACKAGES.folder}: run scripts/package", returncode=2)


@pytest.fixture(scope="session")
def unpacked(tmp_path_factory):
    """The files of the service and of its MIB."""
    folder = tmp_path_factory.mktemp("unpacked")
    PACKAGES.unpack(folder, "halvo-system", "halvo-mibs")
    return folder


@pytest.fixture(scope="session")
def packages():
    """The packages under test."""
    return PACKAGES


@pytest.fixture
def machine(tmp_path, packages):
    """A booted machine without the packages."""
    running = PackagedMachine(tmp_path / "machine", packages)
    yield running
    running.close()


@pytest.fixture
def installed(machine):
    """A machine with all packages, whose service is active."""
    machine.install()
    machine.wait_until_active()
    return machine


@pytest.fixture(scope="module")
def shared(tmp_path_factory, packages):
    """The same for tests that leave it as it was."""
    running = PackagedMachine(tmp_path_factory.mktemp("shared"), packages)
    running.install()
    running.wait_until_active()
    yield running
    running.close()
