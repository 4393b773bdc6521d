"""Whatever a client sends, it gets a clear answer, nothing changes and the service continues."""
import random
import re

import grpc
import pytest

from kit.client import method_path
from kit.protos import streaming_methods

MALFORMED = [
    ("(", "Mismatched '(' and ')' in regular expression"),
    ("[", "Unexpected character within '[...]' in regular expression"),
    ("a{2,1}", "Invalid range in '{}' in regular expression"),
    ("[b-a]", "Invalid range in bracket expression."),
    ("\\", "Invalid escape at end of regular expression"),
]


def failure_of(call):
    with pytest.raises(grpc.RpcError) as failure:
        call()
    return failure.value.code(), failure.value.details()


def nothing_stored(client):
    return client.notifications() == [] and client.latest().latestStateNotificationIndex == 0


@pytest.mark.parametrize("expression, text", MALFORMED)
def test_a_malformed_expression_is_refused(client, service, expression, text):
    client.create()
    before = client.notifications()
    code, details = failure_of(lambda: client.notifications(typeRegEx=expression))
    assert (code, details) == (grpc.StatusCode.FAILED_PRECONDITION, text)
    stamp = client.notification(seconds=1).timeStamp
    client.create(seconds=2)
    code, details = failure_of(
        lambda: client.notifications(timeStamp=stamp, typeRegEx=expression))
    assert (code, details) == (grpc.StatusCode.FAILED_PRECONDITION, text)
    assert client.notifications(index=0)[1:] == before
    service.assert_alive()


def test_a_malformed_expression_is_not_looked_at_in_an_empty_store(client):
    assert client.notifications(typeRegEx="(") == []
    client.create()
    assert client.notifications(index=7, typeRegEx="(") == []


@pytest.mark.parametrize("expression", ["a" * 1001, "(" * 5000, "[a-z]" * 2000, "a|" * 100000],
                         ids=["letters", "parentheses", "brackets", "alternatives"])
def test_an_expression_above_a_thousand_bytes_is_refused(client, service, expression):
    client.create()
    code, details = failure_of(lambda: client.notifications(typeRegEx=expression))
    assert code == grpc.StatusCode.FAILED_PRECONDITION
    assert details
    service.assert_alive()


def test_an_expression_of_a_thousand_bytes_is_accepted(client):
    client.create(type="a" * 1000)
    assert len(client.notifications(typeRegEx="a" * 1000)) == 1


def test_a_type_above_4096_bytes_is_not_matched(client, service):
    client.create(type="a" * 4096)
    assert len(client.notifications(typeRegEx="a+")) == 1
    client.create(type="a" * 4097)
    code, details = failure_of(lambda: client.notifications(typeRegEx="a+"))
    assert code == grpc.StatusCode.FAILED_PRECONDITION
    assert details
    assert len(client.notifications()) == 2
    service.assert_alive()


@pytest.mark.parametrize("expression, kind", [
    ("(a+)+$", "a" * 40 + "b"),
    ("(a+)+$", "a" * 4000 + "b"),
    ("^(a|a)*$", "a" * 4000 + "b"),
    ("(.*)*(.*)*(.*)*x", "a" * 4000),
    ("(" * 400 + "a" + ")*" * 400, "a" * 4000),
    ("(" * 400 + "a" + ")" * 400, "a" * 4000),
    ("(?:" * 200 + "a" + ")+" * 200 + "b", "a" * 4000),
    ("(a|b)*c", "ab" * 2000),
    ("((a{1,30}){1,30}){1,30}", "a" * 4000),
    (r"(.+)\1+$", "ab" * 2000),
], ids=lambda text: text[:20])
def test_an_expression_that_explodes_neither_crashes_nor_hangs(client, service, expression, kind):
    client.create(type=kind)
    try:
        client.notifications(typeRegEx=expression)
    except grpc.RpcError as error:
        assert error.code() == grpc.StatusCode.FAILED_PRECONDITION, error.details()
        assert error.details()
    service.assert_alive()


TWO_SLASHES = "Key must not contain // (two slashes in a row; path = {}. "
LAST_SLASH = "Final character of path must not be '/' ; path = {}. "
STAR = "Only key_pattern's may contain *; path = {}. "
DOTS = "Only function tree addresses may contain .<something>. components; path = {}. "


@pytest.mark.parametrize("origin, text", [
    (("", "T", "s"), TWO_SLASHES),
    (("svc", "", "s"), TWO_SLASHES),
    (("svc", "T", ""), LAST_SLASH),
    (("", "", ""), LAST_SLASH),
    (("svc", "T", "/s"), TWO_SLASHES),
    (("svc", "T", "s/"), LAST_SLASH),
    (("svc", "T", "a//b"), TWO_SLASHES),
    (("*", "T", "s"), STAR),
    (("svc", "**", "s"), STAR),
    (("svc", "T", "a*b"), STAR),
    ((".x.", "T", "s"), DOTS),
    (("svc", ".", "s"), DOTS),
    (("svc", "T", "a/../b"), DOTS),
])
def test_an_origin_that_makes_no_key_is_refused_and_nothing_is_stored(client, service, origin,
                                                                      text):
    stream = client.observe("/**")
    code, details = failure_of(lambda: client.create(*origin, severity="ERROR"))
    assert code == grpc.StatusCode.FAILED_PRECONDITION
    message = "PathError: " + text.format("/state/notifications/latest/" + "/".join(origin))
    assert re.fullmatch(re.escape(message) + r"\([^()]*:\d+\)", details), details
    assert nothing_stored(client)
    assert client.current_state() == "OK"
    # The next valid report is the first change that an observer gets.
    client.create("svc", "T", "good")
    assert sorted(stream.next().node_change_map) == [
        "/state/notifications/archive/0000000000", "/state/notifications/latest/svc/T/good"]
    service.assert_alive()


@pytest.mark.parametrize("name", [".x", "x.", "a.b", " ", "a b", "\n", "\x01", "%2F", "?"])
def test_an_unusual_origin_that_makes_a_key_is_stored(client, name):
    client.create(name, name, name)
    assert client.notifications()[0].stateNotification.service_id == name


def test_a_report_without_a_notification_is_refused(client, service):
    code, details = failure_of(lambda: client.state.createStateNotification(
        client.protos.state.CreateStateNotificationReq()))
    assert code == grpc.StatusCode.FAILED_PRECONDITION
    assert details.startswith("PathError: ")
    assert nothing_stored(client)
    service.assert_alive()


BAD_PATTERNS = [
    ("", "Path must not be empty"),
    ("a/b", "Initial character of path must be '/'; path = a/b. "),
    ("/a/", "Final character of path must not be '/' ; path = /a/. "),
    ("//", "Final character of path must not be '/' ; path = //. "),
    ("//a", TWO_SLASHES.format("//a")),
    ("/a/.b.", DOTS.format("/a/.b.")),
    ("/**/**", "A key_pattern may at most contain one occurrence of **; path = /**/**. "),
    ("/a/b*", "More than two *'s in key_pattern component not allowed; path = /a/b*. "),
    ("/a/***", "More than two *'s in key_pattern component not allowed; path = /a/***. "),
]


def assert_refused_then_silent(service, client, pattern, text_of):
    client.create(severity="WARN")
    stream = client.observe(pattern)
    first = stream.next()
    assert first.observeStatus.statusCode == 3
    text_of(first.observeStatus.errorMessage)
    assert not first.node_change_map
    witness = client.observe("/**")
    witness.next()
    client.create(severity="OK")
    witness.next()
    service.assert_alive()
    service.stop()
    assert stream.rest() == []


@pytest.mark.parametrize("pattern, text", BAD_PATTERNS)
def test_a_malformed_pattern_is_answered_once_and_then_silent(service, client, pattern, text):
    def check(message):
        assert re.fullmatch("PathError: " + re.escape(text) + r"\([^()]*:\d+\)", message), message
    assert_refused_then_silent(service, client, pattern, check)


@pytest.mark.parametrize("pattern", ["/a/**/b", "/**/b", "/state/**/src", "/**/*/b"])
def test_a_pattern_that_cannot_be_matched_is_answered_the_same_way(service, client, pattern):
    def check(message):
        assert pattern in message
    assert_refused_then_silent(service, client, pattern, check)


def test_other_observers_go_on_beside_a_pattern_that_cannot_be_matched(client):
    before = client.observe("/state/**")
    bad = client.observe("/state/**/src")
    assert bad.next().observeStatus.statusCode == 3
    after = client.observe("/state/**")
    for _ in range(3):
        client.create()
        assert before.next().node_change_map
        assert after.next().node_change_map


def every_method(client):
    """Pairs of (path, whether it streams)."""
    for module, name in ((client.protos.state, "StateMonitoringService"),
                         (client.protos.configuration, "ConfigurationService"),
                         (client.protos.introspection, "IntrospectionService")):
        service = client.protos.service(module, name)
        streaming = streaming_methods(service)
        for method in service.methods:
            yield method_path(service, method.name), method.name in streaming


def send_bytes(client, path, streaming, data, seconds=3):
    """Sends the bytes as the request; returns the status code, or None if there was an answer."""
    try:
        if streaming:
            call = client.channel.unary_stream(path)(data, timeout=seconds)
            next(call)
            call.cancel()
        else:
            client.channel.unary_unary(path)(data, timeout=seconds)
    except (grpc.RpcError, StopIteration) as error:
        return getattr(error, "code", lambda: None)()
    return None


def test_bytes_that_are_no_message_are_refused_by_every_method(client, service):
    client.create()
    before = client.notifications()
    for path, streaming in every_method(client):
        for data in (b"\xff" * 20, b"\x0a\xff\xff\xff\xff\x0f", b"\x07", b"\x0a\x05ab"):
            code = send_bytes(client, path, streaming, data)
            assert code not in (None, grpc.StatusCode.OK,
                                grpc.StatusCode.DEADLINE_EXCEEDED), (path, data)
    assert client.notifications() == before
    service.assert_alive()


def test_random_bytes_do_no_harm_to_any_method(client, service):
    chance = random.Random(20231)
    # A second observer of a slice ends the process, and two requests may name the same slice.
    paths = [entry for entry in every_method(client) if not entry[0].endswith("/observeCapConf")]
    for _ in range(40):
        for path, streaming in paths:
            data = chance.randbytes(chance.choice([0, 1, 2, 7, 64, 1000]))
            send_bytes(client, path, streaming, data, 0.3 if streaming else 5)
    service.assert_alive()
    client.create("svc", "T", "after")
    assert client.notifications(index=-1)[0].stateNotification.source == "after"


def test_a_request_of_five_megabytes_is_refused(client, service):
    for path, streaming in every_method(client):
        code = send_bytes(client, path, streaming, b"\x0a" + b"\0" * (5 << 20))
        assert code == grpc.StatusCode.RESOURCE_EXHAUSTED, path
    code, _ = failure_of(lambda: client.create(msg="x" * (5 << 20)))
    assert code == grpc.StatusCode.RESOURCE_EXHAUSTED
    assert nothing_stored(client)
    service.assert_alive()


def test_a_report_of_three_megabytes_is_kept(client):
    client.create(msg="x" * (3 << 20))
    assert len(client.notifications()[0].stateNotification.msg) == 3 << 20


@pytest.mark.parametrize("path", [
    "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/noSuchMethod",
    "/No.Such.Service/getCurrentState", "/", "/x"])
def test_an_unknown_method_is_not_implemented(client, service, path):
    code, _ = failure_of(lambda: client.channel.unary_unary(path)(b"", timeout=10))
    assert code == grpc.StatusCode.UNIMPLEMENTED
    service.assert_alive()


def test_a_unary_method_called_as_a_stream_and_the_other_way_round(client, service):
    name = "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/"
    unary_as_stream = client.channel.unary_stream(name + "getCurrentState")(b"", timeout=10)
    assert list(unary_as_stream) == [b""]
    code, _ = failure_of(lambda: client.channel.stream_unary(
        name + "createStateNotification")(iter([]), timeout=2))
    assert code == grpc.StatusCode.INTERNAL
    code, _ = failure_of(lambda: client.channel.unary_unary(
        name + "observeStateNotifications")(b"\x0a\x04/a/b", timeout=1))
    assert code == grpc.StatusCode.DEADLINE_EXCEEDED
    service.assert_alive()


def test_two_hundred_observers_at_once(service):
    writer = service.client()
    writer.create(msg="snapshot")
    clients = [service.client() for _ in range(8)]
    request = writer.protos.tree.ObserveReq(key_pattern="/state/notifications/archive/*")
    calls = [clients[number % 8].state.observeStateNotifications(request, timeout=60)
             for number in range(200)]
    for call in calls:
        assert list(next(call).node_change_map) == ["/state/notifications/archive/0000000000"]
    for number in range(1, 6):
        writer.create(msg=f"change {number}")
    for call in calls:
        for number in range(1, 6):
            assert list(next(call).node_change_map) == [
                f"/state/notifications/archive/{number:010d}"]
    for call in calls:
        call.cancel()
    service.assert_alive()
