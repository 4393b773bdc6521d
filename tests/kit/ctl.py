"""The operator's tool as a child process."""
import json
import os
import signal
import subprocess

from kit.lines import Lines
from kit.paths import program


def command(*words):
    """The words that start the tool of the build under test."""
    return [str(program().parent / "halvoctl"), *map(str, words)]


def environment(**variables):
    """The environment of the tests without what the tool reads from it, and with the variables."""
    inherited = {name: value for name, value in os.environ.items()
                 if name not in ("HALVO_ENDPOINT", "NO_COLOR", "XDG_STATE_HOME")}
    return {**inherited, **variables}


class Result:
    """What one run of the tool has left: its exit status, result and notes."""

    def __init__(self, run):
        self.status, self.out, self.err = run.returncode, run.stdout, run.stderr

    @property
    def lines(self):
        return self.out.splitlines()

    @property
    def json(self):
        return json.loads(self.out)

    def __repr__(self):
        return f"status {self.status}\n--- out\n{self.out}\n--- err\n{self.err}"


class Ctl:
    """The tool for one endpoint, by default that of a service. variables: of its environment."""

    def __init__(self, endpoint, **variables):
        self.endpoint = endpoint
        self.variables = variables
        self._running = []

    def __call__(self, *words, given=None, seconds=20, **variables):
        """One run to its end. given: what it reads."""
        return Result(subprocess.run(
            command("-e", self.endpoint, *words), input=given, capture_output=True, text=True,
            timeout=seconds, env=environment(**{**self.variables, **variables}), check=False))

    def ok(self, *words, **kwargs):
        """One run that must succeed without notes; returns its result."""
        result = self(*words, **kwargs)
        assert (result.status, result.err) == (0, ""), result
        return result

    def start(self, *words):
        """A run that goes on."""
        running = RunningCtl(self.endpoint, *words, **self.variables)
        self._running.append(running)
        return running

    def close(self):
        for running in self._running:
            running.close()


class RunningCtl:
    """The tool while it runs; out and err are its lines so far."""

    def __init__(self, endpoint, *words, **variables):
        self.process = subprocess.Popen(
            command("-e", endpoint, *words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, env=environment(**variables))
        self.out, self.err = Lines(self.process.stdout), Lines(self.process.stderr)

    def interrupt(self):
        """Ctrl-C; returns the exit status."""
        self.process.send_signal(signal.SIGINT)
        return self.wait()

    def wait(self, seconds=20):
        """Waits for the end and all output; returns the exit status."""
        status = self.process.wait(seconds)
        self.out.close()
        self.err.close()
        return status

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.wait()
