"""What a running program takes."""
import os
import pathlib

from kit.paths import program


def resident_bytes(service):
    """The memory that the service has now."""
    pages = pathlib.Path(f"/proc/{service.process.pid}/statm").read_text().split()[1]
    return int(pages) * os.sysconf("SC_PAGE_SIZE")


def is_sanitized():
    """Whether the program is built with a sanitizer, whose own memory and time are all that shows."""
    return program().parent.parent.name in ("asan", "tsan")
