"""What is in the messages of a topic: flows as goflow2's message in protocol buffers."""

from dataclasses import dataclass

NAMES = {3: "sampling_rate", 4: "sequence_num", 6: "src_addr", 7: "dst_addr", 9: "bytes",
         10: "packets", 11: "sampler_address", 18: "in_if", 19: "out_if", 20: "proto",
         21: "src_port", 22: "dst_port", 23: "ip_tos", 26: "tcp_flags", 30: "etype",
         31: "icmp_type", 32: "icmp_code", 110: "time_received_ns", 111: "time_flow_start_ns",
         112: "time_flow_end_ns"}
VARINT, BYTES = 0, 2


@dataclass(frozen=True)
class Message:
    partition: int
    key: bytes | None
    flow: dict


def read_messages(lines, read):
    """lines: as topic_reader.h says. read: makes a flow of the bytes of a message."""
    found = []
    for line in lines:
        partition, key, message = line.split()
        key = None if key == "none" else bytes.fromhex(key.strip("-"))
        found.append(Message(int(partition), key, read(bytes.fromhex(message))))
    return found


def take_varint(data):
    value = shift = 0
    while True:
        byte, data = data[0], data[1:]
        value |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return value, data


def read_flow(message):
    """The fields of a message, which has its length before it and nothing after it."""
    length, data = take_varint(message)
    assert length == len(data), f"{len(data)} bytes, not {length}"
    flow = {}
    while data:
        tag, data = take_varint(data)
        value, data = take_varint(data)
        if tag & 7 == BYTES:
            value, data = data[:value], data[value:]
        else:
            assert tag & 7 == VARINT, tag
        assert NAMES[tag >> 3] not in flow, tag
        flow[NAMES[tag >> 3]] = value
    return flow
