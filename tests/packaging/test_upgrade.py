"""Upgrade, removal, purge and reinstallation."""
NOT_RESTARTED = ("halvo-system: not restarted, its configuration is unsaved or unknown. "
                 "Save it (halvoctl conf save), then: systemctl restart halvo-system\n")


def upgrade(machine):
    """Upgrades to a later version; returns what is said. The machine sees its own folder."""
    later = machine.packages.renewed(machine.folder / "later", "0.1.1")
    return machine.install(*later.files())


def test_a_saved_service_is_restarted(installed):
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    old = installed.pid()
    assert NOT_RESTARTED not in upgrade(installed)
    installed.wait_until_active()
    assert installed.pid() not in (0, old)
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_an_unsaved_service_goes_on(installed):
    installed.set_options("# changed by the operator\nHALVO_PORT=5005")
    installed.change("/in/1/freq", "482000")
    old = installed.pid()
    assert NOT_RESTARTED in upgrade(installed)
    assert installed.pid() == old
    assert installed.slice() == {"/in/1/freq": "482000"}
    assert "changed by the operator" in installed.run("cat", "/etc/default/halvo-system")


def test_an_instance_with_unsaved_changes_goes_on(installed):
    installed.shell("echo HALVO_PORT=5015 > /etc/default/halvo-east;"
                    "systemctl start halvo-system@east")
    installed.change("/in/1/freq", "482000", "localhost:5015")
    old, instance = installed.pid(), installed.pid("halvo-system@east.service")
    said = upgrade(installed)
    assert NOT_RESTARTED.replace("halvo-system:", "halvo-system@east:").replace(
        "restart halvo-system", "restart halvo-system@east") in said
    assert installed.pid("halvo-system@east.service") == instance
    assert installed.pid() not in (0, old)


def left(machine):
    """What is named halvo and belongs to none of the packages."""
    found = machine.run("find", "/etc", "/usr", "/lib/systemd", "/var", "-xdev", "-iname", "*halvo*",
                        "-not", "-path", "/var/lib/dpkg/*", "-not", "-path", "/var/cache/apt/*",
                        "-not", "-path", "/var/lib/apt/*", "-not", "-path", "/var/log/journal/*",
                        "-not", "-path", "/var/log/apt/*", "-not", "-path", "/var/cache/man/*")
    return sorted(found.splitlines())


def test_data_survive_removal_and_purge(installed):
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    names = ["halvo-system", "halvo-tools", "halvo-mibs", "libhox-dev", "python3-halvo"]
    installed.check("dpkg", "--remove", *names)
    assert installed.show("ActiveState") == "inactive"
    installed.check("test", "-s", "/var/log/halvo/halvo-system.log")
    said = installed.check("dpkg", "--purge", *names)
    assert "the configuration in /var/lib/halvo is kept" in said
    assert set(left(installed)) <= {"/var/lib/halvo", "/var/lib/halvo-tools"}
    assert installed.run("getent", "passwd", "halvo").startswith("halvo:")
    installed.install()
    installed.wait_until_active()
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_a_purge_without_data_leaves_nothing(installed):
    installed.check("dpkg", "--purge", "halvo-system")
    assert installed.execute("pgrep", "halvo-system").returncode == 1
    assert installed.execute("test", "-e", "/var/lib/halvo").returncode == 1
    assert installed.execute("test", "-e", "/var/log/halvo").returncode == 1
