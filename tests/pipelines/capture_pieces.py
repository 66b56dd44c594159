"""The captures of the repository in a few files: a replay of each would start 70 programs."""

import struct

from testbed.capture import NS, pcap
from testbed.replay import CAPTURES

# So many flows of a packet find room in the buffer of a collector that reads nothing meanwhile.
FRAMES_OF_A_PIECE = 1500
# Captures with tags, labels and many MAC addresses have one of these words in their names, as have
# some with types and codes of ICMP.
TAGGED = ("4in4", "802.1", "bfd", "dot1q", "icmp", "ldp", "mpls", "soap", "various_gre", "vlan")
LONGEST_GAP = NS  # between two frames, also of two captures


def read_pcap(data):
    """(time in ns, frame, length on the wire) of each whole frame of an Ethernet capture."""
    order = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    magic, link = struct.unpack_from(order + "I16xI", data)
    unit = {0xA1B2C3D4: 1000, 0xA1B23C4D: 1}[magic]
    assert link & 0xFFFF == 1, link
    at = 24
    while at + 16 <= len(data):
        seconds, parts, length, wire = struct.unpack_from(order + "IIII", data, at)
        if at + 16 + length > len(data):
            return
        yield seconds * NS + parts * unit, data[at + 16:at + 16 + length], wire
        at += 16 + length


def pieces(*words):
    """pcap files of nanoseconds: the captures with one of these words in their names, or all.
    Frames keep their order, and their distances up to a second."""
    frames, now = [], 1_500_000_000 * NS
    for path in sorted(CAPTURES.iterdir()):
        name = path.name.lower()
        if path.suffix not in (".pcap", ".cap") or not any(word in name for word in words or [""]):
            continue
        before = None
        for time, frame, wire in read_pcap(path.read_bytes()):
            now += LONGEST_GAP if before is None else max(-NS, min(time - before, LONGEST_GAP))
            before = time
            frames.append((now, frame, wire))
    for first in range(0, len(frames), FRAMES_OF_A_PIECE):
        yield pcap(frames[first:first + FRAMES_OF_A_PIECE], nanoseconds=True)
