"""Prints the reports of a head-end and their changes until Ctrl-C, also when the service restarts.

usage: observer.py <host:port> [<pattern>]
"""
import signal
import sys
import threading

import halvo


def main(address, pattern="/state/notifications/latest/**"):
    stop = threading.Event()
    signal.signal(signal.SIGINT, lambda *_: stop.set())

    def changed(key, old, new):
        def text(value):
            return f"{value.stateNotification.severity} {value.stateNotification.msg}"

        print(f"{key}: {text(old) if old else 'nothing'} -> {text(new) if new else 'nothing'}",
              flush=True)

    with halvo.Client(address) as client:
        halvo.observe(client, pattern, changed, stop)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__.strip())
    main(*sys.argv[1:])
