"""A system monitor notices that a node is silent because its network is gone."""
import os

import pytest

from kit.monitors import (LOST, error_lines, reports, states, wait_for_states,
                          wait_until_connected)
from kit.wait import wait_until

#: How long a silent connection may be taken for a good one, in seconds: a ping every 30 s, which has
#: to be answered within 20 s.
NOTICED = 90

pytestmark = pytest.mark.skipif(
    os.environ.get("HALVO_PULLED_CABLE") != "1",
    reason="takes as long as a silent peer is not noticed: set HALVO_PULLED_CABLE=1")


def texts(client):
    return [report.msg for report in reports(client)]


def test_a_node_without_a_network_is_not_connected_and_is_heard_again_with_it(start, node):
    node.wait_until_active()
    node.continue_boot()
    monitor = start("--sys_mon", "--statemon_services", node.url)
    client = monitor.client()
    wait_until_connected(client)
    wait_until(lambda: texts(client) == ["System booted."], 20, "the boot")

    node.unplug()
    assert states(client) == ["CONNECTED"], "no packet tells of a pulled cable"
    node.fail()
    wait_until(lambda: node.state() == "degraded", what="the failure")
    wait_for_states(client, "CONNECTING", seconds=NOTICED)
    assert error_lines(monitor) == [LOST.format(node.url)]
    assert texts(client) == ["System booted."]

    node.plug()
    wait_until_connected(client)
    wait_until(lambda: texts(client)[1:] == ["System booted.", "Internal system failure."], 20,
               lambda: f"the failure among {texts(client)}")
    assert client.current_state() == "ERROR"
    node.mend()
    wait_until(lambda: client.current_state() == "OK", 20, "the end of the failure")
    assert error_lines(monitor) == [LOST.format(node.url)]
