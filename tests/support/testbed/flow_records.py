"""The records of IPFIX and NetFlow v9 messages, field by field, by the templates that come with
them; and what a dissector of the field says of the same messages."""

import struct
import subprocess

from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp

PORT = 4739
ENTERPRISE_BIT = 0x8000


def records(messages):
    """Of the messages of one exporter, each a dictionary: the bytes of each element. A private
    element is (enterprise, number)."""
    templates, found = {}, []
    for message in messages:
        header, template_set = (16, 2) if message[1] == 10 else (20, 0)
        sets = message[header:]
        while sets:
            kind, length = struct.unpack_from(">HH", sets)
            body, sets = sets[4:length], sets[length:]
            if kind == template_set:
                templates.update(_templates(body))
            else:
                found += _records(templates[kind], body)
    return found


def number(value):
    return int.from_bytes(value, "big")


def _templates(body):
    templates = {}
    while len(body) >= 4:
        kind, count = struct.unpack_from(">HH", body)
        body = body[4:]
        fields = templates[kind] = []
        for _ in range(count):
            element, length = struct.unpack_from(">HH", body)
            body = body[4:]
            if element & ENTERPRISE_BIT:
                element = (struct.unpack_from(">I", body)[0], element - ENTERPRISE_BIT)
                body = body[4:]
            fields.append((element, length))
    return templates


def _records(fields, body):
    size = sum(length for _, length in fields)
    while len(body) >= size:
        record = {}
        for element, length in fields:
            record[element], body = body[:length], body[length:]
        yield record


def dissect(messages, folder, *columns):
    """What tshark makes of the messages: for each column the values of all records, in order. It
    may have no complaint."""
    trace = folder / "messages.pcap"
    trace.write_bytes(pcap((second * NS, ethernet(ipv4(udp(PORT, PORT, message), "192.0.2.1",
                                                       "192.0.2.2")))
                           for second, message in enumerate(messages)))

    words = [word for column in columns for word in ("-e", column)]

    def tshark(*options):
        return subprocess.run(
            ["tshark", "-n", "-r", trace, "-d", f"udp.port=={PORT},cflow", *options],
            check=True, capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout

    assert not (said := tshark("-Y", "_ws.expert || _ws.malformed || !cflow")), said
    cells = zip(*(line.split("\t")
                  for line in tshark("-T", "fields", "-E", "aggregator= ", *words).splitlines()))
    return [" ".join(column).split() for column in cells]
