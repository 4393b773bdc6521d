"""What an author of a service does: installs the SDK and builds against what is installed."""
import concurrent.futures
import os
import pathlib
import shutil
import signal
import subprocess

from kit.lines import Lines
from kit.wait import wait_until

PYTHON = "/usr/bin/python3"
ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("HALVO_BUILD", ROOT / "build/release"))
#: Always the same folders, so that the compiler cache knows what has been compiled before.
WORK = BUILD / "tests/sdk"


def run(*words, check=True, **kwargs):
    """Runs a command; its output is in the exception if it fails."""
    done = subprocess.run([str(word) for word in words], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, **kwargs)
    assert not check or done.returncode == 0, f"{words}:\n{done.stdout[-6000:]}"
    return done


def fresh(name):
    """An empty folder of this name."""
    folder = WORK / name
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def install(name, components=("system", "tools", "sdk", "python", "doc")):
    """A fresh prefix with these components."""
    prefix = fresh(name)
    for component in components:
        run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
    return prefix


def configure(source, build, prefix, *options, check=True):
    """Configures a project of an author, whose only way to the SDK is the prefix."""
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    return run("cmake", "-G", "Ninja", "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
               *launcher, *options, check=check)


def in_parallel(function, items):
    """The results of the function for all items."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(function, items))


class Program:
    """A program that runs until the end of the block, with its lines."""

    def __init__(self, *words, **environment):
        self._words, self._environment = [str(word) for word in words], environment
        self.process, self.lines = None, None

    def start(self):
        self.process = subprocess.Popen(
            self._words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, env={**os.environ, **self._environment})
        self.lines = Lines(self.process.stdout)
        return self

    def end(self, number=signal.SIGTERM):
        """Returns the exit status."""
        self.process.send_signal(number)
        status = self.process.wait(10)
        self.lines.close()
        return status

    __enter__ = start

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.end(signal.SIGKILL)


def is_serving(ctl, address):
    """Waits until the service answers."""
    wait_until(lambda: ctl(address)("services").status == 0, what="the service's answer")


def restart(service, ctl):
    """Kills a service and waits until a new one answers."""
    service.end(signal.SIGKILL)
    service.start()
    is_serving(ctl, service.address)


def python_path(prefix):
    """The folder of the installed module."""
    return str(prefix / "lib/python3/dist-packages")


def python_environment(prefix):
    """What a Python program needs for the installed module and the kit of the tests."""
    return {"PYTHONPATH": f"{python_path(prefix)}:{ROOT / 'tests'}"}


def python(prefix, text, *words):
    """What a Python program with the installed module prints."""
    return run(PYTHON, "-c", text, *words, timeout=120,
               env={**os.environ, **python_environment(prefix)}).stdout
