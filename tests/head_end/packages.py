"""The content of an exported package."""
import base64
import io
import json
import tarfile

from google.protobuf import any_pb2, json_format

from head_end.owned_slice import fingerprint, state_id_of, value_text
from head_end.slices import Version
from kit.configuration import STATE_ID

_ROOT = "sys/conf/mb/0/"


def _packed(text):
    """The value that a file has, in JSON."""
    value = json.loads(text)
    packed = any_pb2.Any()
    if "@bytes" in value:
        packed.type_url = value["@type"]
        packed.value = base64.b64decode(value["@bytes"])
    elif set(value) == {"@type"}:  # without bytes; Python's library would not take it
        packed.type_url = value["@type"]
    else:
        json_format.Parse(text, packed)
    return packed


def slices_of(package):
    """The capability of each slice to its values and its state id."""
    values, state_ids = {}, {}
    with tarfile.open(fileobj=io.BytesIO(package)) as archive:
        for entry in archive:
            name = entry.name.removeprefix("./")
            if not entry.isfile() or not name.startswith(_ROOT):
                continue
            capability, _, key = name.removeprefix(_ROOT).removesuffix("/data").partition("/")
            packed = _packed(archive.extractfile(entry).read())
            if f"/{key}" == STATE_ID:
                state_ids[capability] = state_id_of(packed)
            else:
                values.setdefault(capability, {})[f"/{key}"] = value_text(packed)
    return {capability: (values.get(capability, {}), state_ids.get(capability, ""))
            for capability in {*values, *state_ids}}


def versions_of(package):
    """The capability of each slice to its Version."""
    return {capability: version_of(*slice_) for capability, slice_ in slices_of(package).items()}


def version_of(values, state_id):
    """A Version, in which short texts stand for the values."""
    return Version.of({key: fingerprint(value) for key, value in values.items()}, state_id)
