"""Faults at the system calls of a running service, through strace."""
import os
import pathlib
import re
import signal
import subprocess

from kit.wait import wait_until

#: Calls that change or open files. A question mark means: not on every architecture.
FILE_CALLS = ("?mkdir,mkdirat,?open,openat,?rename,?renameat,renameat2,?unlink,unlinkat,?rmdir,"
              "?link,linkat,?symlink,symlinkat,?chmod,fchmod,fchmodat,truncate,ftruncate")

#: These calls and those that read and write open files.
ALL_FILE_CALLS = FILE_CALLS + (",read,write,close,getdents64,newfstatat,syncfs,?stat,?lstat")

#: Errors of a disk.
ERRORS = ["ENOSPC", "EIO", "EACCES", "EROFS", "EMFILE", "EDQUOT"]

#: "1234 mkdir("/a/b", 0777) = 0", or without a result if the process was killed.
_LINE = re.compile(r"^\d+ +(\w+)\((.*)$")


class Call:
    """One line of strace: the name of the call and its arguments as text."""

    def __init__(self, name, arguments):
        self.name = name
        self.arguments = arguments

    @property
    def folder(self):
        """The path of the open folder that a relative path starts at; else empty."""
        opened = re.match(r'\d+<([^>]*)>, "(?!/)', self.arguments)
        return opened.group(1) if opened and "at" in self.name else ""

    @property
    def path(self):
        """The first path among the arguments, or the path of the open file in the first argument.
        """
        opened = re.match(r"\d+<([^>]*)>", self.arguments)
        if opened and (not self.name.endswith("at") or ', "",' in self.arguments):
            return opened.group(1)
        name = re.search(r'"([^"]*)"', self.arguments).group(1)
        return f"{self.folder}/{name}" if self.folder else name

    @property
    def place(self):
        """The path by which strace finds the call; it does so for all relative paths of a folder.
        """
        return self.folder or self.path

    @property
    def changes(self):
        """Whether it may change anything; false for sync and for opening for reading."""
        if self.name.startswith("open"):
            return bool(re.search(r"O_(WRONLY|RDWR|CREAT|TRUNC)", self.arguments))
        return self.name not in ("sync", "read", "close", "getdents64", "newfstatat", "stat", "lstat")

    def __repr__(self):
        return f"{self.name}({self.arguments}"


class Strace:
    """Follows all threads of a service, from the first call after the constructor.

    inject: the value of strace's option: which fault at which calls. It counts each kind of call of
    each thread separately; all file calls of an operation come from one thread. sync and syncfs are
    never made, because they would wait for whole disks. path: only calls on this path count; opens
    by the libraries can come at any time. calls: the calls to follow.
    """

    def __init__(self, service, inject=None, path=None, calls=FILE_CALLS):
        self._file = service.folder / "strace"
        pid = service.process.pid
        options = ["-e", f"inject={inject}"] if inject else []
        if path:
            options += ["-P", str(path)]
        if inject:
            calls += "," + inject.partition(":")[0]
        flushes = ",".join({"sync", "syncfs"} - set((inject or "").partition(":")[0].split(",")))
        self._process = subprocess.Popen(
            ["strace", "-f", "-y", "-p", str(pid), "-o", str(self._file), "-e",
             f"trace={calls},sync", *options, "-e", f"inject={flushes}:retval=0"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until(lambda: self._follows_all(pid), what="strace's hold of every thread")
        except BaseException:
            self._end()
            raise

    def _follows_all(self, pid):
        assert self._process.poll() is None, "strace could not be started"
        tasks = list(pathlib.Path(f"/proc/{pid}/task").iterdir())
        try:
            return all(f"TracerPid:\t{self._process.pid}\n" in (task / "status").read_text()
                       for task in tasks)
        except (FileNotFoundError, ProcessLookupError):
            return False  # a thread has ended meanwhile

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._end()

    def _end(self):
        self._process.send_signal(signal.SIGTERM)
        try:
            self._process.wait(10)
        finally:
            self._process.kill()
            self._process.wait()

    def calls(self):
        """The calls in order, after strace has ended."""
        matches = map(_LINE.match, self._file.read_text(errors="replace").splitlines())
        return [Call(*match.groups()) for match in matches if match]


def ordinal(call, calls):
    """Which of the calls of its name and place the call is, from 1."""
    same = [other for other in calls if other.name == call.name
            and call.place in (other.place, other.path)]
    return same.index(call) + 1


def all_faults():
    """Whether every entry is tried, with more keys, instead of some."""
    return bool(os.environ.get("HALVO_ALL_FAULTS"))
