"""Private namespaces, so that services of parallel runs never interfere."""
import ctypes
import itertools
import os
import shutil
import socket
import subprocess

from kit.paths import program

CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)
# Below the range that the kernel uses for outgoing connections.
_ports = itertools.count(20000)


def enter_private_network():
    """Moves this process into a private network that has only the loopback interface.

    Call it before any thread starts. Two servers may listen on one port without any error (both set
    SO_REUSEPORT), so parallel runs in one network could answer each other's clients.
    """
    if _libc.unshare(CLONE_NEWNET) != 0:
        error = ctypes.get_errno()
        raise OSError(error, "a private network needs root: " + os.strerror(error))
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def free_port():
    """A port without a listener; each is returned at most once per process."""
    for port in _ports:
        try:
            for family, address in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
                with socket.socket(family, socket.SOCK_STREAM) as probe:
                    probe.bind((address, port))
            return port
        except OSError:
            continue
    raise AssertionError("unreachable")


def own_path(path, replacement):
    """The words to put before a command that sees the replacement, a file or a folder, at a path.
    """
    return ["unshare", "-m", "sh", "-c", 'mount --bind "$0" "$1" && shift && exec "$@"',
            str(replacement), str(path)]


def own_log(folder):
    """The words to put before a command, so that its /var/log is the folder."""
    return own_path("/var/log", folder)


#: Gives the command a private /etc and /tmp; the two folders named first stay visible.
_OWN_MACHINE = r"""
set -e
mount -t tmpfs tmpfs /mnt
mkdir /mnt/1 /mnt/2
mount --bind "$1" /mnt/1
mount --bind "$2" /mnt/2
mount --bind "$3" /etc
mount -t tmpfs tmpfs /tmp
mkdir -p "$1" "$2"
mount --bind /mnt/1 "$1"
mount --bind /mnt/2 "$2"
case "$4" in
file) : > /tmp/headend_override_compat_check ;;
directory) mkdir /tmp/headend_override_compat_check ;;
link) ln -s /etc /tmp/headend_override_compat_check ;;
dangling) ln -s nowhere /tmp/headend_override_compat_check ;;
esac
shift 4
exec "$@"
"""


def own_machine(folder, keep, variant=None, serial=None, override="none"):
    """The words to put before a command that works below the folder `keep`: it sees a variant file
    and a serial file with these texts (None: no file). override: the kind of the marker that forces
    packages: a file, a directory, a link to one, a dangling link, or none.
    """
    etc = folder / "etc"
    etc.mkdir(parents=True)
    for name in ("hosts", "nsswitch.conf", "passwd", "group", "localtime"):
        if os.path.exists(f"/etc/{name}"):
            shutil.copy(f"/etc/{name}", etc / name)
    for name, text in (("sw_variant", variant), ("serial", serial)):
        if text is not None:
            (etc / name).write_text(text)
    return ["unshare", "-m", "sh", "-c", _OWN_MACHINE, "sh", str(keep), str(program().parent),
            str(etc), override]
