"""Starts a service with a bus and an mDNS daemon of its own, finds it on the network, reports the
package log of this machine to it and shows the result; then takes the machine's configuration files
through the store, and at last puts a small head-end together."""
import json
import os
import pathlib
import sys
import tempfile
import time

from kit.namespaces import enter_private_network

try:
    enter_private_network()  # before the first thread of gRPC
except OSError as error:
    raise SystemExit(f"demo: {error}") from None

import demo_configuration  # noqa: E402
import demo_discovery  # noqa: E402
import demo_head_end  # noqa: E402
import package_log  # noqa: E402
from demo_show import Operator, check, headline, start_process  # noqa: E402
from kit.daemons import Bus, MdnsDaemon  # noqa: E402
from kit.protos import Protos, install_module  # noqa: E402
from kit.service import Service  # noqa: E402

SHOWN = 8


def clock(seconds):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds))


def expected_latest(reports):
    """Origin to the index of its last report."""
    return {(report.kind, report.source): index for index, report in enumerate(reports)}


def expected_state(reports):
    severities = {reports[index].severity for index in expected_latest(reports).values()}
    return next((name for name in ("ERROR", "WARN") if name in severities), "OK")


def feed(client, reports):
    for report in reports:
        client.create(package_log.SERVICE, report.kind, report.source, report.severity,
                      report.text, report.seconds)


def show_stream(lines, reports):
    headline("What the observer in the second process saw (first and last changes)")
    for number, line in enumerate(lines):
        if number < SHOWN // 2 or number >= len(lines) - SHOWN // 2:
            change = f"{line['old'] or '-':>7} -> {line['new']:<7}"
            print(f"  #{line['index']:<4} {change}  {line['text']}")
        elif number == SHOWN // 2:
            print(f"  ... {len(lines) - SHOWN} more ...")
    check([line["index"] for line in lines] == list(range(len(reports))),
          "the observer missed a change or got one out of order")
    former = {}
    for line, report in zip(lines, reports):
        origin = report.kind, report.source
        check((line["text"], line["new"]) == (report.text, report.severity),
              f"the observer got {line} for {report}")
        check(line["old"] == former.get(origin), f"a wrong former value: {line}")
        former[origin] = report.severity


def show_state(operator, reports):
    headline("What the operator sees")
    state = operator("state")
    check(state.out.startswith(f"{expected_state(reports):<7}"),
          f"it should be {expected_state(reports)}")


def check_latest(client, reports):
    answer = client.latest()
    check(answer.latestStateNotificationIndex == len(reports), "a wrong index")
    check({(entry.stateNotification.type, entry.stateNotification.source): entry.index
           for entry in answer.stateList} == expected_latest(reports), "a wrong latest table")
    check(not client.latest(fromIndex=len(reports)).stateList,
          "the table came again although nothing was new")


def show_last_reports(operator, reports):
    lines = operator("state", "list", "--last", SHOWN).lines[1:]
    wanted = [report.text for report in reports[-SHOWN:]]
    check(len(lines) == len(wanted) and all(map(str.endswith, map(str.rstrip, lines), wanted)),
          "wrong last reports")


def run_reports(folder, protos, bus, count):
    reports, origin = package_log.read(count)
    check(reports, "this machine has no packages")
    service = Service(protos, folder / "service", service_id="demo-1")
    watcher = None
    try:
        service.wait_ready()
        print(f"halvo-system runs on {service.address}: "
              f"published and ready after {service.ready_seconds:.2f} s.")
        demo_discovery.show_instances(service, bus)
        client = service.client()
        feed(client, reports[:1])
        module = install_module(folder / "watcher")
        watcher = start_process("demo_watch.py", module, service, len(reports))
        snapshot = watcher.stdout.readline()  # from now on the watcher gets every change
        feed(client, reports[1:])
        print(f"\nFed {len(reports)} reports from {origin}, "
              f"{clock(reports[0].seconds)} to {clock(reports[-1].seconds)}.")
        changes, _ = watcher.communicate(timeout=60)
        lines = (snapshot + changes).splitlines()
        show_stream([json.loads(line) for line in lines], reports)
        operator = Operator(service)
        show_state(operator, reports)
        show_last_reports(operator, reports)
        check_latest(client, reports)
        demo_discovery.show_end(service, bus)
    finally:
        if watcher is not None and watcher.poll() is None:
            watcher.kill()
            watcher.wait()
        service.close()


def main():
    # The archive keeps a thousand reports; the demo shows the kept ones.
    count = min(int(sys.argv[1]) if len(sys.argv) > 1 else 240, 1000)
    with tempfile.TemporaryDirectory(prefix="halvo-demo-") as folder:
        out = pathlib.Path(folder)
        (out / "generated").mkdir()
        with Bus(out / "bus") as bus, MdnsDaemon(bus, out / "bus"):
            os.environ.update(bus.environment)
            protos = Protos(out / "generated")
            run_reports(out, protos, bus, count)
            demo_configuration.run(out)
            demo_head_end.run(out, protos)
        print("\nAll of the above was checked.")


if __name__ == "__main__":
    main()
