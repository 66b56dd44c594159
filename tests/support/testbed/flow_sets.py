"""Reads IPFIX and NetFlow v9 messages by the templates that they carry, and trusts nothing.

What the tests count with is how many records a message has and how many packets these tell of.
"""

import struct
from dataclasses import dataclass

IN_PKTS = 2  # the element: packets of the flow
FIRST_DATA_SET = 256


class Malformed(AssertionError):
    """A message that breaks the format, or records of a template that was never sent."""


@dataclass(frozen=True)
class Message:
    """domain: which exporter it is from. sequence: IPFIX: data records before this message;
    NetFlow v9: messages before it."""

    version: int
    domain: int
    sequence: int
    records: int
    packets: int


@dataclass(frozen=True)
class _Template:
    length: int         # bytes of a record
    packets_at: int     # where the counter of packets is
    packets_length: int


class Reader:
    """Takes the messages of one exporter to one collector, in their order."""

    def __init__(self):
        self._templates = {}

    def read(self, message):
        """The message, without anything after it."""
        _require(len(message) >= 20, f"{len(message)} bytes are no message")
        version, length = struct.unpack_from(">HH", message)
        if version == 10:
            _require(length == len(message), f"length {length} of {len(message)} bytes")
            sequence, domain = struct.unpack_from(">II", message, 8)
            records, packets = self._read_sets(message[16:], template_set=2)
        else:
            _require(version == 9, f"version {version}")
            sequence, domain = struct.unpack_from(">II", message, 12)
            records, packets = self._read_sets(message[20:], template_set=0)
        return Message(version, domain, sequence, records, packets)

    def _read_sets(self, sets, template_set):
        records = packets = 0
        while sets:
            _require(len(sets) >= 4, "a set without a header")
            kind, length = struct.unpack_from(">HH", sets)
            _require(4 <= length <= len(sets), f"set of {length} in {len(sets)} bytes")
            body, sets = sets[4:length], sets[length:]
            if kind == template_set:
                self._learn(body)
            else:
                counts = self._count(kind, body)
                records += len(counts)
                packets += sum(counts)
        return records, packets

    def _learn(self, body):
        while len(body) >= 4:
            kind, field_count = struct.unpack_from(">HH", body)
            _require(kind >= FIRST_DATA_SET, f"template {kind}")
            fields = struct.unpack_from(f">{2 * field_count}H", body, 4)
            body = body[4 + 4 * field_count:]
            elements, lengths = fields[::2], fields[1::2]
            _require(elements.count(IN_PKTS) == 1, f"elements {elements}")
            place = elements.index(IN_PKTS)
            self._templates[kind] = _Template(sum(lengths), sum(lengths[:place]), lengths[place])

    def _count(self, kind, body):
        """Packets of each record."""
        template = self._templates.get(kind)
        _require(template is not None, f"no template for set {kind}")
        count, padding = divmod(len(body), template.length)
        _require(count > 0 and padding < 4, f"{len(body)} bytes in set {kind}")
        counts = []
        for number in range(count):
            start = number * template.length + template.packets_at
            counts.append(int.from_bytes(body[start:start + template.packets_length], "big"))
        return counts


def split_stream(stream):
    """The whole IPFIX messages that a stream begins with, and the bytes after the last one."""
    messages = []
    while len(stream) >= 4:
        version, length = struct.unpack_from(">HH", stream)
        _require(version == 10 and length >= 16, f"version {version}, length {length}")
        if length > len(stream):
            break
        messages.append(stream[:length])
        stream = stream[length:]
    return messages, stream


def _require(condition, text):
    if not condition:
        raise Malformed(text)
