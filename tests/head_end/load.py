"""Who uses the head-end during a round: each is a thread that does one action after the other.

Which actions, and in which order, follows from the seed alone; how many there are in a round
depends on the machine.
"""
import math
import random
import threading
import time

import grpc
from google.protobuf import any_pb2, wrappers_pb2

from head_end.owned_slice import value_text
from head_end.processes import Failure
from head_end.registers import ABSENT
from kit import configuration
from kit.client import Stream
from kit.snmp_configuration import remove_manager, set_manager

_UNANSWERED = (grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.CANCELLED,
               grpc.StatusCode.DEADLINE_EXCEEDED)


def outcome(call, *args, **kwargs):
    """The begin and the end of a call, and whether it has certainly taken effect. Raises Failure if
    it was refused."""
    begin = time.monotonic()
    try:
        call(*args, **kwargs)
        return begin, time.monotonic(), True
    except grpc.RpcError as error:
        if error.code() not in _UNANSWERED:
            raise Failure(f"refused: {error.code()} {error.details()}") from None
        # What has been sent may yet be handled, as long as the process lives.
        return begin, math.inf, False


class Actor:
    """One user. head_end: see assembly.py."""

    #: Shortest and longest pause between two actions, in seconds.
    PAUSE = (0.01, 0.05)

    def __init__(self, head_end, name, seed):
        self.name = name
        self.head_end = head_end
        self.model = head_end.model
        self.random = random.Random(f"{seed}/{name}")
        self.number = 0
        self._thread = threading.Thread(target=self._run, name=name, daemon=True)

    def start(self):
        self._thread.start()

    def join(self, seconds):
        self._thread.join(seconds)
        if self._thread.is_alive():
            raise Failure(f"{self.name} still waits for an answer")

    def _run(self):
        try:
            while not self.head_end.is_ending.wait(self.random.uniform(*self.PAUSE)):
                self.number += 1
                self.act()
        except Exception as error:  # whatever it is, the round has failed
            self.head_end.fail(f"{self.name}: {error!r}" if not isinstance(error, Failure)
                               else f"{self.name}: {error}", error)
        finally:
            self.close()

    def note(self, what, result):
        self.head_end.note(self.name, what, result)

    def act(self):
        raise NotImplementedError

    def close(self):
        pass


def notification(client, chance, service, number):
    """A random report; its time stamp makes it unlike any other."""
    return client.notification(
        f"{service}-{chance.randrange(2)}",
        chance.choice(["Cap_TSState_Overload", "Cap_RFInput_TunerConfedNotLocked", "Other_Type"]),
        chance.choice(["a", "tuner/1", "sys/conf/update"]),
        chance.choice(["OK", "OK", "OK", "WARN", "ERROR"]),
        "x" * chance.choice([0, 10, 1000]), seconds=time.time_ns() // 10**9, nanos=number + 1,
        extended_info=chance.choice(["", "more"]))


def origin_of(note):
    return note.service_id, note.type, note.source


class Reporter(Actor):
    """Reports to one of the programs."""

    def __init__(self, head_end, program, seed):
        super().__init__(head_end, f"reporter of {program.name}", seed)
        self._program = program.name
        self._client = program.client()

    def act(self):
        note = notification(self._client, self.random, self._program, self.number)
        self.send(note)

    def send(self, note):
        request = self._client.protos.state.CreateStateNotificationReq(stateNotification=note)
        begin, end, is_certain = outcome(self._client.state.createStateNotification, request)
        self.model.report(self._program, origin_of(note), note.SerializeToString(), begin, end,
                          is_certain)
        self.note(f"{origin_of(note)} {note.severity}", is_certain)

    def close(self):
        self._client.close()


def random_value(chance):
    """A packed value of some kind and length."""
    packed = any_pb2.Any()
    kind = chance.randrange(5)
    if kind == 0:
        packed.type_url = "type.googleapis.com/vendor.Unknown"
        packed.value = chance.randbytes(chance.choice([0, 1, 300]))
    else:
        packed.Pack([None, wrappers_pb2.Int64Value(value=chance.randrange(-2**63, 2**63)),
                     wrappers_pb2.StringValue(value="☃" * chance.choice([0, 1, 2000])),
                     wrappers_pb2.BytesValue(value=chance.randbytes(chance.randrange(50))),
                     wrappers_pb2.StringValue(value=str(chance.random()))][kind])
    return value_text(packed)


class Owner(Actor):
    """Has the foreign service change its slices and report."""

    PAUSE = (0.005, 0.05)
    KEYS = ["/a", "/a/b", "/deep/er/and/deeper", "/snow/☃", "/list/1", "/list/2"]

    def __init__(self, head_end, seed):
        super().__init__(head_end, "owner", seed)
        self._foreign = head_end.foreign

    def act(self):
        if self.random.randrange(8) == 0:
            self._report()
        else:
            self.update(self.random.choice(self.head_end.capabilities),
                        self.random.randrange(4) != 0)

    def update(self, capability, is_patch):
        keys = self.random.sample(self.KEYS, self.random.randrange(1, len(self.KEYS)))
        changes = {key: random_value(self.random) for key in keys}
        if is_patch and self.random.randrange(2):
            changes[self.random.choice(self.KEYS)] = ABSENT
        answer = self._foreign.ask(self._is_over, command="update", capability=capability,
                                   changes=changes, is_patch=is_patch)
        result = answer and answer["outcome"]
        self.note(f"{capability} {'patch' if is_patch else 'whole'} {sorted(changes)}", result)
        return result

    def _report(self):
        client = self.head_end.observing_client
        note = notification(client, self.random, "foreign", self.number)
        request = client.protos.state.CreateStateNotificationReq(stateNotification=note)
        answer = self._foreign.ask(self._is_over, command="report",
                                   request=request.SerializeToString().hex(),
                                   report=(origin_of(note), note.SerializeToString()))
        result = answer and answer["outcome"]
        if result not in (None, "accepted", *(code.name for code in _UNANSWERED)):
            raise Failure(f"the report of the foreign service was refused: {result}")
        self.note(f"{origin_of(note)} {note.severity}", result)

    def _is_over(self):
        return self.head_end.has_failed


class Operator(Actor):
    """Saves, reverts, exports, imports and wipes the whole configuration of the store."""

    PAUSE = (0.1, 1.2)
    KINDS = ["save"] * 5 + ["discard"] * 3 + ["export"] * 2 + ["import"] * 2 + ["clear"]

    def __init__(self, head_end, seed):
        super().__init__(head_end, "operator", seed)
        self._client = head_end.store.client()

    def act(self):
        kind = self.random.choice(self.KINDS)
        if kind == "import" and self.head_end.package is None:
            kind = "export"
        begin, end, is_certain = outcome(getattr(self, f"_{kind}"))
        if kind != "export" or is_certain:
            self.model.operation(kind, begin, min(end, time.monotonic()), is_certain)
        self.note(kind, is_certain)

    def _save(self):
        configuration.save(self._client)

    def _discard(self):
        configuration.discard(self._client)

    def _clear(self):
        configuration.clear(self._client)

    def _export(self):
        self.head_end.package = configuration.export_package(self._client)

    def _import(self):
        configuration.import_package(self._client, self.head_end.package)

    def close(self):
        self._client.close()


class TrapConfigurator(Actor):
    """Sets and removes the manager of the traps at the system monitor."""

    PAUSE = (0.1, 0.5)

    def __init__(self, head_end, seed):
        super().__init__(head_end, "trap configurator", seed)
        self._client = head_end.monitor.client()

    def act(self):
        if self.random.randrange(5) == 0:
            begin, end, is_certain = outcome(remove_manager, self._client)
            self.model.trap_configuration_set(ABSENT, begin, end, is_certain)
            self.note("removed", is_certain)
        else:
            self.set()

    def set(self):
        """Returns the new configuration."""
        value = ("127.0.0.1", str(self.random.randrange(1024, 65536)), f"{self.random.random()}")
        begin, end, is_certain = outcome(set_manager, self._client, *value)
        self.model.trap_configuration_set(value, begin, end, is_certain)
        self.note(value, is_certain)
        return value

    def close(self):
        self._client.close()


class Observer(Actor):
    """Observes for a while, and checks that each change starts from what was there."""

    PAUSE = (0.01, 0.3)
    PATTERNS = ["/**", "/state/**", "/state/notifications/latest/**",
                "/state/notifications/archive/*", "/status", "/nothing/*"]

    def act(self):
        program = self.random.choice(self.head_end.programs)
        pattern = self.random.choice(self.PATTERNS)
        duration = self.random.uniform(0, 1)
        result = "nothing"
        with program.client() as client:
            stream = Stream(client.state.observeStateNotifications(
                client.protos.tree.ObserveReq(key_pattern=pattern), wait_for_ready=True,
                timeout=duration))
            content = {}
            for element in stream.rest(duration + 20):
                result = self._follow(content, element)
        self.note(f"{program.name} {pattern} {duration:.2f} s", result)

    @staticmethod
    def _follow(content, element):
        if element.observeStatus.statusCode != 0:
            raise Failure(f"an observer got {element.observeStatus}")
        for key, pairs in element.node_change_map.items():
            for pair in pairs.nodePairList:
                former = pair.prevMessage.value if pair.HasField("prevMessage") else None
                if content.get(key) != former:
                    raise Failure(f"the change of {key} does not start from what was there")
                content[key] = (pair.currentMessage.value if pair.HasField("currentMessage")
                                else None)
        return f"{len(content)} keys"


class Machine(Actor):
    """Lets units of the machine of the nodes fail and mends them."""

    PAUSE = (0.2, 2)

    def act(self):
        manager = self.head_end.manager
        manager.set_state("degraded" if manager.state == "running" else "running")
        self.note(manager.state, "")


class Chaos(Actor):
    """Ends the processes and starts them again."""

    PAUSE = (0.05, 0.5)

    def act(self):
        down = [process for process in self.head_end.processes if not process.is_up]
        for process in self.head_end.processes:
            process.check()
        up = [process for process in self.head_end.processes if process.is_up]
        if not up or (down and self.random.random() < 0.85):
            process, what = self.random.choice(down), "start"
        else:
            process = self.random.choice(up)
            what = self.random.choice(["kill", "kill", "terminate", "freeze"])
        self.note(f"{what} {process.name}", "")
        getattr(self, f"_{what}")(process)

    @staticmethod
    def _start(process):
        process.start()

    @staticmethod
    def _kill(process):
        process.kill()

    @staticmethod
    def _terminate(process):
        process.terminate()

    def _freeze(self, process):
        duration = self.random.uniform(0.05, 1.5)
        process.pause()
        try:
            self.head_end.is_ending.wait(duration)
        finally:
            process.resume()
