"""The store of notifications, read back by every method."""
import grpc
import pytest


def severity_name(client, value):
    return client.protos.state.StateSeverity.Name(value)


def stamp(client, seconds, nanos=0):
    return client.notification(seconds=seconds, nanos=nanos).timeStamp


def indexes(stored):
    return [entry.index for entry in stored]


def test_an_empty_store(client):
    assert client.notifications() == []
    assert client.notifications(index=-5) == []
    assert client.notifications(timeStamp=stamp(client, 1)) == []
    assert client.latest().latestStateNotificationIndex == 0
    assert list(client.latest().stateList) == []
    assert client.current_state() == "OK"


def test_a_report_is_kept_as_it_was_sent(client):
    note = client.create("svc-1", "Cap_Test", "sys/conf/update", "WARN", "a text", 1700000000, 42,
                         "more")
    stored, = client.notifications()
    assert stored.stateNotification == note
    assert stored.index == 0
    assert not stored.HasField("previousStateSeverity")
    assert list(client.latest().stateList) == [stored]


def test_the_time_stamp_is_the_senders_or_absent(client):
    client.create()
    assert not client.notifications()[0].stateNotification.HasField("timeStamp")


def test_by_index_the_answer_is_newest_first(client):
    for number in range(10):
        client.create(source=f"s{number}")
    assert indexes(client.notifications()) == list(range(9, -1, -1))
    assert indexes(client.notifications(index=0)) == list(range(9, -1, -1))
    assert indexes(client.notifications(index=7)) == [9, 8, 7]
    assert indexes(client.notifications(index=9)) == [9]


@pytest.mark.parametrize("index", [10, 11, 1000, 2147483647])
def test_an_index_above_the_newest_gives_nothing(client, index):
    for number in range(10):
        client.create(source=f"s{number}")
    assert client.notifications(index=index) == []


@pytest.mark.parametrize("index, expected", [
    (-1, [9]), (-3, [9, 8, 7]), (-10, list(range(9, -1, -1))), (-11, list(range(9, -1, -1))),
    (-2147483648, list(range(9, -1, -1)))])
def test_a_negative_index_means_that_many_of_the_newest(client, index, expected):
    for number in range(10):
        client.create(source=f"s{number}")
    assert indexes(client.notifications(index=index)) == expected


def test_a_negative_index_counts_what_passes_the_filter(client):
    for number in range(20):
        client.create(type="Even" if number % 2 == 0 else "Odd", source=f"s{number}")
    assert indexes(client.notifications(index=-5, typeRegEx="Even")) == [18, 16, 14, 12, 10]
    assert indexes(client.notifications(index=-5, typeRegEx="^Odd$")) == [19, 17, 15, 13, 11]
    assert indexes(client.notifications(index=-50, typeRegEx="Even")) == list(range(18, -1, -2))


def test_by_time_the_answer_is_oldest_first(client):
    for number, second in enumerate([50, 10, 30, 30, 20]):
        client.create(source=f"s{number}", seconds=second, nanos=number)
    assert indexes(client.notifications(timeStamp=stamp(client, 10))) == [0, 1, 2, 3, 4]
    assert indexes(client.notifications(timeStamp=stamp(client, 30))) == [0, 2, 3]
    assert indexes(client.notifications(timeStamp=stamp(client, 30, 2))) == [0, 2, 3]
    assert indexes(client.notifications(timeStamp=stamp(client, 30, 3))) == [0, 3]
    assert indexes(client.notifications(timeStamp=stamp(client, 50, 1))) == []


def test_a_report_without_time_counts_as_time_zero(client):
    client.create(source="none")
    client.create(source="some", seconds=5)
    assert indexes(client.notifications(timeStamp=stamp(client, 0))) == [0, 1]
    assert indexes(client.notifications(timeStamp=stamp(client, 0, 1))) == [1]


def test_by_time_and_type(client):
    for number in range(6):
        client.create(type=f"Type{number % 3}", source=f"s{number}", seconds=number + 1)
    chosen = client.notifications(timeStamp=stamp(client, 3), typeRegEx="Type[12]")
    assert indexes(chosen) == [2, 4, 5]


@pytest.mark.parametrize("expression, expected", [
    ("", ["Alpha", "Alphabet", "beta"]),
    ("Alpha", ["Alpha", "Alphabet"]),
    ("^Alpha$", ["Alpha"]),
    ("lph", ["Alpha", "Alphabet"]),
    ("bet", ["Alphabet", "beta"]),
    ("ALPHA", []),
    ("^(Alpha|beta)$", ["Alpha", "beta"]),
    ("a{1}$", ["Alpha", "beta"]),
    (".", ["Alpha", "Alphabet", "beta"]),
    (r"\d", []),
])
def test_the_type_filter_searches_anywhere_in_the_type(client, expression, expected):
    for name in ("Alpha", "Alphabet", "beta"):
        client.create(type=name)
    found = [entry.stateNotification.type for entry in client.notifications(typeRegEx=expression)]
    assert found == list(reversed(expected))


def test_the_type_filter_may_refer_back_to_its_groups(client):
    for name in ("Disk_Disk", "Disk_Disc", "Fan_Fan"):
        client.create(type=name)
    found = [entry.stateNotification.type
             for entry in client.notifications(typeRegEx=r"^(\w+)_\1$")]
    assert found == ["Fan_Fan", "Disk_Disk"]


def test_the_latest_table_holds_one_entry_per_origin_in_key_order(client):
    for service, kind, source in [("b", "T", "s"), ("a", "T", "s/2"), ("a", "T", "s"),
                                  ("a", "S", "s"), ("b", "T", "s")]:
        client.create(service, kind, source)
    answer = client.latest()
    assert answer.latestStateNotificationIndex == 5
    assert [(entry.stateNotification.service_id, entry.stateNotification.type,
             entry.stateNotification.source, entry.index) for entry in answer.stateList] == [
        ("a", "S", "s", 3), ("a", "T", "s", 2), ("a", "T", "s/2", 1), ("b", "T", "s", 4)]


def test_a_poller_gets_the_whole_table_only_when_something_is_new(client):
    client.create(source="one")
    client.create(source="two")
    first = client.latest()
    assert (first.latestStateNotificationIndex, len(first.stateList)) == (2, 2)
    again = client.latest(fromIndex=2)
    assert (again.latestStateNotificationIndex, len(again.stateList)) == (2, 0)
    client.create(source="two")
    after = client.latest(fromIndex=2)
    assert (after.latestStateNotificationIndex, len(after.stateList)) == (3, 2)
    assert len(client.latest(fromIndex=-1).stateList) == 2
    assert len(client.latest(fromIndex=99).stateList) == 0


def test_change_sets_of_the_latest_table_are_not_supported(client):
    client.create()
    with pytest.raises(grpc.RpcError) as failure:
        client.latest(changeSetOnly=True)
    assert failure.value.code() == grpc.StatusCode.UNIMPLEMENTED
    assert failure.value.details() == "Changeset is not supported"


def test_the_former_severity_of_the_same_origin_is_kept_with_the_report(client):
    for severity in ("ERROR", "OK", "BOOTING"):
        client.create(severity=severity)
    client.create(source="another", severity="WARN")
    newest, *former, oldest = client.notifications()
    assert not newest.HasField("previousStateSeverity")
    assert [severity_name(client, entry.previousStateSeverity.stateSeverity)
            for entry in former] == ["OK", "ERROR"]
    assert not oldest.HasField("previousStateSeverity")


def test_a_former_severity_of_ok_is_present_all_the_same(client):
    client.create(severity="OK")
    client.create(severity="ERROR")
    assert client.notifications()[0].HasField("previousStateSeverity")


@pytest.mark.parametrize("severities, expected", [
    ([], "OK"), (["OK"], "OK"), (["BOOTING"], "OK"), (["OK", "WARN"], "WARN"),
    (["WARN", "BOOTING"], "WARN"), (["WARN", "ERROR"], "ERROR"), (["ERROR", "WARN"], "ERROR"),
    (["ERROR", "OK", "BOOTING", "WARN"], "ERROR")])
def test_the_current_state_is_the_worst_of_the_latest(client, severities, expected):
    for number, severity in enumerate(severities):
        client.create(source=f"s{number}", severity=severity)
    assert client.current_state() == expected


def test_the_current_state_follows_each_origin(client):
    client.create(source="one", severity="ERROR")
    client.create(source="two", severity="WARN")
    assert client.current_state() == "ERROR"
    client.create(source="one", severity="OK")
    assert client.current_state() == "WARN"
    client.create(source="two", severity="BOOTING")
    assert client.current_state() == "OK"


def test_the_archive_keeps_the_last_thousand(client):
    for number in range(1000):
        client.create(source=f"s{number}")
    assert indexes(client.notifications()) == list(range(999, -1, -1))
    client.create(source="s1000")
    assert indexes(client.notifications()) == list(range(1000, 0, -1))
    assert indexes(client.notifications(index=0)) == list(range(1000, 0, -1))
    assert indexes(client.notifications(index=-1)) == [1000]
    assert indexes(client.notifications(timeStamp=stamp(client, 0)))[0] == 1
    answer = client.latest()
    assert answer.latestStateNotificationIndex == 1001
    assert len(answer.stateList) == 1001  # the table of origins has no such limit


def test_an_error_of_an_origin_outlives_the_archive(client):
    client.create(source="broken", severity="ERROR")
    for _ in range(1000):
        client.create(source="noise")
    assert all(entry.stateNotification.source == "noise" for entry in client.notifications())
    assert client.current_state() == "ERROR"


def test_an_unknown_severity_is_kept_and_counts_as_none(client):
    note = client.notification()
    note.severity = 77
    client.state.createStateNotification(
        client.protos.state.CreateStateNotificationReq(stateNotification=note))
    assert client.notifications()[0].stateNotification.severity == 77
    assert client.current_state() == "OK"


def test_the_state_of_connections_is_empty(client):
    answer = client.state.getStatus(client.protos.state.GetStateMonitorStatusReq())
    assert answer.HasField("monitorStatus")
    assert list(answer.monitorStatus.stateMonitorConnectionStatus) == []


def test_texts_outside_ascii_survive(client):
    client.create("köln", "Prüfung", "空/間", msg="☃")
    stored, = client.notifications(typeRegEx="Prüf")
    assert (stored.stateNotification.service_id, stored.stateNotification.msg) == ("köln", "☃")


def test_writers_at_the_same_time_get_every_index_once(service):
    clients = [service.client() for _ in range(4)]
    calls = []
    for number in range(400):
        client = clients[number % 4]
        create = client.channel.unary_unary(
            "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/createStateNotification",
            request_serializer=lambda message: message.SerializeToString())
        calls.append(create.future(client.protos.state.CreateStateNotificationReq(
            stateNotification=client.notification(source=f"s{number}")), timeout=20))
    for call in calls:
        call.result()
    stored = clients[0].notifications()
    assert indexes(stored) == list(range(399, -1, -1))
    assert {entry.stateNotification.source for entry in stored} == {
        f"s{number}" for number in range(400)}
