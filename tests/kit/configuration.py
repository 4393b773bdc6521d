"""A foreign service that keeps its configuration in the store."""
import json

from google.protobuf import wrappers_pb2

from kit.client import Stream

STATE_ID = "/__csid"


class Slice:
    """The slice mb/0/<capability> as used by its owner."""

    def __init__(self, client, capability="tuner"):
        self.client = client
        self.protos = client.protos
        self.conf_id = self.protos.configuration.ConfId(
            nodeType="mb", nodeId="0", capabilityId=capability)
        self.state_id = ""

    def update(self, values=None, removed=(), patch=True, state_id=None):
        """Pushes values (key to text), keeps and returns the new state id."""
        request = self.protos.configuration.UpdateCapConfReq(
            confId=self.conf_id, isPatch=patch,
            lastCapConfStateId=self.state_id if state_id is None else state_id)
        for key, text in (values or {}).items():
            pair = request.capConfChangeset.node_change_map[key].nodePairList.add()
            pair.currentMessage.Pack(wrappers_pb2.StringValue(value=text))
        for key in removed:
            request.capConfChangeset.node_change_map[key].nodePairList.add()
        self.state_id = self.client.configuration.updateCapConf(request).capConfStateId
        return self.state_id

    def observe(self, state_id=""):
        request = self.protos.configuration.ObserveCapConfReq(
            confId=self.conf_id, lastCapConfStateId=state_id)
        return Stream(self.client.configuration.observeCapConf(request))

    def content(self):
        """All values of the slice except its state id, as a new observer gets them."""
        found = self._everything()
        found.pop(STATE_ID, None)
        return found

    def learn(self):
        """Takes over the state id of the store, so that the next update is not refused."""
        self.state_id = json.loads(self._everything()[STATE_ID])["value"]
        return self

    def _everything(self):
        stream = self.observe("no such id")
        found = texts(stream.next())
        stream.cancel()
        return found


def texts(element):
    """Key to text (None for a removed key) of one element, which must be OK."""
    assert element.observeStatus.statusCode == 0, element.observeStatus
    found = {}
    for key, changes in element.node_change_map.items():
        value = wrappers_pb2.StringValue()
        pair = changes.nodePairList[0]
        assert not pair.HasField("currentMessage") or pair.currentMessage.Unpack(value)
        found[key] = value.value if pair.HasField("currentMessage") else None
    return found


def _call(client, member, value):
    update = client.protos.configuration.UpdateType(**{member: value})
    client.configuration.updateSysConf(
        client.protos.configuration.UpdateSysConfReq(update_type=update))


def save(client):
    """Makes the working copy the saved copy."""
    _call(client, "saveChanges", False)


def discard(client):
    """Makes the saved copy the working copy."""
    _call(client, "discardChanges", False)


def clear(client):
    """Wipes both copies and the programme guide."""
    _call(client, "clearConfiguration", False)


def import_package(client, package):
    """Replaces both copies."""
    _call(client, "sysConfData", package)


def export_package(client):
    """The saved copy as one package."""
    return client.configuration.getSysConf(client.protos.configuration.GetSysConfReq()).sysConfData
