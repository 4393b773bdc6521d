"""The demo's second process: prints the snapshot and each change as one line of JSON per origin.

usage: demo_watch.py <address> <folder with the module halvo> <number of reports to wait for>
"""
import json
import sys
import threading

LATEST = "/state/notifications/latest/"


def main():
    address, folder, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
    sys.path.insert(0, folder)
    import halvo

    stop = threading.Event()
    indices = []

    def severity(stored):
        report = stored.stateNotification
        values = report.DESCRIPTOR.fields_by_name["severity"].enum_type.values_by_number
        return values[report.severity].name

    def changed(_key, old, new):
        indices.append(new.index)
        print(json.dumps({
            "index": new.index,
            "source": new.stateNotification.source,
            "new": severity(new),
            "old": severity(old) if old else None,
            "text": new.stateNotification.msg,
        }), flush=True)
        if len(indices) == count:
            stop.set()

    with halvo.Client(address) as client:
        halvo.observe(client, LATEST + "**", changed, stop)


if __name__ == "__main__":
    main()
