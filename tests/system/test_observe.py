"""Observe streams: a snapshot first, then every change, in order, with old and new value."""
import pytest

LATEST = "/state/notifications/latest/"
ARCHIVE = "/state/notifications/archive/"


def pairs(element):
    """Key to its single pair of one stream element, after the checks that hold for each."""
    assert element.HasField("observeStatus")
    assert element.observeStatus.statusCode == 0
    assert element.observeStatus.errorMessage == ""
    found = {}
    for key, changes in element.node_change_map.items():
        pair, = changes.nodePairList
        assert (pair.createdIndex, pair.modifiedIndex) == (0, 0)
        found[key] = pair
    return found


def unpack(client, packed):
    stored = client.protos.state.StoredNotification()
    assert packed.type_url.endswith("/Hox.Capability.StateMonitoring.Api.StoredNotification")
    assert packed.Unpack(stored)
    return stored


def test_the_first_element_is_the_whole_matching_snapshot(client):
    for number in range(3):
        client.create(source=f"s{number}", msg=f"text {number}")
    found = pairs(client.observe("/state/**").next())
    assert sorted(found) == [ARCHIVE + f"{number:010d}" for number in range(3)] + [
        LATEST + f"svc/Test_Type/s{number}" for number in range(3)]
    for key, pair in found.items():
        assert not pair.HasField("prevMessage")
        assert unpack(client, pair.currentMessage).stateNotification.msg == f"text {key[-1]}"


def test_a_new_origin_comes_without_and_a_known_one_with_its_former_value(client):
    client.create(severity="ERROR", msg="first")
    stream = client.observe("/state/**")
    stream.next()
    client.create(severity="OK", msg="second")
    found = pairs(stream.next())
    assert sorted(found) == [ARCHIVE + "0000000001", LATEST + "svc/Test_Type/src"]
    latest = found[LATEST + "svc/Test_Type/src"]
    assert unpack(client, latest.prevMessage).stateNotification.msg == "first"
    new = unpack(client, latest.currentMessage)
    assert (new.index, new.stateNotification.msg) == (1, "second")
    assert new.previousStateSeverity.stateSeverity == 2
    archive = found[ARCHIVE + "0000000001"]
    assert not archive.HasField("prevMessage")
    assert unpack(client, archive.currentMessage) == new


def test_the_oldest_report_leaves_the_archive_in_the_same_change(client):
    for number in range(1000):
        client.create(source=f"s{number % 10}", msg=f"text {number}")
    stream = client.observe(ARCHIVE + "*")
    assert len(pairs(stream.next())) == 1000
    client.create(source="s0")
    found = pairs(stream.next())
    assert sorted(found) == [ARCHIVE + "0000000000", ARCHIVE + "0000001000"]
    gone = found[ARCHIVE + "0000000000"]
    assert not gone.HasField("currentMessage")
    assert unpack(client, gone.prevMessage).stateNotification.msg == "text 0"


def test_an_empty_tree_has_no_snapshot(client):
    stream = client.observe("/**")
    client.create(msg="first of all")
    # Whether the stream was opened before or after the report, this is its first element.
    found = pairs(stream.next())
    assert unpack(client, found[ARCHIVE + "0000000000"].currentMessage
                  ).stateNotification.msg == "first of all"


@pytest.mark.parametrize("pattern, expected", [
    ("/**", 4), ("/state/**", 4), ("/state/notifications/**", 4), ("/*/**", 4),
    ("/state/notifications/latest/**", 2), ("/state/notifications/latest/*/*/*", 1),
    ("/state/notifications/latest/*/*/*/*", 1), ("/state/notifications/archive/*", 2),
    ("/state/notifications/archive/0000000001", 1), ("/state/*/archive/*", 2),
    ("/state/notifications/latest/a/T/s", 1), ("/state/**/*", 4)])
def test_a_pattern_selects_keys(client, pattern, expected):
    client.create("a", "T", "s")
    client.create("b", "T", "s/deep")
    assert len(pairs(client.observe(pattern).next())) == expected


def test_changes_outside_the_pattern_are_not_delivered(client):
    stream = client.observe("/state/notifications/latest/mine/**")
    client.create("other", "T", "s")
    client.create("mine", "T", "s", msg="one")
    client.create("other", "T", "s")
    client.create("mine", "T", "s", msg="two")
    texts = []
    while not texts or texts[-1] != "two":
        found = pairs(stream.next())
        assert list(found) == [LATEST + "mine/T/s"]
        texts.append(unpack(client, found[LATEST + "mine/T/s"].currentMessage)
                     .stateNotification.msg)
    assert texts == ["one", "two"]


@pytest.mark.parametrize("pattern", ["/", "/none/**", "/state", "/State/**", "/snmp",
                                     "/state/notifications/latest/*"])
def test_a_pattern_that_selects_nothing_stays_silent(start, pattern):
    service = start()
    client = service.client()
    client.create()
    stream = client.observe(pattern)
    witness = client.observe("/**")
    witness.next()
    client.create()
    witness.next()
    service.stop()
    assert stream.rest() == []


def test_every_change_arrives_in_order_also_with_several_writers(service):
    reader = service.client()
    reader.create()
    stream = reader.observe(ARCHIVE + "*")
    stream.next()
    writers = [service.client() for _ in range(3)]
    calls = []
    for number in range(300):
        writer = writers[number % 3]
        create = writer.channel.unary_unary(
            "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/createStateNotification",
            request_serializer=lambda message: message.SerializeToString())
        calls.append(create.future(writer.protos.state.CreateStateNotificationReq(
            stateNotification=writer.notification(msg=str(number))), timeout=20))
    for number in range(300):
        assert list(pairs(stream.next())) == [ARCHIVE + f"{number + 1:010d}"]
    for call in calls:
        call.result()


def test_old_and_new_values_make_an_unbroken_chain(client):
    key = LATEST + "svc/Test_Type/src"
    client.create(msg="0")
    stream = client.observe(key)
    last = unpack(client, pairs(stream.next())[key].currentMessage)
    for number in range(1, 101):
        client.create(msg=str(number))
    for number in range(1, 101):
        pair = pairs(stream.next())[key]
        assert unpack(client, pair.prevMessage) == last
        last = unpack(client, pair.currentMessage)
        assert last.stateNotification.msg == str(number)


def test_a_slow_reader_loses_nothing_and_gets_each_change_by_itself(service):
    client = service.client()
    client.create(msg="snapshot")
    slow = client.state.observeStateNotifications(
        client.protos.tree.ObserveReq(key_pattern=ARCHIVE + "*"))
    pairs(next(slow))
    # Much more than the connection's flow control accepts while nobody reads.
    for number in range(1, 301):
        client.create(msg="x" * 10000, extended_info=str(number))
    for number in range(1, 301):
        found = pairs(next(slow))
        assert list(found) == [ARCHIVE + f"{number:010d}"]
        stored = unpack(client, found[ARCHIVE + f"{number:010d}"].currentMessage)
        assert stored.stateNotification.extendedInfo == str(number)
    slow.cancel()


def test_observers_of_one_client_are_independent(client):
    client.create("a", "T", "s")
    client.create("b", "T", "s")
    one = client.observe(LATEST + "a/**")
    two = client.observe(LATEST + "b/**")
    assert list(pairs(one.next())) == [LATEST + "a/T/s"]
    assert list(pairs(two.next())) == [LATEST + "b/T/s"]
    one.cancel()
    client.create("b", "T", "s")
    assert list(pairs(two.next())) == [LATEST + "b/T/s"]


def test_a_client_that_comes_late_sees_the_present_only(client):
    client.create(msg="old")
    client.create(msg="new")
    key = LATEST + "svc/Test_Type/src"
    found = pairs(client.observe(LATEST + "**").next())
    assert list(found) == [key]
    stored = unpack(client, found[key].currentMessage)
    assert stored.stateNotification.msg == "new"
    assert not found[key].HasField("prevMessage")
