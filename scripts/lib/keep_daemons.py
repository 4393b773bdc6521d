"""Starts a private bus and an mDNS daemon in the background; they run as long as another process.

usage: keep_daemons.py <process id>

Prints the address of the bus once both serve. The keeper, the process that ends the daemons, is no
child of the other process, which might otherwise wait for it.
"""
import os
import pathlib
import select
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests"))

from kit.daemons import Bus, DaemonError, MdnsDaemon  # noqa: E402


def become_background_process():
    """Continues as a process without parent and terminal; Ctrl-C is for the other process."""
    if os.fork() != 0:
        os._exit(0)
    os.setsid()
    if os.fork() != 0:
        os._exit(0)
    os.chdir("/")


def report(address):
    """Prints the address and closes all output: nobody who reads it waits for this process."""
    print(address, flush=True)
    nothing = os.open(os.devnull, os.O_RDWR)
    for descriptor in range(3):
        os.dup2(nothing, descriptor)


def main():
    ended = select.poll()
    ended.register(os.pidfd_open(int(sys.argv[1])), select.POLLIN)
    become_background_process()
    try:
        with tempfile.TemporaryDirectory(prefix="with-daemons-") as folder:
            with Bus(folder) as bus, MdnsDaemon(bus, folder):
                report(bus.address)
                ended.poll()
    except (DaemonError, OSError) as error:
        sys.exit(f"with-daemons: {error}")


if __name__ == "__main__":
    main()
