"""IPFIX files: their messages, checked as a session of one exporter, and their records."""

import os
import struct

from testbed.flow_records import records

PLUGIN = ("-X", os.environ.get("KESTREL_IPFIX_FILE", ""))


def whole_messages(data):
    """The messages of a file, and what stands after the last whole one."""
    found = []
    while len(data) >= 16:
        version, length = struct.unpack_from(">HH", data)
        assert version == 10 and length >= 16, data[:16]
        if length > len(data):
            break
        found.append(data[:length])
        data = data[length:]
    return found, data


def read_file(path):
    """The records of a complete file: templates first and once, one sequence from 0."""
    found, rest = whole_messages(path.read_bytes())
    assert rest == b"" and found, path
    kinds = [struct.unpack_from(">H", message, 16)[0] for message in found]
    assert kinds[0] == 2 and 2 not in kinds[1:], kinds
    expected, taken = 0, []
    for message in found:
        _, sequence, _ = struct.unpack_from(">III", message, 4)
        assert sequence == expected, (path, sequence, expected)
        taken.append(message)
        if message is not found[0]:
            expected += len(records([found[0], message]))
    return records(taken)
