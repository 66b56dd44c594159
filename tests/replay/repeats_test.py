"""Two runs over one file send the same datagrams, byte for byte and in the same order."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import os

from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, ipv6, tcp, udp
from testbed.replay import CAPTURES, ReplayCase

T = 1_500_000_000
KINDS = ("netflow-v5", "netflow-v9", "ipfix")
REAL = ("zeek-wikipedia.pcap", "tcpdump-afs.pcap", "ndpi-android.pcap", "ndpi-synscan.pcap",
        "zeek-trunc_mpls-6in6-broken.pcap")


def busy_hour():
    """6,000 packets of 900 flows, IPv4 and IPv6, at times that jump about."""
    made, now = [], T * NS
    for number in range(6000):
        now += number * 7919 % 1_200 * 1_000_000 - (40_000_000 if number % 50 == 7 else 0)
        flow = number * number % 907
        network = (ipv4(udp(flow, 53), "10.0.0.1", "10.0.0.2") if flow % 3 else
                   ipv6(tcp(flow, 80), "2001:db8::1", "2001:db8::2"))
        made.append((now, ethernet(network)))
    return pcap(made)


class Repeats(ReplayCase):
    def assert_repeats(self, path, *arguments, kinds=KINDS):
        for kind in kinds:
            with self.subTest(path=path.name, kind=kind):
                first, second = (self.export(path, kind, *arguments) for _ in range(2))
                self.assertGreater(len(first), 0)
                self.assertEqual(first, second)

    def test_real_captures(self):
        for name in REAL:
            self.assert_repeats(CAPTURES / name)

    def test_an_hour_of_packets(self):
        self.assert_repeats(self.file(busy_hour()))

    def test_an_hour_of_packets_in_a_full_cache(self):
        self.assert_repeats(self.file(busy_hour()), "-q", "5", "-t", "30:2")

    def test_with_a_process_plugin(self):
        self.assert_repeats(self.file(busy_hour()), "-X", os.environ["KESTREL_COUNT_FRAMES"],
                            "-P", "frames", "-q", "6")

    def test_with_tags_and_sampling(self):
        self.assert_repeats(CAPTURES / "pcpp-VlanPackets.pcap", "-e", "vlan,mpls,mac", "-C", "0xF7",
                            kinds=("ipfix",))
        self.assert_repeats(self.file(busy_hour()), "-S", "3", kinds=("netflow-v5",))

    def test_with_three_exports_at_once(self):
        path = self.file(busy_hour())
        runs = []
        for _ in range(2):
            collectors = [self.collector() for _ in KINDS]
            words = [word for kind, collector in zip(KINDS, collectors)
                     for word in self.export_words(kind, collector)]
            self.replay(path, *words)
            runs.append([collector.finish() for collector in collectors])
        self.assertEqual(runs[0], runs[1])
        # What one export sends does not depend on the others.
        self.assertEqual(runs[0], [self.export(path, kind) for kind in KINDS])
