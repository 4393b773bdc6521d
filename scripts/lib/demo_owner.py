"""The demo's foreign service: owns a slice of the configuration and prints what happens to it.

usage: demo_owner.py <address> <folder for generated code> <number of keys> push [<last state id>]
       demo_owner.py <address> <folder for generated code> <number of keys> watch <last state id>

Prints one line of JSON for the push, or for each change of its slice.
"""
import json
import sys

import machine_files
from kit.client import Client
from kit.configuration import Slice, texts
from kit.protos import Protos

CAPABILITY = "settings"
ALREADY_EXISTS = 6


def tell(**what):
    print(json.dumps(what), flush=True)


def push(own, values):
    tell(state_id=own.update(values, patch=False), keys=len(values))


def watch(own, values):
    stream = own.observe(own.state_id)
    while True:
        element = stream.next(seconds=120)
        if element.observeStatus.statusCode == ALREADY_EXISTS:
            tell(up_to_date=True)
            continue
        heard = texts(element)
        heard.pop("/__csid", None)
        kept = {key: text for key, text in heard.items() if text is not None}
        tell(up_to_date=False, keys=len(kept), gone=len(heard) - len(kept), same=kept == values)


def main():
    address, folder, count, action = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
    protos = Protos(folder)
    with Client(protos, address) as client:
        own = Slice(client, CAPABILITY)
        own.state_id = sys.argv[5] if len(sys.argv) > 5 else ""
        {"push": push, "watch": watch}[action](own, machine_files.read(count))


if __name__ == "__main__":
    main()
