"""Services and clients of authors, at work: the example beside the operator's tool, and both
observers while what they observe is killed."""
import re
import signal

from kit_sdk import PYTHON, ROOT, Program, is_serving, python_path, restart, run


def set_lamp(tool, name, percent):
    tool.ok("call", "setLamp", "-d", f'{{"name": "{name}", "lamp": {{"percent": {percent}}}}}')


def test_the_operators_tool_knows_the_example_without_its_proto(lamp_service, ctl):
    is_serving(ctl, lamp_service.address)
    tool = ctl(lamp_service.address)
    assert any(re.search(r"Lamp.LampService/setLamp +UPDATE +/lamps", line)
               for line in tool.ok("services").lines)
    watch = tool.start("watch", "/lamps/**")
    set_lamp(tool, "hall", 10)
    watch.out.wait_for_match(re.compile(r"^\+ /lamps/hall .*10"))
    refused = tool("call", "setLamp", "-d", '{"name": "a//b"}')
    assert (refused.status, '"a//b" cannot be a part of a key' in refused.err) == (3, True), refused
    assert lamp_service.end() == 0


def test_the_observer_of_the_example_reports_what_a_kill_has_changed(lamp, lamp_service, ctl):
    is_serving(ctl, lamp_service.address)
    tool = ctl(lamp_service.address)
    for name in ("a", "b", "c"):
        set_lamp(tool, name, 10)
    with Program(lamp / "lamp-observer", lamp_service.address) as observer:
        observer.lines.wait_for(*(f"/lamps/{name}: nothing -> 10 %" for name in "abc"))
        restart(lamp_service, ctl)
        observer.lines.wait_for(*(f"/lamps/{name}: 10 % -> nothing" for name in "abc"))
        set_lamp(tool, "a", 20)
        observer.lines.wait_for("/lamps/a: nothing -> 20 %")
        assert len(list(observer.lines)) == 7
        assert observer.end(signal.SIGINT) == 0


def test_the_observer_in_python_reports_what_a_kill_has_changed(prefix, monitor, ctl):
    is_serving(ctl, monitor.address)
    tool = ctl(monitor.address)
    for source in ("a", "b"):
        tool.ok("state", "report", f"me/T/{source}", "warn", "hello")
    before = "/state/notifications/latest/me/T/{}: nothing -> 1 hello"
    after = "/state/notifications/latest/me/T/{}: 1 hello -> nothing"
    with Program(PYTHON, ROOT / "examples/observer.py", monitor.address,
                 "/state/notifications/latest/me/**",
                 PYTHONPATH=python_path(prefix)) as observer:
        observer.lines.wait_for(before.format("a"), before.format("b"))
        restart(monitor, ctl)
        observer.lines.wait_for(after.format("a"), after.format("b"))
        tool.ok("state", "report", "me/T/a", "warn", "hello")
        observer.lines.wait_for(before.format("a"), times=2)
        assert len(list(observer.lines)) == 5
        assert observer.end(signal.SIGINT) == 0


def test_the_observer_in_python_says_how_it_is_used(prefix):
    done = run(PYTHON, ROOT / "examples/observer.py", check=False,
               env={"PYTHONPATH": python_path(prefix)})
    assert (done.returncode, done.stdout.splitlines()[-1]) == (
        1, "usage: observer.py <host:port> [<pattern>]")
