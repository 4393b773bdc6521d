"""A separate machine: the real systemd as the first process, in namespaces."""
import itertools
import os
import pathlib
import subprocess
import uuid

from kit.wait import wait_until

#: $1: the name of a control group, and where the groups are seen from here. The manager of another
#: machine would take it and everything below it for its own.
_IN_CONTROL_GROUPS = """
mount --make-rprivate /
mount -t cgroup2 cgroup2 /mnt
group=/mnt/$1
"""
_IN_OWN_GROUP = _IN_CONTROL_GROUPS + """
mkdir "$group"
echo 0 > "$group/cgroup.procs"
umount /mnt
shift
exec unshare --cgroup "$@"
"""
_REMOVE_GROUP = _IN_CONTROL_GROUPS + """
test ! -d "$group" || find "$group" -depth -type d -exec rmdir {} +
"""

#: $1: a folder that both sides see, $2: a folder of programs that it sees.
_BOOT = r"""
work=$1/work
mkdir -p "$work"
mount -t tmpfs tmpfs "$work"
mkdir "$work/upper" "$work/over" "$work/root" "$work/cgroup"
mount -t overlay overlay -o lowerdir=/,upperdir="$work/upper",workdir="$work/over" "$work/root"
root=$work/root
mount -t proc proc "$root/proc"
mount -t sysfs sysfs "$root/sys"
mount -t tmpfs tmpfs "$root/sys/fs/cgroup"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs tmpfs "$root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
ln -s pts/ptmx "$root/dev/ptmx"
mkdir "$root/dev/shm"
mount -t tmpfs tmpfs "$root/dev/shm"
mkdir -p "$root$1" "$root$2"
mount --bind "$1" "$root$1"
mount --bind "$2" "$root$2"
units=$root/etc/systemd/system
mkdir -p "$units" "$root/etc/tmpfiles.d"
rm -rf "$units"/*.wants
for unit in systemd-udevd.service systemd-udev-trigger.service systemd-logind.service \
    systemd-timesyncd.service systemd-modules-load.service systemd-sysctl.service \
    systemd-udevd-control.socket systemd-udevd-kernel.socket systemd-random-seed.service \
    systemd-update-utmp.service systemd-user-sessions.service systemd-remount-fs.service \
    systemd-tmpfiles-setup.service systemd-tmpfiles-setup-dev.service systemd-journal-flush.service \
    systemd-networkd.service systemd-resolved.service systemd-pstore.service \
    getty.target getty-static.service console-getty.service sys-kernel-debug.mount \
    sys-kernel-tracing.mount dev-hugepages.mount dev-mqueue.mount sys-fs-fuse-connections.mount \
    proc-sys-fs-binfmt_misc.automount apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer \
    e2scrub_all.timer fstrim.timer logrotate.timer man-db.timer systemd-tmpfiles-clean.timer \
    remote-fs.target exim4.service; do
    ln -sf /dev/null "$units/$unit"
done
: > "$root/etc/fstab"
# It would keep the services of newly installed packages from starting.
rm -f "$root/usr/sbin/policy-rc.d"
cp -a "$1/units/." "$units/"
# It finds no interface: its records are published at once, and no other daemon is in its way.
printf '[server]\nallow-interfaces=none\nuse-ipv6=no\n' > "$root/etc/avahi/avahi-daemon.conf"
mkdir -p "$units/multi-user.target.wants"
for unit in "$1"/wanted/*; do
    test -e "$unit" || continue
    ln -sf "../${unit##*/}" "$units/multi-user.target.wants/${unit##*/}"
done
cd "$root"
mkdir -p "$root/mnt/old"
pivot_root . mnt/old
umount -l /mnt/old
exec env -i PATH="$PATH" container=lxc /lib/systemd/systemd --system --unit=multi-user.target \
    --log-target=journal
"""


_numbers = itertools.count(1)


class Machine:
    """Boots with the units that it is given; ended by the kernel with its first process.

    It is connected to the network of the caller by a separate cable. The folder is seen at the
    same path on both sides, and so is the folder of the programs."""

    def __init__(self, folder, programs, units, wanted):
        """units: texts by name. wanted: the names of those that the boot starts."""
        self._number = next(_numbers)
        #: Its address, as others see it.
        self.ip = f"10.77.{self._number}.2"
        self.folder = pathlib.Path(folder)
        for place in ("units", "wanted"):
            (self.folder / place).mkdir(parents=True, exist_ok=True)
        for name, text in units.items():
            place = self.folder / "units" / name
            place.parent.mkdir(parents=True, exist_ok=True)
            place.write_text(text)
        for name in wanted:
            (self.folder / "wanted" / name).touch()
        self._group = f"machine-{uuid.uuid4()}"
        self._output = open(self.folder / "boot", "wb")
        self._process = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--uts", "--ipc", "--net", "--fork", "--kill-child",
             "sh", "-ec", _IN_OWN_GROUP, "sh", self._group,
             "sh", "-ec", _BOOT, "sh", str(self.folder), str(programs)],
            stdin=subprocess.DEVNULL, stdout=self._output, stderr=subprocess.STDOUT)
        try:
            self._connect()
            wait_until(self._has_bus, 30, "the boot")
        except BaseException:
            self.close()
            raise

    @property
    def _first_process(self):
        """The number of systemd outside of the machine, or None."""
        children = pathlib.Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        numbers = children.read_text().split() if self._process.poll() is None else []
        return numbers[0] if numbers else None

    def _connect(self):
        """Connects the machine as soon as it has its own network."""
        own_network = os.readlink("/proc/self/ns/net")
        pid = str(self._process.pid)
        wait_until(lambda: os.readlink(f"/proc/{pid}/ns/net") != own_network, what="a network")
        cable, net = self._cable, f"10.77.{self._number}"
        inside = ["nsenter", "-t", pid, "-n", "--"]
        for command in (
                ["ip", "link", "add", cable, "type", "veth", "peer", "name", "eth0", "netns", pid],
                ["ip", "address", "add", f"{net}.1/30", "dev", cable],
                ["ip", "link", "set", cable, "up"],
                [*inside, "ip", "address", "add", f"{self.ip}/30", "dev", "eth0"],
                [*inside, "ip", "link", "set", "eth0", "up"],
                [*inside, "ip", "link", "set", "lo", "up"]):
            subprocess.run(command, check=True)

    @property
    def _cable(self):
        return f"node{self._number}"

    def unplug(self):
        """Nothing arrives any more, on either side, and nobody is told."""
        subprocess.run(["ip", "link", "set", self._cable, "down"], check=True)

    def plug(self):
        """Connects it again after unplug()."""
        subprocess.run(["ip", "link", "set", self._cable, "up"], check=True)

    def _has_bus(self):
        first = self._first_process
        assert self._process.poll() is None, (self.folder / "boot").read_text()
        return first is not None and os.path.exists(f"/proc/{first}/root/run/dbus/system_bus_socket")

    def execute(self, *command, seconds=30):
        """Runs a command in the machine; returns the finished process with what it said."""
        return subprocess.run(["nsenter", "-t", self._first_process, "-m", "-p", "-u", "-i", "-n",
                               "-C", "--", *command], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=seconds)

    def run(self, *command):
        """Runs a command in the machine and returns what it says."""
        return self.execute(*command).stdout

    def close(self):
        self._process.kill()
        self._process.wait()
        self._output.close()
        # The last processes leave the group some moments after the first one.
        wait_until(self._remove_group, what="the end of all processes")

    def _remove_group(self):
        return subprocess.run(["unshare", "--mount", "sh", "-ec", _REMOVE_GROUP, "sh", self._group],
                              stderr=subprocess.DEVNULL).returncode == 0
