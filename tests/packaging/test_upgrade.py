"""Upgrade, removal, purge and reinstallation."""
from kit.packaged_machine import SERVICE
from kit.wait import wait_until

EAST = "halvo-system@east.service"
NOT_RESTARTED = ("halvo-system: not restarted, its configuration is unsaved or unknown. "
                 "Save it (halvoctl conf save), then: systemctl restart halvo-system\n")


def not_restarted(name):
    return NOT_RESTARTED.replace("halvo-system", f"halvo-system@{name}")


def upgrade(machine, settings=""):
    """Upgrades to a later version; returns what is said. The machine sees its own folder.

    settings: what that version adds to the settings that the package brings."""
    later = machine.packages.renewed(machine.folder / "later", "0.1.1", settings)
    return machine.install(*later.files())


def starts(machine):
    """How often the service has been started since the boot."""
    return machine.log().count(f"Starting {SERVICE} ")


def test_a_saved_service_is_restarted(installed):
    installed.change("/in/1/freq", "482000")
    installed.check("halvoctl", "conf", "save")
    old = installed.pid()
    assert NOT_RESTARTED not in upgrade(installed)
    installed.wait_until_active()
    assert installed.pid() not in (0, old)
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_an_unsaved_service_goes_on(installed):
    installed.change("/in/1/freq", "482000")
    old = installed.pid()
    assert NOT_RESTARTED in upgrade(installed)
    assert installed.pid() == old
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_changed_settings_are_kept_beside_changed_defaults(installed):
    installed.set_options("# changed by the operator\nHALVO_PORT=5005")
    upgrade(installed, "#HALVO_NEW=\n")
    settings = "/etc/default/halvo-system"
    assert installed.check("cat", settings) == "# changed by the operator\nHALVO_PORT=5005\n"
    assert installed.check("cat", f"{settings}.dpkg-dist").endswith("\n#HALVO_NEW=\n")


def test_a_service_without_an_answer_goes_on(installed):
    old = installed.pid()
    installed.check("kill", "-s", "STOP", str(old))
    assert NOT_RESTARTED in upgrade(installed)
    installed.check("kill", "-s", "CONT", str(old))
    installed.check("halvoctl", "ping")
    assert installed.pid() == old


def start_without_store(machine):
    """Starts the service anew, which waits for its central store and serves meanwhile."""
    machine.set_options("HALVO_OPTS=--sys_mon --ccsaddr 127.0.0.1:9")
    machine.check("systemctl", "--no-block", "restart", SERVICE)
    wait_until(lambda: "Waiting for the central data store" in machine.log(), 20, "the wait")


def test_an_unsaved_service_that_is_starting_goes_on_and_is_not_waited_for(installed):
    start_without_store(installed)
    installed.change("/in/1/freq", "482000")
    old = installed.pid()
    assert NOT_RESTARTED in upgrade(installed)
    assert (installed.show("ActiveState"), installed.pid()) == ("activating", old)


def test_a_saved_service_that_is_starting_is_restarted_and_not_waited_for_long(installed):
    start_without_store(installed)
    old = installed.pid()
    assert ("halvo-system: not active yet, see: systemctl status halvo-system\n"
            in upgrade(installed))
    assert installed.show("ActiveState") == "activating"
    assert installed.pid() not in (0, old)


def test_an_instance_with_unsaved_changes_goes_on(installed):
    installed.start_instance("east", 5015)
    installed.change("/in/1/freq", "482000", "localhost:5015")
    old, instance = installed.pid(), installed.pid(EAST)
    assert not_restarted("east") in upgrade(installed)
    assert installed.pid(EAST) == instance
    assert installed.pid() not in (0, old)


def test_the_port_in_use_decides_not_that_of_changed_settings(installed):
    installed.start_instance("east", 5015)
    installed.change("/in/1/freq", "482000", "localhost:5015")
    installed.shell("echo HALVO_PORT=5005 > /etc/default/halvo-east")
    instance = installed.pid(EAST)
    assert not_restarted("east") in upgrade(installed)
    assert installed.pid(EAST) == instance


def test_only_a_replaced_program_is_restarted(installed):
    installed.change("/in/1/freq", "482000")
    old = installed.pid()
    assert NOT_RESTARTED not in installed.check("dpkg-reconfigure", "halvo-system")
    assert installed.pid() == old
    installed.check("halvoctl", "conf", "save")
    installed.check("dpkg", "--remove", "halvo-system")
    assert NOT_RESTARTED not in installed.install()
    installed.wait_until_active()
    assert starts(installed) == 2
    installed.check("dpkg", "--install", str(installed.packages.file("halvo-system")))
    installed.wait_until_active()
    assert starts(installed) == 3
    assert installed.slice() == {"/in/1/freq": "482000"}


def test_a_removal_ends_all_instances(installed):
    installed.start_instance("east", 5015, "enable --now")
    installed.start_instance("west", 5025)
    installed.check("dpkg", "--remove", "halvo-system")
    assert installed.run("systemctl", "list-units", "--no-legend", "halvo-system*") == ""
    assert installed.execute("pgrep", "halvo-system").returncode == 1
    installed.check("test", "-s", "/var/log/halvo/halvo-east.log")
    installed.check("dpkg", "--purge", "halvo-system")
    assert installed.execute("test", "-e", "/var/log/halvo").returncode == 1
    assert installed.run("find", "/etc/systemd/system", "-name", EAST) == ""


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
