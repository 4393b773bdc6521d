"""A stand-in for systemd's manager on a bus: a service that watches its machine sees what the test
says."""
import threading

import jeepney
from jeepney.io.blocking import open_dbus_connection

_MANAGER = jeepney.DBusAddress("/org/freedesktop/systemd1", "org.freedesktop.systemd1",
                               "org.freedesktop.systemd1.Manager")
_PROPERTIES = "org.freedesktop.DBus.Properties"

#: How often the thread looks whether it must end, in seconds.
_STEP = 0.2


class ServiceManager:
    """Owns the manager's name on the bus and answers what the state of the machine is."""

    def __init__(self, bus, state="running"):
        self._state = state
        self._is_ending = False
        self._lock = threading.Lock()  # of what is sent
        self._bus = open_dbus_connection(bus.address)
        self._bus.send_and_get_reply(
            jeepney.message_bus.RequestName(_MANAGER.bus_name), timeout=10)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    @property
    def state(self):
        return self._state

    def set_state(self, state):
        """Sets it and wakes everybody who watches."""
        self._state = state
        self._send(jeepney.new_signal(_MANAGER.with_interface(_PROPERTIES), "PropertiesChanged",
                                      "sa{sv}as", (_MANAGER.interface, {}, [])))

    def _send(self, message):
        with self._lock:
            self._bus.send(message)

    def _serve(self):
        while not self._is_ending:
            try:
                message = self._bus.receive(timeout=_STEP)
            except TimeoutError:
                continue
            if message.header.message_type == jeepney.MessageType.method_call:
                self._answer(message)

    def _answer(self, call):
        if call.header.fields[jeepney.HeaderFields.member] == "Get":
            self._send(jeepney.new_method_return(call, "v", (("s", self._state),)))
        else:
            self._send(jeepney.new_method_return(call))

    def close(self):
        self._is_ending = True
        self._thread.join(10)
        self._bus.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
