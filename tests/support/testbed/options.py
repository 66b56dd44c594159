"""Reads options templates and options records of IPFIX and NetFlow v9 by what the messages say of
themselves (RFC 7011 section 3.4.2.2, RFC 3954 section 6.1), strictly; and counts sequence numbers.
"""

import select
import struct
from dataclasses import dataclass, field

from testbed.network import udp_receiver

# Elements.
INGRESS, RATE, ALGORITHM, NAME, DESCRIPTION = 10, 34, 35, 82, 83
OCTETS, MESSAGES, FLOWS = 40, 41, 42
PROCESS, DOMAIN = 144, 149
OBSERVED, IGNORED = 163, 164
UNSENT_FLOWS, UNSENT_PACKETS, UNSENT_OCTETS = 166, 167, 168
SPACED, SPACE = 305, 306
SYSTEM = "system"  # the scope of NetFlow v9
TEXTS = (NAME, DESCRIPTION)


@dataclass
class Message:
    """What one message carries."""

    version: int
    sequence: int
    length: int
    templates: int = 0  # of flows
    options_templates: int = 0
    flows: int = 0
    options: list = field(default_factory=list)  # a dictionary by element for each record

    def of(self, element):
        """The options records that have an element."""
        return [record for record in self.options if element in record]


class OptionsReader:
    """Takes the messages of one exporter on one connection, in their order."""

    def __init__(self):
        self._flows, self._options = {}, {}

    def read(self, message):
        version, second = struct.unpack_from(">HH", message)
        header = {10: 16, 9: 20}[version]
        if version == 10:
            assert second == len(message), (second, len(message))
        sequence, = struct.unpack_from(">I", message, 8 if version == 10 else 12)
        found = Message(version, sequence, len(message))
        sets = message[header:]
        while sets:
            kind, length = struct.unpack_from(">HH", sets)
            assert 4 < length <= len(sets) and length % 4 == 0, (kind, length, len(sets))
            self._read_set(found, kind, sets[4:length])
            sets = sets[length:]
        if version == 9:
            assert second == (found.templates + found.options_templates + found.flows +
                              len(found.options)), (second, found)
        return found

    def _read_set(self, found, kind, body):
        if kind == (2 if found.version == 10 else 0):
            found.templates += self._learn_flows(body)
        elif kind == (3 if found.version == 10 else 1):
            self._learn_options(found.version, body)
            found.options_templates += 1
        elif kind in self._options:
            found.options += _options(self._options[kind], body)
        else:
            size = self._flows[kind]
            assert len(body) % size < 4, (kind, len(body), size)
            found.flows += len(body) // size

    def _learn_flows(self, body):
        count = 0
        while len(body) >= 4:
            kind, fields = struct.unpack_from(">HH", body)
            self._flows[kind] = sum(struct.unpack_from(f">{2 * fields}H", body, 4)[1::2])
            body = body[4 + 4 * fields:]
            count += 1
        assert not any(body), body
        return count

    def _learn_options(self, version, body):
        kind, first, second = struct.unpack_from(">HHH", body)
        assert kind not in self._flows, kind
        if version == 10:
            count = first
            assert second == 1, second
        else:
            assert first == 4 and second % 4 == 0, (first, second)
            count = (first + second) // 4
        words = struct.unpack_from(f">{2 * count}H", body, 6)
        fields = list(zip(words[::2], words[1::2]))
        if version == 9:
            assert fields[0] == (1, 4), fields
            fields[0] = (SYSTEM, 4)
        rest = body[6 + 4 * count:]
        assert len(rest) < 4 and not any(rest), rest
        self._options[kind] = fields


def _options(fields, body):
    found = []
    shortest = sum(1 if length == 65535 else length for _, length in fields)
    while len(body) >= shortest:
        record = {}
        for element, length in fields:
            if length == 65535:
                length, body = body[0], body[1:]
                assert length < 255
            value, body = body[:length], body[length:]
            record[element] = (value.rstrip(b"\0").decode() if element in TEXTS
                               else int.from_bytes(value, "big"))
        found.append(record)
    assert len(body) < 4 and not any(body), body
    return found


def check_sequence(messages):
    """Each message has the number that those before it make: nothing was lost."""
    expected = 0
    for message in messages:
        assert message.sequence == expected, (message, expected)
        expected += 1 if message.version == 9 else message.flows + len(message.options)


def read_stream(stream):
    """The whole messages that a stream of IPFIX begins with."""
    reader, found = OptionsReader(), []
    while len(stream) >= 4 and (length := struct.unpack_from(">H", stream, 2)[0]) <= len(stream):
        found.append(reader.read(stream[:length]))
        stream = stream[length:]
    return found


class Datagrams:
    """A collector on a loopback port of its own, which may go away and come back."""

    def __init__(self):
        self._socket = udp_receiver()
        self.port = self._socket.getsockname()[1]
        self.raw = []
        self.messages = []
        self._reader = OptionsReader()

    def drain(self):
        """Takes every datagram that has arrived; returns all messages so far."""
        while self._socket.fileno() >= 0 and select.select([self._socket], [], [], 0)[0]:
            self.raw.append(self._socket.recv(65536, 0))
            self.messages.append(self._reader.read(self.raw[-1]))
        return self.messages

    def options(self, element):
        """All options records so far that have an element."""
        return [record for message in self.drain() for record in message.of(element)]

    def die(self):
        """The port is closed: the system answers that nobody listens."""
        self.drain()
        self.close()

    def come_back(self):
        """Without any template."""
        self._socket = udp_receiver(port=self.port)
        self._reader = OptionsReader()

    def close(self):
        self._socket.close()
