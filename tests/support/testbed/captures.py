"""Writes capture files (the classic pcap format, microseconds, Ethernet)."""

import struct


def write_capture(path, packets, link_type=1):
    """packets: (seconds since the epoch, frame), in the order of the file."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, link_type))
        for time, frame in packets:
            microseconds = round(time * 1_000_000)
            file.write(struct.pack("<IIII", *divmod(microseconds, 1_000_000), len(frame),
                                   len(frame)))
            file.write(frame)
