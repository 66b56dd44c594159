#!/usr/bin/env python3
"""Makes a table for the AS helper from a routing table.

Usage: as_table.py < ROUTES > TABLE

Reads one route a line, in any of these forms:
  TABLE_DUMP2|time|B|peer|peer AS|PREFIX|AS PATH|...   a routing table dump as text (bgpdump -m)
  NETWORK <tab> LENGTH <tab> AS                        a list of prefixes with their origins
  PREFIX AS                                            the same, prefix in one word

Routes contain each other; the networks of the AS helper's table must not. So each address gets the
number of the longest prefix that contains it, and the table has the fewest networks with the same
meaning. The last AS of a path is its origin; of a set of origins the first counts, and of several
routes to one prefix the first line. IPv6 routes are left out: in the AS helper's table the bits of
an IPv6 prefix are counted from the other end of the address.
"""

import re
import socket
import struct
import sys

ADDRESS_BITS = 32


def parse(line):
    """(network, prefix length, AS) of a route; None for lines without an IPv4 route."""
    if "|" in line:
        fields = line.split("|")
        prefix, path = (fields[5], fields[6]) if len(fields) > 6 else ("", "")
        network, _, length = prefix.partition("/")
        origin = path.split()[-1] if path.split() else ""
    else:
        fields = line.replace("/", " ", 1).split()
        network, length, origin = fields if len(fields) == 3 else ("", "", "")
    number = re.search(r"\d+", origin)  # the first of a set: {1,2}, 1_2, 1,2
    if not number or not length.isdigit() or int(length) > ADDRESS_BITS:
        return None
    try:
        address, = struct.unpack(">I", socket.inet_aton(network))
    except OSError:
        return None
    size = 1 << ADDRESS_BITS - int(length)
    return address - address % size, int(length), int(number[0])


def ranges(routes):
    """Disjoint (first, last, AS) in order, from {(network, length): AS}."""
    enclosing = []  # (last address, AS) of the routes that hold the current place, outermost first
    place = 0
    for (network, length), number in sorted(routes.items()):
        while enclosing and enclosing[-1][0] < network:
            last, own = enclosing.pop()
            if place <= last:
                yield place, last, own
                place = last + 1
        if enclosing and place < network:
            yield place, network - 1, enclosing[-1][1]
        place = network
        enclosing.append((network + (1 << ADDRESS_BITS - length) - 1, number))
    while enclosing:
        last, own = enclosing.pop()
        if place <= last:
            yield place, last, own
            place = last + 1


def joined(parts):
    """The same with neighbours of one AS in one piece."""
    held = None
    for first, last, number in parts:
        if held and held[1] + 1 == first and held[2] == number:
            held = held[0], last, number
            continue
        if held:
            yield held
        held = first, last, number
    if held:
        yield held


def networks(first, last):
    """The fewest networks that make up the addresses from first to last."""
    while first <= last:
        size = first & -first or 1 << ADDRESS_BITS
        while size > last - first + 1:
            size >>= 1
        yield first, ADDRESS_BITS + 1 - size.bit_length()
        first += size


def main():
    routes, skipped = {}, 0
    for line in sys.stdin:
        route = parse(line)
        if route:
            routes.setdefault(route[:2], route[2])
        elif line.strip():
            skipped += 1
    written = 0
    for first, last, number in joined(ranges(routes)):
        for network, length in networks(first, last):
            text = socket.inet_ntoa(struct.pack(">I", network))
            sys.stdout.write(f"{number}-{text}/{length}\n")
            written += 1
    print(f"{len(routes)} routes, {written} networks, {skipped} lines left out", file=sys.stderr)


if __name__ == "__main__":
    main()
