"""Services that are shut down again and again under load."""
import itertools
import os
import threading

import grpc
from google.protobuf import wrappers_pb2

from kit.client import Stream
from kit.wait import wait_until

#: How many services are started and shut down.
SHUTDOWNS = int(os.environ.get("HALVO_SHUTDOWNS", "5"))
CLIENTS = 10
STATE_STREAMS = 4  # of each client, besides one of a slice


class Load:
    """Fifty observers, and writers of both capabilities that continue until the service has ended.
    """

    def __init__(self, service):
        self._protos = service.protos
        clients = [service.client() for _ in range(CLIENTS)]
        self.streams = [client.observe("/state/**")
                        for client in clients for _ in range(STATE_STREAMS)]
        self.streams += [self._observe_slice(client, f"observed{number}")
                         for number, client in enumerate(clients)]
        self.calls = [0, 0, 0, 0]
        self.failures = []
        self._is_stopping = threading.Event()
        self._threads = [threading.Thread(target=self._write, args=(service.client(), number))
                         for number in range(len(self.calls))]
        for thread in self._threads:
            thread.start()

    def wait_until_in_full_flow(self):
        for stream in self.streams:
            stream.next()
        wait_until(lambda: self.failures or min(self.calls) >= 10, 30,
                   lambda: f"ten calls of each writer, {self.calls}")
        assert not self.failures

    def expect_the_end(self):
        """From here on a call may fail; must be called before the signal."""
        self._is_stopping.set()

    def join(self):
        for stream in self.streams:
            stream.rest()
        for thread in self._threads:
            thread.join(20)
            assert not thread.is_alive()
        assert not self.failures

    def _conf_id(self, capability):
        return self._protos.configuration.ConfId(nodeType="mb", nodeId="0", capabilityId=capability)

    def _observe_slice(self, client, capability):
        return Stream(client.configuration.observeCapConf(
            self._protos.configuration.ObserveCapConfReq(confId=self._conf_id(capability))))

    def _write(self, client, number):
        try:
            for call in itertools.count():
                if number % 2:
                    client.create(source=f"s{call % 20}", severity="ERROR", msg="x" * 1000)
                else:
                    client.configuration.updateCapConf(self._update(f"c{number}x{call}"))
                self.calls[number] += 1
        except (grpc.RpcError, ValueError) as error:  # the service or the channel is closed
            if not self._is_stopping.is_set():
                self.failures.append(error)

    def _update(self, capability):
        request = self._protos.configuration.UpdateCapConfReq(confId=self._conf_id(capability))
        for number in range(10):
            pair = request.capConfChangeset.node_change_map[f"/{number}"].nodePairList.add()
            pair.currentMessage.Pack(wrappers_pb2.StringValue(value="x" * 100))
        return request


def test_shutdowns_under_load_are_clean_and_in_time(start):
    for _ in range(SHUTDOWNS):
        service = start()
        load = Load(service)
        load.wait_until_in_full_flow()
        load.expect_the_end()
        service.stop()
        service.close()
        load.join()
        assert service.stderr == ""
