"""A small head-end: nodes on separate machines and a system monitor that observes them."""
import contextlib
import pathlib

from kit.false_peer import Cable
from kit.monitors import observing
from kit.node import PORT, Node


class HeadEnd:
    """The nodes of a head-end, whose boot waits, and the options of a monitor that observes them."""

    def __init__(self, folder, protos, size):
        self._end = contextlib.ExitStack()
        self.nodes = []
        cables = []
        try:
            for number in range(1, size + 1):
                place = pathlib.Path(folder) / f"node-{number}"
                place.mkdir(parents=True)
                node = Node(place, protos, f"node-{number}")
                self._end.callback(node.close)
                self.nodes.append(node)
                # The option of the monitor has one address for all ports.
                cables.append(self._end.enter_context(Cable(PORT, node.ip)))
        except BaseException:
            self.close()
            raise
        self.options = observing(*cables)

    def continue_boot(self):
        for node in self.nodes:
            node.wait_until_active()
            node.continue_boot()

    def failed_units(self):
        """What the manager of each node says of its units that have failed."""
        return "\n".join(node.run("systemctl", "list-units", "--failed") for node in self.nodes)

    def close(self):
        self._end.close()
