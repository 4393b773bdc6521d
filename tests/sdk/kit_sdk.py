"""What an author of a service does: installs the SDK and builds against what is installed."""
import concurrent.futures
import os
import pathlib
import shutil
import subprocess

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
