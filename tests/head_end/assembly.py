"""The head-end: a central store, a system monitor that keeps its configuration there and observes
two nodes, and a foreign service that keeps slices in the store and reports to a node."""
import pathlib
import threading
import time

from head_end import load
from head_end.model import Model
from head_end.processes import Foreign, Program
from kit.service_manager import ServiceManager

#: The slices of the foreign service. No name is the beginning of another: an update of the
#: first would also remove the second.
CAPABILITIES = ("tuner", "output", "cam")

#: The slice of the system monitor.
MONITOR_CAPABILITY = "state_monitoring_uservice"


class HeadEnd:
    """All processes, the model beside them and what happens in a round."""

    def __init__(self, folder, protos, bus):
        folder = pathlib.Path(folder)
        self.capabilities = CAPABILITIES
        self.model = Model(["store", "sys-mon", "node-1", "node-2"], ["node-1", "node-2"],
                           CAPABILITIES)
        self.bus = bus
        self.manager = ServiceManager(bus)
        self.store = Program("store", folder, self.model, protos, bus)
        self.nodes = [Program(name, folder, self.model, protos, bus, "--node_mon")
                      for name in self.model.nodes]
        ports = ",".join(str(node.port) for node in self.nodes)
        self.monitor = Program("sys-mon", folder, self.model, protos, bus, "--sys_mon",
                               "--statemon_services", f"127.0.0.1:{ports}",
                               "--ccsaddr", self.store.address)
        self.programs = [self.store, self.monitor, *self.nodes]
        (folder / "foreign").mkdir(parents=True)
        self.foreign = Foreign(folder, self.model, protos, self.store, self.nodes[0], CAPABILITIES)
        self.processes = [*self.programs, self.foreign]
        self.observing_client = self.store.client()
        #: The last exported package, if any.
        self.package = None
        self.is_ending = threading.Event()
        self.failures = []
        self.actions = []
        self._begin = time.monotonic()

    @property
    def has_failed(self):
        return bool(self.failures)

    def note(self, actor, what, result):
        """Keeps an action for the report of a failure."""
        self.actions.append(f"{time.monotonic() - self._begin:8.3f} {actor}: {what}: {result}")

    def fail(self, text, error=None):
        self.failures.append(text)
        self.note("FAILURE", text, error)
        self.is_ending.set()

    def work(self, seed, seconds):
        """One round of load; returns with some processes down."""
        self.is_ending.clear()
        self.actions.clear()
        for process in self.processes:
            process.begin_round()
        actors = [*(load.Reporter(self, program, seed) for program in self.programs),
                  load.Owner(self, seed), load.Operator(self, seed),
                  load.TrapConfigurator(self, seed), load.Observer(self, "observer 1", seed),
                  load.Observer(self, "observer 2", seed), load.Machine(self, "machine", seed),
                  load.Chaos(self, "chaos", seed)]
        for actor in actors:
            actor.start()
        self.is_ending.wait(seconds)
        self.is_ending.set()
        actors.pop().join(20)  # the one that starts and ends processes
        return actors

    def start_all(self):
        for process in self.processes:
            if not process.is_up:
                self.note("rest", f"start {process.name}", "")
                process.start()
        for process in self.processes:
            process.wait_ready()

    def check(self):
        for process in self.processes:
            process.check()

    def close(self):
        self.observing_client.close()
        for process in self.processes:
            process.close()
        self.manager.close()
