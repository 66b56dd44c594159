"""A mapped file and the same bytes through a pipe give the same: flows, messages, statuses.

What is mapped is walked in place; what comes through standard input is read by libpcap.
"""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import struct
import subprocess

from testbed.capture import NS, pcap
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.replay import CAPTURES, ReplayCase

T = 1_600_000_000
BIG, LITTLE = ">", "<"
SLL, RAW = 113, 101
COOKED = bytes.fromhex("0000 0001 0006 0211223344550000 0800")
FOUR = ipv4(udp(1000, 53, b"abcd"), "10.0.0.1", "10.0.0.2")
SIX = ipv6(tcp(2000, 80), "2001:db8::1", "2001:db8::2")
TAGGED = ethernet(FOUR, tags=[(0x88A8, 7), (0x8100, 8)])


def timed(frames, step=1_000_000):
    return [(T * NS + number * step, frame) for number, frame in enumerate(frames)]


def mixed(count=200):
    """Flows of both versions, tags of both kinds, ARP, cut frames and empty ones."""
    kinds = (ethernet(FOUR), ethernet(SIX), TAGGED, ethernet(arp_request()), ethernet(FOUR)[:30],
             b"", ethernet(SIX, tags=[(0x8100, 5)]))
    return [kinds[number * number % len(kinds)] for number in range(count)]


def with_word(content, at, word, order=LITTLE):
    changed = bytearray(content)
    struct.pack_into(order + "I", changed, at, word)
    return bytes(changed)


def late(order):
    """Times of 2038 and 2106, and fractions that are none."""
    content = pcap(timed([ethernet(FOUR)] * 3), order)
    for number, (seconds, fraction) in enumerate(
            ((0x7FFFFFFF, 0x80000000), (0x80000000, 2_000_000), (0xFFFFFFFE, 0xFFFFFFFF))):
        at = 24 + number * 62
        content = with_word(with_word(content, at, seconds, order), at + 4, fraction, order)
    return content


class Roads(ReplayCase):
    def run_on(self, path, *arguments, **options):
        """Status, messages and flows."""
        out = self.directory / "flows.txt"
        out.write_bytes(b"")
        probe = self.start(path, *arguments, "-E", f"flow_lines:file={out}", **options)
        status = probe.wait(60)
        lines = [line.replace(str(self.directory / "made.pcap"), "(standard input)")
                 for line in probe.messages]
        return status, lines, out.read_text()

    def assert_same(self, content, *arguments, **options):
        """Returns what came out."""
        path = self.file(content)
        mapped = self.run_on(path, *arguments, **options)
        with open(path, "rb") as source:
            pipe = subprocess.Popen(["cat"], stdin=source, stdout=subprocess.PIPE)
            with pipe:
                read = self.run_on("-", *arguments, stdin=pipe.stdout, **options)
        self.assertEqual(mapped, read)
        return mapped

    def test_every_byte_order_and_precision(self):
        for order in (LITTLE, BIG):
            for nanoseconds in (False, True):
                with self.subTest(order=order, nanoseconds=nanoseconds):
                    status, lines, flows = self.assert_same(
                        pcap(timed(mixed()), order, nanoseconds), "-C", "0xF7")
                    self.assertEqual(status, 0, lines)
                    self.assertGreater(flows.count("\n"), 3)

    def test_real_captures(self):
        for name in ("zeek-wikipedia.pcap", "pcpp-nanosecs_big_endian.pcap",
                     "tcpdump-802.1ad_QinQ.pcap", "zeek-trunc_mpls-6in6-broken.pcap"):
            with self.subTest(name=name):
                self.assert_same((CAPTURES / name).read_bytes())

    def test_translated_frames_and_provider_tags_in_batches(self):
        cooked = [COOKED + FOUR.data, COOKED[:9], COOKED[:14] + bytes.fromhex("88a80001 0800") +
                  FOUR.data] * 50
        for content in (pcap(timed(cooked), link=SLL), pcap(timed([FOUR.data, SIX.data] * 70),
                                                            link=RAW),
                        pcap(timed([TAGGED] * 70 + [ethernet(FOUR)] * 70))):
            status, lines, flows = self.assert_same(content, "-C", "0xF7")
            self.assertEqual(status, 0, lines)
            self.assertGreater(len(flows), 0)

    def test_sampling_and_filters(self):
        content = pcap(timed(mixed(1000)))
        chosen = self.file("udp or vlan", "filter.txt")
        for options in (",sampling=7", f",filter-file={chosen}",
                        f",filter-file={chosen},sampling=3"):
            with self.subTest(options=options):
                status, lines, _ = self.assert_same(content, options=options)
                self.assertEqual(status, 0, lines)

    def test_times_that_no_clock_has(self):
        for order in (LITTLE, BIG):
            status, lines, _ = self.assert_same(late(order))
            self.assertEqual(status, 0, lines)

    def test_a_file_that_breaks_off_anywhere(self):
        whole = pcap(timed([ethernet(FOUR)] * 3))
        for size in (0, 23, 24, 25, 39, 40, 41, 85, 86, 102, 103, 147, 148, 209):
            with self.subTest(size=size):
                self.assert_same(whole[:size])

    def test_lengths_that_lie(self):
        whole = pcap(timed([ethernet(FOUR)] * 3))
        for length in (0, 45, 47, 46 + 62, 0x40000, 0x40001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
            for number in (0, 1, 2):
                with self.subTest(length=length, number=number):
                    self.assert_same(with_word(whole, 24 + 62 * number + 8, length))

    def test_headers_that_are_odd(self):
        whole = pcap(timed(mixed(20)))
        changed = {"version 2.3": (4, 0x00030002), "version 2.5": (4, 0x00050002),
                   "version 1.4": (4, 0x00040001), "modified": (0, 0xA1B2CD34),
                   "no snap length": (16, 0), "a short one": (16, 20),
                   "a huge one": (16, 0xFFFFFFFF),
                   "link type with more bits": (20, 0x44000001), "another link type": (20, 105)}
        for name, (at, word) in changed.items():
            with self.subTest(name):
                self.assert_same(with_word(whole, at, word))
