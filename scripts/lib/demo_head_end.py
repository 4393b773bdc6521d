"""The part of the demo with several machines: two nodes, each with the real systemd, a system monitor
that observes them, and a network management system that gets its traps."""
from demo_show import check, headline
from kit.head_end import HeadEnd
from kit.monitors import connections, reports, wait_until_connected
from kit.service import Service
from kit.snmp_configuration import set_manager
from kit.trap_receiver import TrapReceiver
from kit.wait import wait_until


def show_state(client, wanted):
    wait_until(lambda: client.current_state() == wanted, what=wanted)
    last = reports(client)[-1]
    print(f"  {wanted:<7}  {last.service_id}: {last.msg}")


def show_traps(receiver, count):
    for trap in receiver.wait_for_traps(count):
        for line in trap[1:]:
            for variable in line.split("\t"):
                print(f"  {variable}")
        print()


def run_head_end(nodes, client):
    headline("A head-end: the system monitor and its nodes")
    wait_until_connected(client)
    for url, state in connections(client):
        print(f"  {url}  {state}")
    nodes.continue_boot()
    wait_until(lambda: len(reports(client)) == len(nodes.nodes), what="the boots")
    show_state(client, "OK")
    nodes.nodes[1].fail()
    show_state(client, "ERROR")
    nodes.nodes[1].mend()
    show_state(client, "OK")


def run_traps(nodes, client, receiver):
    headline("A tuner of the first node loses its signal: the traps as snmptrapd prints them")
    set_manager(client, trap_port=receiver.port)
    node = nodes.nodes[0].client
    kind = "Cap_RFInput_TunerConfedNotLocked"
    node.create("node-1", kind, "tuner/1", "ERROR", "Tuner 1 is not locked")
    receiver.wait_for_traps(1)
    node.create("node-1", kind, "tuner/1", "OK", "Tuner 1 is locked")
    show_traps(receiver, 2)
    names = ["qhedTunerMissingSignalLock", "qhedTunerHasSignalLock"]
    check(all(name in "".join(trap) for name, trap in zip(names, receiver.traps())), "a wrong trap")


def run(folder, protos):
    nodes = HeadEnd(folder / "nodes", protos, 2)
    receiver = monitor = None
    try:
        receiver = TrapReceiver(folder / "receiver")
        receiver.start()
        monitor = Service(protos, folder / "monitor", *nodes.options, service_id="system-monitor")
        monitor.wait_ready()
        client = monitor.client()
        run_head_end(nodes, client)
        run_traps(nodes, client, receiver)
        monitor.stop()
    finally:
        if monitor is not None:
            monitor.close()
        if receiver is not None:
            receiver.close()
        nodes.close()
