"""A system monitor and the state monitors that it observes."""
import collections

from kit.wait import wait_until

#: The log line about a peer whose connection is lost.
LOST = "Service {} was disconnected"

#: The log line about a peer that sends reports back.
CIRCLE = "Service {} has sent a report that has come from here: the monitors are in a circle"


def url(peer, host="127.0.0.1"):
    """The address of a peer, or of a port, as in the status."""
    return f"{host}:{getattr(peer, 'port', peer)}"


def observing(*peers, host="127.0.0.1"):
    """The options of a system monitor of these peers, each a service, another object with a port,
    or a port."""
    ports = ",".join(str(getattr(peer, "port", peer)) for peer in peers)
    return ["--sys_mon", "--statemon_services", f"{host}:{ports}"]


def named(protos, status):
    """The entries of a StateMonitorStatus as pairs of URL and name of the state."""
    names = protos.state.StateMonitorConnectionStatus.ConnectStatus.Name
    return [(entry.connectionUrl, names(entry.connectStatus))
            for entry in status.stateMonitorConnectionStatus]


def connections(client):
    """What getStatus answers, as pairs of URL and name of the state."""
    answer = client.state.getStatus(client.protos.state.GetStateMonitorStatusReq())
    return named(client.protos, answer.monitorStatus)


def states(client):
    """The names of the states of all connections, in the order of the status."""
    return [state for _, state in connections(client)]


def wait_for_states(client, *expected, seconds=20):
    wait_until(lambda: states(client) == list(expected), seconds,
               lambda: f"{expected} instead of {states(client)}")


def wait_until_connected(client, *peers, seconds=20):
    """Waits until each of the peers is connected; by default all are."""
    def connected():
        found = dict(connections(client))
        return all(found[address] == "CONNECTED" for address in [*map(url, peers)] or found)

    wait_until(connected, seconds, lambda: f"connections {connections(client)}")


def archive(client):
    """All stored reports, oldest first."""
    return list(reversed(client.notifications()))


def reports(client):
    """The StateNotifications of the archive, oldest first."""
    return [stored.stateNotification for stored in archive(client)]


def copies(client, source=None):
    """How often each report is in the archive, of all sources or of one."""
    return collections.Counter(report.SerializeToString() for report in reports(client)
                               if source in (None, report.source))


def wait_for_source(client, source, count=1, seconds=20):
    """Waits until the archive has that many reports of this source; returns all reports."""
    def found():
        stored = reports(client)
        return stored if sum(report.source == source for report in stored) >= count else None

    return wait_until(found, seconds, f"{count} of source {source}")


def error_lines(service):
    """The lines of standard output at error level and above, without time and level."""
    return [line.split("] ", 2)[2] for line in service.stdout.splitlines()
            if line.split("] ", 2)[1:2] in (["[error"], ["[critical"])]
