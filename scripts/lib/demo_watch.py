"""The demo's second process: prints the snapshot and each change as one line of JSON per origin.

usage: demo_watch.py <address> <folder for generated code> <number of reports to wait for>
"""
import json
import sys

from kit.client import Client
from kit.protos import Protos

LATEST = "/state/notifications/latest/"


def main():
    address, folder, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
    protos = Protos(folder)

    def unpacked(packed):
        stored = protos.state.StoredNotification()
        assert packed.Unpack(stored)
        return stored

    with Client(protos, address) as client:
        call = client.state.observeStateNotifications(
            protos.tree.ObserveReq(key_pattern=LATEST + "**"), timeout=120)
        seen = 0
        for element in call:
            for pair_list in element.node_change_map.values():
                pair = pair_list.nodePairList[0]
                new = unpacked(pair.currentMessage)
                old = unpacked(pair.prevMessage) if pair.HasField("prevMessage") else None
                name = protos.state.StateSeverity.Name
                print(json.dumps({
                    "index": new.index,
                    "source": new.stateNotification.source,
                    "new": name(new.stateNotification.severity),
                    "old": name(old.stateNotification.severity) if old else None,
                    "text": new.stateNotification.msg,
                }), flush=True)
                seen += 1
            if seen == count:
                call.cancel()
                return


if __name__ == "__main__":
    main()
