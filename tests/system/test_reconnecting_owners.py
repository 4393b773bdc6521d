"""The owner of a slice loses its connection and comes back immediately, before the service notices
the end of its previous stream."""
import os
import pathlib
import subprocess
import sys

import pytest

import kit
from kit.configuration import Slice
from kit.raw_client import DATA, RawClient

OWNER = pathlib.Path(kit.__file__).parent / "owner.py"
OBSERVE = "/Hox.Capability.Configuration.Api.ConfigurationService/observeCapConf"
#: Rounds of each test; 0 means the usual number. An earlier version, which treated such an owner as
#: a second one, ended within 240 rounds.
ROUNDS = int(os.environ.get("HALVO_RECONNECTS", "0"))


def requests(client, count):
    """Requests that observe `count` slices."""
    Slice(client, "c0").update({"/a": "1"})
    return [client.protos.configuration.ObserveCapConfReq(confId=Slice(client, f"c{number}").conf_id)
            for number in range(count)]


@pytest.mark.parametrize("slices", [1, 20])
def test_over_a_new_connection(service, client, slices):
    wanted = requests(client, slices)
    former = None
    for _ in range(ROUNDS or 300):
        if former:
            former.close()
        former = RawClient(service.port)
        for request in wanted:
            former.call(OBSERVE, request)
        former.wait_for_frames(DATA, slices)
    former.close()
    assert Slice(client, "c0").content() == {"/a": "1"}


@pytest.mark.parametrize("slices", [1, 20])
def test_after_it_was_killed(service, client, slices):
    command = [sys.executable, "-S", OWNER, str(service.port), OBSERVE,
               *[request.SerializeToString().hex() for request in requests(client, slices)]]

    def prepared():
        return subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    former, owner = None, prepared()
    for _ in range(ROUNDS or 100):
        following = prepared()
        if former:
            former.kill()
        owner.stdin.write("\n")
        owner.stdin.flush()
        assert owner.stdout.readline() == "there\n"
        if former:
            former.communicate()
        former, owner = owner, following
    for process in (former, owner):
        process.kill()
        process.communicate()
    service.assert_alive()


def test_the_capability_goes_on_while_a_newcomer_waits(service, client):
    slice_ = Slice(client)
    slice_.update({"/a": "1"})
    former = slice_.observe()
    former.next()
    newcomer = Slice(service.client()).observe()
    Slice(client, "other").update({"/b": "2"})
    former.cancel()
    assert set(newcomer.next().node_change_map) == {"/__csid", "/a"}


def test_newcomers_that_give_up_leave_no_trace(service, client):
    first = Slice(client).observe()
    first.next()
    for _ in range(50):
        newcomer = Slice(client).observe()
        newcomer.cancel()
    service.assert_alive()
    first.cancel()
    Slice(client).observe().next()
