"""Writes capture files by hand: pcap of either byte order and precision, and pcapng."""

import struct

ETHERNET = 1
NS = 1_000_000_000


def pcap(packets, order="<", nanoseconds=False, link=ETHERNET, snap=65535):
    """packets: (time in ns, frame), or (time in ns, frame, length on the wire)."""
    magic, unit = (0xA1B23C4D, 1) if nanoseconds else (0xA1B2C3D4, 1000)
    parts = [struct.pack(order + "IHHiIII", magic, 2, 4, 0, 0, snap, link)]
    for time_ns, frame, *wire in packets:
        parts += struct.pack(order + "IIII", time_ns // NS, time_ns % NS // unit, len(frame),
                             wire[0] if wire else len(frame)), frame
    return b"".join(parts)


def pcapng(packets, order="<", nanoseconds=False, link=ETHERNET):
    """One section, one interface, enhanced packet blocks."""
    options = struct.pack(order + "HHBBBBHH", 9, 1, 9, 0, 0, 0, 0, 0) if nanoseconds else b""
    unit = 1 if nanoseconds else 1000
    parts = [_block(order, 0x0A0D0D0A, struct.pack(order + "IHHq", 0x1A2B3C4D, 1, 0, -1)),
             _block(order, 1, struct.pack(order + "HHI", link, 0, 65535) + options)]
    for time_ns, frame, *wire in packets:
        time = time_ns // unit
        head = struct.pack(order + "IIIII", 0, time >> 32, time & 0xFFFFFFFF, len(frame),
                           wire[0] if wire else len(frame))
        parts.append(_block(order, 6, head + frame + bytes(-len(frame) % 4)))
    return b"".join(parts)


def _block(order, kind, body):
    length = struct.pack(order + "I", len(body) + 12)
    return struct.pack(order + "I", kind) + length + body + length
