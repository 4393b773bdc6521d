"""The demo's second half: takes a configuration from its owner to a package and back."""
import json

from demo_owner import CAPABILITY
from demo_show import Operator, check, headline, start_process
from kit.configuration import Slice
from kit.protos import Protos
from kit.service import Service
from kit.wait import wait_until

import machine_files

KEYS = 300


def saved_files(service):
    root = service.folder / "config/configuration"
    return {str(path.relative_to(root)): path.read_bytes()
            for path in sorted(root.rglob("*")) if path.is_file()}


class Store:
    """A service with its restarts, its owner and its operator."""

    def __init__(self, protos, folder):
        self.protos = protos
        self.folder = folder
        self.service = None
        self.client = None
        self.operator = None
        self.processes = []

    def start(self):
        """Starts or restarts the service; its configuration folder stays."""
        if self.service is not None:
            self.service.stop()
            self.service.close()
        (self.folder / "notify").unlink(missing_ok=True)
        self.service = Service(self.protos, self.folder, service_id="demo-1").wait_ready()
        self.client = self.service.client()
        self.operator = Operator(self.service)

    def owner(self, *args):
        """Starts the foreign service as a separate process."""
        process = start_process("demo_owner.py", self.folder / "owner", self.service, KEYS, *args)
        self.processes.append(process)
        return process

    def push(self, state_id=""):
        """Lets the owner push its configuration; returns the new state id."""
        line = json.loads(self.owner("push", state_id).communicate(timeout=60)[0])
        print(f"  owner     pushes {line['keys']} files of /etc, gets state id {line['state_id']}")
        return line["state_id"]

    def status(self, is_saved):
        """Lets the operator look whether all is saved."""
        said = self.operator("conf", "status", status=0 if is_saved else 4).out
        check((": saved since " in said) == is_saved, "a wrong status")

    def keys(self):
        return len(Slice(self.client, CAPABILITY).content())

    def close(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.communicate()
        if self.service is not None:
            self.service.close()


def show_restarts(store):
    headline("Configuration: what a restart keeps")
    store.start()
    store.push()
    store.status(False)
    store.start()
    print(f"  restart   without saving: {store.keys()} keys")
    check(store.keys() == 0, "nothing was saved")
    state_id = store.push()
    store.operator("conf", "save")
    store.status(True)
    store.start()
    print(f"  restart   after saving: {store.keys()} keys")
    check(store.keys() == len(machine_files.read(KEYS)), "all of them were saved")
    return state_id


def show_revert(store, state_id):
    watcher = store.owner("watch", state_id)
    line = json.loads(watcher.stdout.readline())
    print("  owner     comes back with its state id and is up to date")
    check(line == {"up_to_date": True}, f"the owner was told {line}")
    other = Slice(store.client, CAPABILITY)
    other.update({"/hostname": "tampered-with"}, state_id=state_id)
    print("  stranger  overwrites /hostname")
    store.status(False)
    store.operator("conf", "revert", "--yes")
    store.status(True)
    line = json.loads(watcher.stdout.readline())
    print(f"  owner     hears all {line['keys']} keys of its slice again, as it pushed them")
    check(line["same"] and not line["up_to_date"], f"the owner was told {line}")
    return watcher


def show_package(store, watcher):
    headline("Configuration: one package out, everything wiped, the same package in")
    package = store.folder / "demo.hpk"
    store.operator("conf", "export", package)
    before = saved_files(store.service)
    print(f"  export    {len(before)} files, {sum(map(len, before.values()))} bytes, "
          f"as a package of {package.stat().st_size} bytes")
    store.operator("conf", "clear", "--yes")
    line = json.loads(watcher.stdout.readline())
    print(f"  wipe      {len(saved_files(store.service))} files; "
          f"the owner hears of {line['gone']} keys that are gone")
    check(saved_files(store.service) == {} and line["keys"] == 0, "something was left")
    store.operator("conf", "import", package)
    after = saved_files(store.service)
    line = json.loads(watcher.stdout.readline())
    print(f"  import    {len(after)} files; the owner hears of {line['keys']} keys")
    check(after == before, "the files are not what they were")
    check(line["same"], "the values are not the files of the machine")
    print("  compare   every file is what it was, byte for byte; every value is its file in /etc")


def show_confirmation(store):
    headline("Configuration: an import that nobody confirms reverts by itself")
    late = Slice(store.client, "other")
    late.update({"/late": "1"})
    store.operator("conf", "save")
    store.operator("conf", "import", store.folder / "demo.hpk", "--confirm", "2s")
    check(late.content() == {}, "the package was not imported")
    wait_until(lambda: late.content() == {"/late": "1"}, what="the rollback")
    store.operator("conf", "pending")


def run(folder):
    """Runs this part of the demo with its own service below the folder."""
    generated = folder / "generated-configuration"
    generated.mkdir()
    store = Store(Protos(generated), folder / "store")
    try:
        state_id = show_restarts(store)
        watcher = show_revert(store, state_id)
        show_package(store, watcher)
        watcher.kill()
        show_confirmation(store)
        store.service.stop()
    finally:
        store.close()
