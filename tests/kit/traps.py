"""What the traps are, and how a report becomes one."""
from kit.mib import product
from kit.paths import mib_folder

#: The arc of the product, as the program is built.
PRODUCT = product(mib_folder())

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
