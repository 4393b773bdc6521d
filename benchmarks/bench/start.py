"""The start of a service with many saved keys."""
import json
import os
import pathlib
import shutil
import subprocess

from kit.memory import resident_bytes
from kit.service import Service

from .servers import processor_seconds

#: How many keys one folder of the saved copy has.
GROUP = 1000
TYPE = "type.googleapis.com/google.protobuf.StringValue"


class SavedKeys:
    """A saved configuration of as many keys, each with a text of 100 bytes; removed at the end."""

    def __init__(self, servers, count):
        self.count = count
        self.folder = pathlib.Path(servers.folder) / f"saved-{count}"
        self.copy = self.folder / "config" / "configuration"

    def __enter__(self):
        text = json.dumps({"@type": TYPE, "value": "v" * 100})
        for number in range(self.count):
            place = self.copy / f"sys/conf/mb/0/settings/{number // GROUP}/{number}"
            place.mkdir(parents=True)
            (place / "data").write_text(text)
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder)


def started(folder):
    """Processor time and memory of a service of the folder that has just become ready."""
    service = Service(None, folder)
    try:
        service.wait_ready()
        return processor_seconds(service.process) * 1e6, resident_bytes(service)
    finally:
        service.close()
        (folder / "notify").unlink()


def measure_start(servers, saved):
    """Figures per key: of the service beyond an empty one, and of a program that reads and parses
    the files; the memory is compared with 1 kB."""
    empty, full = started(saved.folder.with_name("empty")), started(saved.folder)
    read = subprocess.run([os.path.join(servers.binaries, "halvo-store-benchmark"), "read",
                           saved.copy], stdout=subprocess.PIPE, check=True)
    return [{"cpu_us": (full[0] - empty[0]) / saved.count,
             "kb": (full[1] - empty[1]) / saved.count / 1024},
            {"cpu_us": json.loads(read.stdout)["cpu_us"] / saved.count, "kb": 1}]
