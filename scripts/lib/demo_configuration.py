"""The demo's second half: takes a configuration from its owner to a package and back."""
import json

from demo_owner import CAPABILITY
from demo_show import check, headline, start_process
from kit.configuration import Slice, clear, discard, export_package, import_package, save
from kit.protos import Protos
from kit.service import Service

import machine_files

KEYS = 300


def saved_files(service):
    root = service.folder / "config/configuration"
    return {str(path.relative_to(root)): path.read_bytes()
            for path in sorted(root.rglob("*")) if path.is_file()}


class Operator:
    """Drives a service through its restarts, and watches its state."""

    def __init__(self, protos, folder):
        self.protos = protos
        self.folder = folder
        self.service = None
        self.client = None
        self.watcher = None
        self.processes = []

    def start(self):
        """Starts or restarts the service; its configuration folder stays."""
        if self.service is not None:
            self.service.stop()
            self.service.close()
        (self.folder / "notify").unlink(missing_ok=True)
        self.service = Service(self.protos, self.folder, service_id="demo-1").wait_ready()
        self.client = self.service.client()
        self.watcher = self.client.observe("/state/notifications/latest/**")

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

    def tell_state(self, expected, text):
        """Prints the state of the unsaved changes as the operator sees it."""
        pairs = list(self.watcher.next().node_change_map.values())
        stored = self.protos.state.StoredNotification()
        check(pairs[0].nodePairList[0].currentMessage.Unpack(stored), "a report of another type")
        state = self.client.current_state()
        print(f"  operator  sees \"{stored.stateNotification.msg}\", state {state}")
        check((state, stored.stateNotification.msg) == (expected, text),
              f"it should be {expected}, \"{text}\"")

    def keys(self):
        return len(Slice(self.client, CAPABILITY).content())

    def close(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.communicate()
        if self.service is not None:
            self.service.close()


def show_restarts(operator):
    headline("Configuration: what a restart keeps")
    operator.start()
    operator.push()
    operator.tell_state("WARN", "Sysconf cap update")
    operator.start()
    print(f"  restart   without saving: {operator.keys()} keys")
    check(operator.keys() == 0, "nothing was saved")
    state_id = operator.push()
    operator.tell_state("WARN", "Sysconf cap update")
    save(operator.client)
    operator.tell_state("OK", "Sysconf saved")
    operator.start()
    print(f"  restart   after saving: {operator.keys()} keys")
    check(operator.keys() == len(machine_files.read(KEYS)), "all of them were saved")
    return state_id


def show_discard(operator, state_id):
    watcher = operator.owner("watch", state_id)
    line = json.loads(watcher.stdout.readline())
    print("  owner     comes back with its state id and is up to date")
    check(line == {"up_to_date": True}, f"the owner was told {line}")
    other = Slice(operator.client, CAPABILITY)
    other.update({"/hostname": "tampered-with"}, state_id=state_id)
    print("  stranger  overwrites /hostname")
    operator.tell_state("WARN", "Sysconf cap update")
    discard(operator.client)
    operator.tell_state("OK", "Sysconf discard changes")
    line = json.loads(watcher.stdout.readline())
    print(f"  owner     hears all {line['keys']} keys of its slice again, as it pushed them")
    check(line["same"] and not line["up_to_date"], f"the owner was told {line}")
    return watcher


def show_package(operator, watcher):
    headline("Configuration: one package out, everything wiped, the same package in")
    package = export_package(operator.client)
    before = saved_files(operator.service)
    print(f"  export    {len(before)} files, {sum(map(len, before.values()))} bytes, "
          f"as a package of {len(package)} bytes")
    clear(operator.client)
    line = json.loads(watcher.stdout.readline())
    print(f"  wipe      {len(saved_files(operator.service))} files; "
          f"the owner hears of {line['gone']} keys that are gone")
    check(saved_files(operator.service) == {} and line["keys"] == 0, "something was left")
    import_package(operator.client, package)
    after = saved_files(operator.service)
    line = json.loads(watcher.stdout.readline())
    print(f"  import    {len(after)} files; the owner hears of {line['keys']} keys")
    check(after == before, "the files are not what they were")
    check(line["same"], "the values are not the files of the machine")
    print("  compare   every file is what it was, byte for byte; every value is its file in /etc")


def run(folder):
    """Runs this part of the demo with its own service below the folder."""
    generated = folder / "generated-configuration"
    generated.mkdir()
    operator = Operator(Protos(generated), folder / "store")
    try:
        state_id = show_restarts(operator)
        watcher = show_discard(operator, state_id)
        show_package(operator, watcher)
        watcher.kill()
        operator.service.stop()
    finally:
        operator.close()
