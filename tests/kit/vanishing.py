"""A client program that brings a connection into one state, reports it, and waits to be killed.

usage: vanishing.py <address> <state> [request as hexadecimal digits]

It speaks plain gRPC with bytes for messages, so it starts fast.
"""
import socket
import sys

_SERVICE = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/"


def _channel(address):
    import grpc
    channel = grpc.insecure_channel(address, options=[("grpc.enable_http_proxy", 0)])
    grpc.channel_ready_future(channel).result(20)
    return channel


def _raw(address, data):
    host, port = address.rsplit(":", 1)
    connection = socket.create_connection((host, int(port)))
    connection.sendall(data)
    return connection


def _observe(address, request):
    return _channel(address).unary_stream(_SERVICE + "observeStateNotifications")(request)


def _calls(address, request):
    create = _channel(address).unary_unary(_SERVICE + "createStateNotification")
    print("connected", flush=True)
    sys.stdin.readline()  # the service is stopped by now
    return [create.future(request) for _ in range(20)]


def main():
    address, state = sys.argv[1:3]
    request = bytes.fromhex(sys.argv[3]) if len(sys.argv) > 3 else b""
    if state == "connected":
        held = _channel(address)
    elif state == "half-a-preface":
        held = _raw(address, b"PRI * HTTP/2.0\r\n")
    elif state == "no-protocol-at-all":
        held = _raw(address, bytes(range(256)) * 10)
    elif state == "calls-unanswered":
        held = _calls(address, request)
    elif state == "stream-unread":
        held = _observe(address, request)
    elif state == "stream-read":
        held = _observe(address, request)
        next(held)
    else:
        raise SystemExit(f"unknown state {state}")
    print("ready", flush=True)
    # Until it is killed or its parent has ended.
    sys.stdin.read()
    del held


if __name__ == "__main__":
    main()
