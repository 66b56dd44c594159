#!/usr/bin/env python3
"""Memory of the program for several sizes of the flow cache, as a table for docs/operations.md.

Usage: bench/memory.py [--program FILE] [--options WORDS] [Q ...]

Starts the program on the loopback interface of a network namespace of its own (so: as root), once
for each -q, and asks the kernel what it holds once it runs. "Computed" is what the layout says: a
slot has a key, a fast record and a record; the two rings have a 16th and an 8th as many slots, but
2^20 at most.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../tests/support"))
from testbed.network import enter_private_network  # noqa: E402
from testbed.process import WatchedProcess, settle  # noqa: E402

KEY, FAST_RECORD, RECORD = 8, 24, 88
MOST_RING_SLOTS = 1 << 20
BLOCKS = {"vlan": 10, "mpls": 44, "mac": 12}


def rounded_up(size):
    return (size + 7) // 8 * 8


def computed(q, options):
    """Bytes of the cache and of the rings before and after it."""
    record = RECORD + sum(BLOCKS.get(word, 0) for word in options)
    slots = 1 << q
    return (slots * (KEY + FAST_RECORD + rounded_up(record))
            + min(slots // 16, MOST_RING_SLOTS) * rounded_up(record)
            + min(slots // 8, MOST_RING_SLOTS) * rounded_up(record + KEY))


def held(pid):
    """Bytes that are the process's own: resident, without files that it shares with others."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        fields = dict(line.split(":", 1) for line in status)
    return 1024 * sum(int(fields[name].split()[0]) for name in ("RssAnon", "RssShmem"))


def measured(program, q, options):
    with WatchedProcess([program, "-v", "0", "-q", q, *options, "-I", "pcap:device=lo",
                         "-E", "null"]) as probe:
        probe.wait_for_line("parser-xchange", timeout=120)
        size = 0
        while size != (size := held(probe.pid)):  # everything is zeroed once, at the start
            settle()
        probe.signal()
        assert probe.wait(60) == 0, probe.describe()
    return size


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", default="build/release/kestrelexp")
    parser.add_argument("--options", default="", help='more options, as in "-e vlan"')
    parser.add_argument("q", nargs="*", type=int, default=[10, 14, 16, 18, 19, 20, 22, 24])
    arguments = parser.parse_args()
    options = arguments.options.split()
    enter_private_network()
    print("| `-q` | flows | computed | measured |\n|---:|---:|---:|---:|")
    for q in arguments.q:
        said, found = computed(q, options), measured(arguments.program, q, options)
        print(f"| {q} | {1 << q:,} | {said / 1e6:,.1f} MB | {found / 1e6:,.1f} MB |")


if __name__ == "__main__":
    main()
