"""SNMP messages as they are on the wire."""
import collections

#: One variable: its OID with dots, the name of its type, and its value.
Variable = collections.namedtuple("Variable", "oid type value")

#: A message of SNMPv1 or SNMPv2c that is not a trap of SNMPv1; version and pdu are their numbers.
Message = collections.namedtuple(
    "Message", "version community pdu request_id error_status error_index variables")

#: Numbers of SNMPv2c and of its traps.
VERSION_2C = 1
TRAP2 = 0xA7

_INTEGER = 0x02
_OCTET_STRING = 0x04
_OID = 0x06
_SEQUENCE = 0x30
_TIME_TICKS = 0x43


class _Reader:
    """Takes the elements of a constructed value one by one. Fails if one is not complete."""

    def __init__(self, data):
        self._rest = data

    def next(self):
        """Tag and content of the next element."""
        tag, length, start = self._rest[0], self._rest[1], 2
        if length & 0x80:
            start += length & 0x7F
            assert start > 2, "an element without a length"
            length = int.from_bytes(self._rest[2:start], "big")
        content = self._rest[start:start + length]
        assert len(content) == length, "an element is cut"
        self._rest = self._rest[start + length:]
        return tag, content

    def take(self, tag):
        """The content of the next element, which has this tag."""
        found, content = self.next()
        assert found == tag, f"tag {found:#x} instead of {tag:#x}"
        return content

    def is_empty(self):
        return not self._rest


def _integer(content):
    return int.from_bytes(content, "big", signed=True)


def _oid(content):
    numbers, number = [], 0
    for byte in content:
        number = number << 7 | byte & 0x7F
        if not byte & 0x80:
            numbers.append(number)
            number = 0
    assert not content[-1] & 0x80, "an OID is cut"
    first = min(numbers[0] // 40, 2)
    return ".".join(map(str, [first, numbers[0] - 40 * first, *numbers[1:]]))


_TYPES = {
    _INTEGER: ("INTEGER", _integer),
    _OCTET_STRING: ("OCTET STRING", bytes),
    _OID: ("OID", _oid),
    _TIME_TICKS: ("TimeTicks", lambda content: int.from_bytes(content, "big")),
}


def _variables(reader):
    found = []
    while not reader.is_empty():
        pair = _Reader(reader.take(_SEQUENCE))
        oid = _oid(pair.take(_OID))
        tag, content = pair.next()
        assert pair.is_empty()
        name, decode = _TYPES[tag]
        found.append(Variable(oid, name, decode(content)))
    return found


def decode(datagram):
    """The message that the datagram is, to its last byte."""
    outer = _Reader(datagram)
    message = _Reader(outer.take(_SEQUENCE))
    version = _integer(message.take(_INTEGER))
    community = message.take(_OCTET_STRING)
    pdu, content = message.next()
    body = _Reader(content)
    numbers = [_integer(body.take(_INTEGER)) for _ in range(3)]
    variables = _variables(_Reader(body.take(_SEQUENCE)))
    assert outer.is_empty() and message.is_empty() and body.is_empty(), "bytes are left over"
    return Message(version, community, pdu, *numbers, variables)
