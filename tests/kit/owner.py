"""The owner of slices as a separate program, to be killed.

usage: owner.py <port> <method> <request in hexadecimal>...

Waits for a line on standard input, calls the method with each request, prints "there" when all are
answered, and stays.
"""
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from kit.raw_client import DATA, RawClient  # noqa: E402


def main(port, path, requests):
    sys.stdin.readline()
    with RawClient(port) as raw:
        for request in requests:
            raw.call_with_bytes(path, bytes.fromhex(request))
        raw.wait_for_frames(DATA, len(requests))
        print("there", flush=True)
        signal.pause()


if __name__ == "__main__":
    main(int(sys.argv[1]), sys.argv[2], sys.argv[3:])
