"""A client that knows only the protos: every method is bound from its descriptor."""
import queue
import threading

import grpc

from kit.protos import streaming_methods

#: The deadline of a single call, in seconds.
CALL_TIMEOUT = 20


#: The options of a channel that tries twice a second to connect to a service that is down. The
#: minimum is also the limit of one attempt.
EAGER = [("grpc.initial_reconnect_backoff_ms", 500), ("grpc.min_reconnect_backoff_ms", 5000),
         ("grpc.max_reconnect_backoff_ms", 500)]


def open_channel(address, options=()):
    """A channel with its own connection and no limit on received messages."""
    return grpc.insecure_channel(address, options=[
        ("grpc.use_local_subchannel_pool", 1),
        ("grpc.enable_http_proxy", 0),
        ("grpc.max_receive_message_length", -1),
        ("grpc.max_send_message_length", -1),
        *options,
    ])


def method_path(service, method):
    return f"/{service.full_name}/{method}"


class Stub:
    """One attribute per method of a service.

    A unary method takes a request and returns the answer or raises grpc.RpcError; a streaming one
    returns the running call.
    """

    def __init__(self, channel, service):
        streaming = streaming_methods(service)
        for method in service.methods:
            make = channel.unary_stream if method.name in streaming else channel.unary_unary
            bound = make(method_path(service, method.name),
                         request_serializer=lambda message: message.SerializeToString(),
                         response_deserializer=method.output_type._concrete_class.FromString)
            setattr(self, method.name, self._timed(bound, method.name in streaming))

    @staticmethod
    def _timed(bound, streaming):
        if streaming:
            return bound
        return lambda request, timeout=CALL_TIMEOUT: bound(request, timeout=timeout,
                                                           wait_for_ready=True)


class Client:
    """All services of one listener of the program."""

    def __init__(self, protos, address, options=()):
        self.protos = protos
        self.channel = open_channel(address, options)
        self.state = Stub(self.channel,
                          protos.service(protos.state, "StateMonitoringService"))
        self.configuration = Stub(self.channel,
                                  protos.service(protos.configuration, "ConfigurationService"))
        self.introspection = Stub(self.channel,
                                  protos.service(protos.introspection, "IntrospectionService"))

    def close(self):
        self.channel.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def notification(self, service_id="svc", type="Test_Type", source="src", severity="OK",
                     msg="", seconds=0, nanos=0, extended_info=""):
        """A StateNotification; severity is the name of a StateSeverity."""
        note = self.protos.state.StateNotification(
            service_id=service_id, type=type, source=source, msg=msg,
            severity=self.protos.state.StateSeverity.Value(severity), extendedInfo=extended_info)
        if seconds or nanos:
            note.timeStamp.seconds = seconds
            note.timeStamp.nanos = nanos
        return note

    def create(self, *args, **kwargs):
        """Sends one notification, made from the arguments of notification()."""
        note = self.notification(*args, **kwargs)
        self.state.createStateNotification(
            self.protos.state.CreateStateNotificationReq(stateNotification=note))
        return note

    def notifications(self, **kwargs):
        """The stateList of getStateNotifications; arguments are fields of the request."""
        request = self.protos.state.GetStateNotificationsReq(**kwargs)
        return list(self.state.getStateNotifications(request).stateList)

    def latest(self, **kwargs):
        """The answer of getLatestStateNotifications; arguments are fields of the request."""
        request = self.protos.state.GetLatestStateNotificationsReq(**kwargs)
        return self.state.getLatestStateNotifications(request)

    def current_state(self):
        """Name of the current StateSeverity."""
        answer = self.state.getCurrentState(self.protos.state.GetCurrentStateReq())
        return self.protos.state.StateSeverity.Name(answer.currentState)

    def observe(self, pattern, **kwargs):
        """Opens an observe stream and reads it in the background."""
        request = self.protos.tree.ObserveReq(key_pattern=pattern)
        return Stream(self.state.observeStateNotifications(request, **kwargs))


class Stream:
    """A running observe stream whose elements are kept in order of arrival."""

    _END = object()

    def __init__(self, call):
        self.call = call
        self.error = None
        self._elements = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        try:
            for element in self.call:
                self._elements.put(element)
        except grpc.RpcError as error:
            self.error = error
        self._elements.put(self._END)

    def next(self, seconds=20):
        """The next element; fails if the stream ends or none arrives in time."""
        try:
            element = self._elements.get(timeout=seconds)
        except queue.Empty:
            raise AssertionError(f"no element within {seconds} s") from None
        if element is self._END:
            raise AssertionError(f"the stream has ended: {self.error}")
        return element

    def rest(self, seconds=20):
        """All further elements until the end of the stream, which must come in time."""
        elements = []
        while True:
            element = self._elements.get(timeout=seconds)
            if element is self._END:
                return elements
            elements.append(element)

    def cancel(self):
        self.call.cancel()
        self._reader.join(20)
