"""What the traps are, and how a report becomes one."""
import re

from kit.paths import mib_folder


def enterprise_number():
    """The number that the program is built with: an integrator sets another one."""
    text = (mib_folder() / "HALVO-QHED-MIB.txt").read_text()
    return re.search(r"enterprises\(1\) (\d+) }", text)[1]


#: The arc of the product: the traps are below 0, their variables below 2.
PRODUCT = f"1.3.6.1.4.1.{enterprise_number()}.3.1.10"

#: Type of a report to the names of its traps, of a bad state and of OK, each with the last number of
#: its OID.
TABLE = {
    "Cap_RFInput_TunerConfedNotLocked": (("qhedTunerMissingSignalLock", 1),
                                         ("qhedTunerHasSignalLock", 2)),
    "Cap_cam_CardNotDescrambling": (("qhedCamDescramblingError", 3), ("qhedCamDescramblingOk", 4)),
    "Cap_TSState_Overload": (("qhedOutputOverloadError", 5), ("qhedOutputOverloadOk", 6)),
}

#: One of the types.
TYPE = "Cap_TSState_Overload"

#: The record of a manager that cannot be used.
NOT_OPENED = "[error] Failed to initialize SNMP Manager: Failed to open netsnmp session"


def trap_oid(message):
    return message.variables[1].value


def text(message):
    return message.variables[4].value.decode()


def report(client, msg="a text", severity="ERROR", kind=TYPE, **kwargs):
    """Sends a report of such a type; severity may be a number that the proto does not know."""
    note = client.notification(type=kind, msg=msg, **kwargs)
    note.severity = (severity if isinstance(severity, int)
                     else client.protos.state.StateSeverity.Value(severity))
    client.state.createStateNotification(
        client.protos.state.CreateStateNotificationReq(stateNotification=note))
    return note


def assert_next_trap(client, socket, msg="a text"):
    """Sends a report and asserts that the next trap is that of it."""
    report(client, msg)
    assert text(socket.next()) == msg


def refused_managers(service):
    """How many managers the service could not use."""
    return service.stdout.count(NOT_OPENED + "\n")
