"""The operator's tool follows the changes of a service's tree."""
import json
import re
import signal

import pytest
from kit.ctl import Ctl
from kit.memory import is_sanitized
from kit.wait import wait_until

LATEST = "/state/notifications/latest/"
ARCHIVE = "/state/notifications/archive/"


def resident_bytes(process):
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith("VmRSS"))


def wait_for_line(running, text):
    return running.out.wait_for_match(re.compile(re.escape(text)))


def test_a_session(ctl, client):
    client.create("tuner-1", "Cap_Tuner_Lock", "input/3", msg="lock found", seconds=1)
    watch = ctl.start("watch", LATEST + "tuner-1/**", "-n", "2")
    wait_for_line(watch, "+ ")
    for _ in range(7):
        client.create("other")
    client.create("tuner-1", "Cap_Tuner_Lock", "input/3", "ERROR", msg="lock lost again",
                  seconds=1)
    assert watch.wait() == 0
    assert list(watch.out) == [
        '+ /state/notifications/latest/tuner-1/Cap_Tuner_Lock/input/3 {"index":0,'
        '"stateNotification":{"severity":"OK","service_id":"tuner-1","type":"Cap_Tuner_Lock",'
        '"source":"input/3","msg":"lock found","extendedInfo":"",'
        '"timeStamp":"1970-01-01T00:00:01Z"}}',
        "~ /state/notifications/latest/tuner-1/Cap_Tuner_Lock/input/3",
        "    ~ index: 0 -> 8",
        "    ~ stateNotification.severity: OK -> ERROR",
        '    ~ stateNotification.msg: "lock found" -> "lock lost again"',
    ]
    assert not list(watch.err)


def test_a_removed_key_shows_its_last_value(ctl, client):
    for number in range(1000):
        client.create(msg=str(number))
    watch = ctl.start("watch", ARCHIVE + "*", "--no-snapshot", "-n", "2")
    wait_until(lambda: client.create() and list(watch.out), what="a change")
    assert watch.wait() == 0
    gone, new = list(watch.out)
    assert gone.startswith(f"- {ARCHIVE}0000000") and '"msg":"' in gone
    assert new.startswith(f"+ {ARCHIVE}0000001")


def test_whole_values_on_demand(ctl, client):
    client.create("a", "T", "s")
    watch = ctl.start("watch", LATEST + "a/**", "-n", "2", "--full")
    wait_for_line(watch, "+ ")
    client.create("a", "T", "s")
    assert watch.wait() == 0
    assert list(watch.out)[1].startswith(f'~ {LATEST}a/T/s {{"index":1,')
    assert list(watch.out)[2:] == ["    ~ index: 0 -> 1"]


def test_nothing_matches_yet(ctl, client):
    watch = ctl.start("watch", LATEST + "late/**", "-n", "1")
    watch.err.wait_for("halvoctl: nothing matches yet")
    client.create("late", "T", "s")
    assert watch.wait() == 0
    assert list(watch.out)[0].startswith(f"+ {LATEST}late/T/s ")


def test_json_lines_and_a_command_for_each_change(ctl, client, tmp_path):
    client.create("a", "T", "s")
    watch = ctl.start("watch", LATEST + "a/**", "-n", "2", "-o", "jsonl", "--exec",
                      f"cat >>{tmp_path}/changes")
    wait_for_line(watch, "ADDED")
    client.create("a", "T", "s", "WARN")
    assert watch.wait() == 0
    changes = [json.loads(line) for line in watch.out]
    assert [change["kind"] for change in changes] == ["ADDED", "CHANGED"]
    assert changes[1]["previous"]["stateNotification"] == changes[0]["current"]["stateNotification"]
    assert {"kind": "CHANGED", "path": "stateNotification.severity", "previous": "OK",
            "current": "WARN"} in changes[1]["fields"]
    assert (tmp_path / "changes").read_text().splitlines() == list(watch.out)


def test_a_recording_is_replayed_without_the_service(ctl, client, tmp_path):
    client.create("a", "T", "s")
    record = tmp_path / "record"
    watch = ctl.start("watch", LATEST + "a/**", "-n", "2", "--record", record)
    wait_for_line(watch, "+ ")
    client.create("a", "T", "s", "WARN")
    assert watch.wait() == 0
    assert Ctl("localhost:1").ok("replay", record).lines == list(watch.out)


def test_several_services_at_once(start):
    one, other = start(), start()
    for service in (one, other):
        service.client().create("a", "T", "s")
    ctl = Ctl(one.address)
    result = ctl("watch", LATEST + "**", "-e", other.address, "-n", "2")
    assert result.status == 0
    assert sorted(line.split(" {")[0] for line in result.lines) == sorted(
        f"{service.address} + {LATEST}a/T/s" for service in (one, other))


@pytest.mark.parametrize("words", [
    ("a",), ("/a/",), ("/a*",), ("/**/**",), ("/**/a",), ("/.x.",), ("",),
    ("/**", "--service", "NoSuchService"), ("/**", "--for", "soon"),
    ("/**", "--record", "/nonexistent/x")], ids=range(10))
def test_a_refused_input_is_not_sent(ctl, service, words):
    result = ctl("watch", *words)
    assert result.status == 1 and not result.out and result.err.startswith("halvoctl: "), result
    service.assert_alive()


def test_exit_statuses(ctl, service):
    assert Ctl("localhost:1")("watch").status == 2
    assert ctl("watch", "--for", "10ms").status == 0
    watch = ctl.start("watch", "/nothing")
    watch.err.wait_for("halvoctl: nothing matches yet")
    assert watch.interrupt() == 130
    assert not list(watch.out)
    service.signal(signal.SIGSTOP)
    try:
        assert ctl("watch", "--timeout", "200ms").status == 2
    finally:
        service.signal(signal.SIGCONT)


def test_a_service_that_is_killed_and_back_costs_no_line_and_repeats_none(start, tmp_path):
    first = start()
    before = first.client()
    before.create("kept", "T", "s", msg="same")
    before.create("changed", "T", "s", msg="one")
    before.create("forgotten", "T", "s")
    ctl = Ctl(first.address)
    watch = ctl.start("watch", LATEST + "**")
    for name in ("kept", "changed", "forgotten"):
        wait_for_line(watch, f"+ {LATEST}{name}/T/s ")
    shown = len(list(watch.out))
    first.signal(signal.SIGKILL)
    first.wait_end()
    watch.err.wait_for_match(re.compile("halvoctl: lost "))
    watch.process.send_signal(signal.SIGSTOP)  # it comes back after the reports
    second = start(port=first.port)
    after = second.client()
    after.create("kept", "T", "s", msg="same")
    after.create("changed", "T", "s", msg="two")
    after.create("new", "T", "s")
    watch.process.send_signal(signal.SIGCONT)
    watch.err.wait_for_match(re.compile("halvoctl: connected to .* again"))
    wait_for_line(watch, f"+ {LATEST}new/T/s ")
    wait_for_line(watch, f"- {LATEST}forgotten/T/s gone")
    assert watch.interrupt() == 130
    later = list(watch.out)[shown:]
    assert [line for line in later if "kept" in line] == []
    assert '    ~ stateNotification.msg: "one" -> "two"' in later
    assert len([line for line in later if not line.startswith(" ")]) == 3


def test_a_service_that_comes_back_empty_has_lost_everything(start):
    first = start()
    first.client().create("a", "T", "s")
    watch = Ctl(first.address).start("watch", LATEST + "**")
    wait_for_line(watch, "+ ")
    first.signal(signal.SIGKILL)
    first.wait_end()
    start(port=first.port)
    wait_for_line(watch, f"- {LATEST}a/T/s gone")
    assert watch.interrupt() == 130
    assert len(list(watch.out)) == 2


def test_ten_thousand_fast_changes_arrive_in_order_with_flat_memory(ctl, service):
    client = service.client()
    client.create("a", "T", "s", msg="0")
    watch = ctl.start("watch", LATEST + "a/**", "-o", "jsonl")
    wait_for_line(watch, "ADDED")
    create = client.channel.unary_unary(
        "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/createStateNotification",
        request_serializer=lambda message: message.SerializeToString())

    def send(numbers):
        calls = [create.future(client.protos.state.CreateStateNotificationReq(
            stateNotification=client.notification("a", "T", "s", msg=str(number))))
            for number in numbers]
        for call in calls:
            call.result(20)
        wait_until(lambda: len(list(watch.out)) == numbers[-1] + 1, 20, "all changes")

    send(range(1, 2001))
    before = resident_bytes(watch.process)
    send(range(2001, 10001))
    grown = resident_bytes(watch.process) - before
    assert watch.interrupt() == 130
    indices = [json.loads(line)["current"]["index"] for line in watch.out]
    assert indices == sorted(indices) and len(set(indices)) == 10001
    assert is_sanitized() or grown < 2 << 20, grown
