"""The memory of a running program."""
import os
import pathlib

from kit.paths import program


def resident_bytes(service):
    """The resident memory of the service, in bytes."""
    pages = pathlib.Path(f"/proc/{service.process.pid}/statm").read_text().split()[1]
    return int(pages) * os.sysconf("SC_PAGE_SIZE")


def is_sanitized():
    """Whether the program is built with a sanitizer, whose own memory and time hide those of the
    program."""
    return program().parent.parent.name in ("asan", "tsan")


#: For a program in which LeakSanitizer cannot work: one that is traced, or can make no thread.
WITHOUT_LEAK_SEARCH = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
