"""What a running process prints."""
import threading

from kit.wait import wait_until


class Lines:
    """The lines of a process's text stream so far, read in the background until its end."""

    def __init__(self, stream):
        self._stream = stream
        self._lines = []
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        for line in self._stream:
            self._lines.append(line.rstrip("\n"))

    def __iter__(self):
        return iter(list(self._lines))

    def count(self, line):
        return self._lines.count(line)

    def wait_for(self, *wanted, times=1, seconds=20):
        """Waits until each of these lines has come, as often as that."""
        wait_until(lambda: all(self.count(line) >= times for line in wanted), seconds,
                   lambda: f"{wanted} x {times} among {self._lines}")

    def wait_for_match(self, pattern, seconds=20):
        """Waits for a line that matches a compiled pattern anywhere; returns the match."""
        return wait_until(lambda: next(filter(None, map(pattern.search, self)), None), seconds,
                          lambda: f"{pattern.pattern} among {self._lines}")

    def close(self):
        """After the end of the process."""
        self._thread.join(10)
        self._stream.close()
