"""What the packages contain, and what a fresh machine is after their installation."""
import os
import re
import subprocess
import time

import pytest

from kit.packaged_machine import SERVICE
from kit.paths import ROOT
from kit.wait import wait_until


def contents(packages, name):
    listing = subprocess.run(["dpkg-deb", "-c", packages.file(name)], check=True, text=True,
                             capture_output=True).stdout
    return {line.split()[5].removeprefix(".") for line in listing.splitlines()
            if not line.startswith("d")}


def test_the_packages_are_these(packages):
    names = {file.name.split("_")[0] for file in packages.files()}
    assert names == {"halvo-system", "halvo-tools", "libhox-dev", "python3-halvo", "halvo-mibs"}


def test_versions_agree(packages):
    cmake = re.search(r"project\(halvo_system VERSION (\S+)",
                      (ROOT / "CMakeLists.txt").read_text()).group(1)
    changelog = re.match(r"halvo-system \((\S+)\)",
                         (ROOT / "debian/changelog").read_text()).group(1)
    assert cmake == changelog
    manual = (ROOT / "app/man/halvo-system.8").read_text()
    assert rf'"halvo\-system {cmake}"' in manual.splitlines()[0]
    for file in packages.files():
        assert file.name.split("_")[1] == cmake


def test_the_libraries_bring_what_they_are_linked_with(packages, tmp_path):
    packages.unpack(tmp_path, "libhox-dev")
    halvo, = tmp_path.rglob("halvo.pc")

    def ask(*words):
        return subprocess.run(words, check=True, text=True, capture_output=True,
                              env={**os.environ, "PKG_CONFIG_PATH": str(halvo.parent)}).stdout

    depends = set(re.findall(r"[^, \n]+", ask("dpkg-deb", "-f", packages.file("libhox-dev"),
                                               "Depends")))
    modules = ask("pkg-config", "--print-requires", "halvo").split()
    assert "libsystemd" in modules
    for module in modules:
        folder = ask("pkg-config", "--variable=pcfiledir", module).strip()
        owner = ask("dpkg", "-S", f"{folder}/{module}.pc").split(":")[0]
        assert owner in depends, module


def test_the_service_comes_with_unit_user_settings_and_guide(packages):
    assert {"/usr/sbin/halvo-system", "/lib/systemd/system/halvo-system.service",
            "/lib/systemd/system/halvo-system@.service", "/usr/lib/sysusers.d/halvo-system.conf",
            "/etc/default/halvo-system", "/usr/share/man/man8/halvo-system.8.gz"
            } <= contents(packages, "halvo-system")
    assert "/usr/share/snmp/mibs/HALVO-QHED-MIB.txt" in contents(packages, "halvo-mibs")


def test_zsh_knows_what_its_file_completes(packages, tmp_path):
    packages.unpack(tmp_path, "halvo-tools")
    text = (tmp_path / "usr/share/zsh/vendor-completions/_halvoctl").read_text()
    assert text.splitlines()[0] == "#compdef halvoctl"


def test_no_build_path_is_in_the_program(unpacked):
    program = (unpacked / "usr/sbin/halvo-system").read_bytes()
    for path in (str(ROOT).encode(), b"halvo-system.build"):
        assert path not in program


def test_the_program_is_hardened(unpacked):
    flags = subprocess.run(["readelf", "-dhW", unpacked / "usr/sbin/halvo-system"], check=True,
                           text=True, capture_output=True).stdout
    assert "DYN (Position-Independent Executable file)" in flags
    assert "BIND_NOW" in flags and "Flags: NOW PIE" in flags


@pytest.mark.skipif(not os.environ.get("HALVO_REPRODUCIBLE"), reason="HALVO_REPRODUCIBLE is not set")
def test_another_build_gives_the_same_bytes(packages, tmp_path):
    again = tmp_path / "again"
    subprocess.run([ROOT / "scripts/package", again], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "CCACHE_DISABLE": "1", "DEB_BUILD_OPTIONS": "nocheck"})
    for file in packages.folder.glob("*.deb"):
        assert file.read_bytes() == (again / file.name).read_bytes(), file.name


def test_a_fresh_machine_serves_within_seconds(machine):
    machine.install()
    machine.wait_until_active()
    assert machine.run("systemctl", "is-enabled", SERVICE).strip() == "enabled"
    assert machine.run("getent", "passwd", "halvo").startswith("halvo:x:")
    for folder in ("/var/lib/halvo", "/var/log/halvo"):
        assert machine.run("stat", "-c", "%a %U %G", folder).strip() == "750 halvo halvo"
    assert machine.run("systemctl", "--failed", "--no-legend").strip() == ""
    assert machine.run("halvoctl", "call", "getCurrentState") == '{"currentState":"OK"}\n'


def test_the_units_are_well_formed_and_closed(shared):
    for unit in (SERVICE, "halvo-system@head.service"):
        assert shared.check("systemd-analyze", "verify", unit) == ""
        shared.check("systemd-analyze", "--no-pager", "security", "--threshold=16", unit)


def test_the_template_is_the_unit_but_for_what_an_instance_owns():
    own = ["Description", "Environment", "EnvironmentFile", "ExecStart", "StateDirectory"]

    def settings(name):
        lines = (ROOT / "debian" / name).read_text().splitlines()
        return [line for line in lines if not line.startswith("#")]

    unit, template = settings("halvo-system.service"), settings("halvo-system@.service")
    assert len(unit) == len(template)
    assert [line.split("=")[0] for line, other in zip(unit, template) if line != other] == own


def test_it_is_published_on_the_loopback(installed):
    installed.shell("printf '[server]\\nallow-interfaces=lo\\nuse-ipv6=no\\n'"
                 " > /etc/avahi/avahi-daemon.conf; systemctl restart avahi-daemon")

    def records():
        found = installed.run("avahi-browse", "-rptk", "_capability._tcp")
        return [line for line in found.splitlines() if line.startswith("=") and ";5005;" in line]

    wait_until(lambda: len(records()) == 2, 20, lambda: f"two records; {records()}")


def test_the_service_lives_in_a_sandbox(shared):
    status = dict(line.split(":\t", 1) for line in shared.process("status").splitlines()
                  if ":\t" in line)
    assert int(status["CapEff"], 16) == int(status["CapBnd"], 16) == 0
    assert (status["Seccomp"], status["NoNewPrivs"]) == ("2", "1")
    mounts = dict(line.split()[4:6] for line in shared.process("mountinfo").splitlines())
    assert "ro" in mounts["/"].split(",")
    assert "rw" in mounts["/var/lib/halvo"].split(",")
    inside = ["nsenter", "-t", str(shared.pid()), "-m", "setpriv", "--reuid", "halvo", "--regid",
              "halvo", "--clear-groups", "test", "-w"]
    for folder in ("/etc", "/usr", "/tmp"):
        assert shared.execute(*inside, folder).returncode == 1
    assert shared.execute(*inside, "/var/lib/halvo").returncode == 0


def test_the_configuration_goes_round(installed):
    installed.change("/in/1/freq", "482000")
    assert installed.ctl("conf", "status").returncode == 4
    installed.check("halvoctl", "conf", "save")
    installed.check("halvoctl", "conf", "export", "/root/a.hpk")
    installed.check("halvoctl", "conf", "clear", "--yes")
    assert installed.check("find", "/var/lib/halvo/configuration", "-name", "data") == ""
    installed.check("halvoctl", "conf", "import", "/root/a.hpk")
    assert installed.slice() == {"/in/1/freq": "482000"}
    rights = installed.check("find", "/var/lib/halvo/configuration", "-type", "f", "-printf", "%m ")
    assert set(rights.split()) == {"640"}


def test_the_service_stops_soon_also_with_streams(installed):
    installed.shell("for i in $(seq 50); do halvoctl watch >/tmp/watch$i 2>&1 & done")
    wait_until(lambda: installed.run("ss", "-Htn", "state", "established", "sport", "= :5005")
               .count("\n") >= 50, 20, "50 streams")
    start = time.monotonic()
    installed.check("systemctl", "stop", SERVICE)
    assert time.monotonic() - start < 3
    assert installed.show("Result") == "success"
