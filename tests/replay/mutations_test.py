"""Broken capture files: whatever a file says, the program ends in order or refuses it."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import random

from testbed.capture import NS, pcap, pcapng
from testbed.probe import FLUSHED
from testbed.replay import CAPTURES, ReplayCase

FILES = ("pcpp-VlanPackets.pcap", "pcpp-nanosecs_big_endian.pcap", "tcpdump-icmpv6.pcap",
         "zeek-mixed-vlan-mpls.pcap", "ndpi-4in4tunnel.pcap")
ROUNDS = 150


def mutate(rng, content):
    """A few bytes changed, removed, doubled or put in; headers are hit more often than frames."""
    data = bytearray(content)
    for _ in range(rng.choice((1, 1, 2, 5, 20))):
        at = rng.randrange(min(len(data), rng.choice((24, 60, 200, len(data)))))
        what = rng.randrange(5)
        if what == 0:
            data[at] = rng.choice((0, 1, 0x7F, 0x80, 0xFF))
        elif what == 1:
            data[at] ^= 1 << rng.randrange(8)
        elif what == 2:
            del data[at:at + rng.randrange(1, 40)]
        elif what == 3:
            data[at:at] = rng.randbytes(rng.randrange(1, 40))
        else:
            data[at:at + 4] = rng.choice((b"\xff\xff\xff\xff", b"\0\0\0\x80", b"\0\0\0\0"))
        if not data:
            break
    return bytes(data)


class Mutations(ReplayCase):
    def assert_survived(self, content, number):
        path = self.file(content)
        probe = self.start(path, "-q", "5", "-t", "4:1", "-E", "null")
        status = probe.wait(60)
        told = f"mutation {number}, {content.hex()}\n{probe.describe()}"
        self.assertIn(status, (0, 1, 255), told)
        if status == 255:
            self.assertEqual(probe.lines[-1], "Driver initialization failed", told)
            return
        self.assertEqual(probe.lines[-1], FLUSHED, told)
        self.assertEqual(status == 1, "breaks off" in probe.log, told)
        read, in_flows, _, no_flow = self.totals(probe)
        self.assertEqual(read, in_flows + no_flow, told)

    def run_rounds(self, contents, seed):
        rng = random.Random(seed)
        for number in range(ROUNDS):
            self.assert_survived(mutate(rng, rng.choice(contents)), number)

    def test_pcap_files(self):
        self.run_rounds([(CAPTURES / name).read_bytes() for name in FILES], 1)

    def test_pcapng_files(self):
        frames = [(number * NS, (CAPTURES / FILES[0]).read_bytes()[40:40 + 20 * number])
                  for number in range(2, 12)]
        self.run_rounds([pcapng(frames), pcapng(frames, ">", True), pcap(frames, ">")], 2)
