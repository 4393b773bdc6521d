"""The part of the demo with several machines: two nodes, each with the real systemd, a system monitor
that observes them, a network management system that gets its traps, and a central store that keeps
the monitor's configuration."""
import contextlib
import shutil

from demo_show import Operator, check, headline
from kit.head_end import HeadEnd
from kit.monitors import connections, reports, wait_until_connected
from kit.service import Service
from kit.trap_receiver import TrapReceiver
from kit.wait import wait_until


def show_state(operator, client, wanted):
    wait_until(lambda: client.current_state() == wanted, what=wanted)
    check(operator("state").out.startswith(wanted), f"it should be {wanted}")


def show_traps(receiver, count):
    for trap in receiver.wait_for_traps(count):
        for line in trap[1:]:
            for variable in line.split("\t"):
                print(f"  {variable}")
        print()


def run_head_end(nodes, operator, client):
    headline("A head-end: the system monitor and its nodes")
    wait_until_connected(client)
    for url, state in connections(client):
        print(f"  {url}  {state}")
    nodes.continue_boot()
    wait_until(lambda: len(reports(client)) == len(nodes.nodes), what="the boots")
    show_state(operator, client, "OK")
    nodes.nodes[1].fail()
    show_state(operator, client, "ERROR")
    nodes.nodes[1].mend()
    show_state(operator, client, "OK")


def run_traps(nodes, operator, receiver):
    headline("A tuner of the first node loses its signal: the traps as snmptrapd prints them")
    operator("snmp", "set", "127.0.0.1", "--port", receiver.port)
    node = nodes.nodes[0].client
    kind = "Cap_RFInput_TunerConfedNotLocked"
    node.create("node-1", kind, "tuner/1", "ERROR", "Tuner 1 is not locked")
    receiver.wait_for_traps(1)
    node.create("node-1", kind, "tuner/1", "OK", "Tuner 1 is locked")
    show_traps(receiver, 2)
    names = ["qhedTunerMissingSignalLock", "qhedTunerHasSignalLock"]
    check(all(name in "".join(trap) for name, trap in zip(names, receiver.traps())), "a wrong trap")


def run_wipe(monitor, start_again):
    headline("The monitor's disk is wiped: its configuration comes back from the central store")
    manager = Operator(monitor)("snmp", "show").out
    monitor.stop()
    disk = monitor.folder / "config"
    print(f"  removed {sum(path.is_file() for path in disk.rglob('*'))} files of the monitor")
    shutil.rmtree(disk)
    back = Operator(start_again())("snmp", "show").out
    check(back == manager, "another manager")


def run(folder, protos):
    with contextlib.ExitStack() as running:
        def start(name, *options):
            service = Service(protos, folder / name, *options, service_id=name)
            running.callback(service.close)
            return service.wait_ready()

        nodes = HeadEnd(folder / "nodes", protos, 2)
        running.callback(nodes.close)
        receiver = TrapReceiver(folder / "receiver")
        running.callback(receiver.close)
        receiver.start()
        store = start("central-store")
        options = [*nodes.options, "--ccsaddr", store.address]
        monitor = start("system-monitor", *options)
        client = monitor.client()
        operator = Operator(monitor)
        run_head_end(nodes, operator, client)
        run_traps(nodes, operator, receiver)
        run_wipe(monitor, lambda: start("system-monitor-again", *options))
