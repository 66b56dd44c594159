"""The sum at the end: every packet read is sent, kept back or lost for a reason that is told."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

from testbed.accounts import (DISCARDED, HANDED, IN_CACHE, IN_RINGS, LOST, RECEIVED, SAMPLED_OUT,
                              SENT, Sum, without_sum)
from testbed.capture import NS, pcap
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.netflow_v5 import decode
from testbed.network import free_udp_port
from testbed.probe import FLUSHED
from testbed.replay import ReplayCase

T = 1_600_000_000
FIRST, SECOND = 'export="netflow-v5-0"', 'export="null-1"'
FLOW_REMOVALS = "kestrelexp_cache_removed_flows_total"
PACKET_REMOVALS = "kestrelexp_cache_removed_packets_total"


def v4(port, payload=b"abcd"):
    return ethernet(ipv4(udp(port, 53, payload), "10.0.0.1", "10.0.0.2"))


def v6(port):
    return ethernet(ipv6(tcp(port, 443), "2001:db8::1", "2001:db8::2"))


def timed(frames, step_ns=1_000_000):
    return [(T * NS + number * step_ns, frame) for number, frame in enumerate(frames)]


def packets_in(datagrams):
    """Packets that the flows of NetFlow v5 messages tell of."""
    return sum(record.flow.packets for datagram in datagrams for record in decode(datagram)[1])


class Accounts(ReplayCase):
    def run_over(self, frames, *arguments, **options):
        """Replays the frames; returns the sum, whose rules are checked."""
        probe = self.replay(self.file(pcap(timed(frames))), *arguments, **options)
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual((found.total(IN_CACHE), found.total(IN_RINGS)), (0, 0))
        return found

    def run_to_collector(self, frames, *options):
        """The same with options and a NetFlow v5 export; checks what came."""
        collector = self.collector()
        found = self.run_over(frames, *options, *self.export_words("netflow-v5", collector))
        datagrams = collector.finish()
        self.assertEqual(found.total(SENT, FIRST), packets_in(datagrams))
        self.assertEqual(found.total("kestrelexp_export_messages_total", FIRST), len(datagrams))
        self.assertEqual(found.total("kestrelexp_export_bytes_total", FIRST),
                         sum(map(len, datagrams)))
        return found

    def test_the_sum_stands_between_the_totals_and_the_closing_line(self):
        probe = self.replay(self.file(pcap(timed([v4(1), v4(1), ethernet(arp_request())]))),
                            "-q", "5", "-E", "null")
        totals = probe.lines.index("VERBOSE: 0:Input ended: 3 packets read, 2 in 1 flows, "
                                   "1 no flow")
        self.assertEqual(probe.lines[totals + 1:], [f"VERBOSE: 0:{line}" for line in (
            'kestrelexp_cache_records_total 2',
            'kestrelexp_cache_packets_total 2',
            # Two datagrams of four bytes with their headers, 20 and 8 bytes.
            'kestrelexp_cache_bytes_total 64',
            'kestrelexp_cache_removed_flows_total{reason="forced"} 1',
            'kestrelexp_cache_removed_packets_total{reason="forced"} 2',
            'kestrelexp_capture_packets_total{input="capture-file"} 3',
            'kestrelexp_capture_bytes_total{input="capture-file"} 134',
            'kestrelexp_parser_discarded_packets_total{reason="not_ip"} 1',
            'kestrelexp_handed_records_total 1',
            'kestrelexp_handed_packets_total 2',
            'kestrelexp_export_records_total{export="null-0"} 1',
            'kestrelexp_export_packets_total{export="null-0"} 2',
            'kestrelexp_ring_packets{ring="parser-xchange"} 0',
            'kestrelexp_cache_packets 0',
            'kestrelexp_ring_packets{ring="final-records"} 0')] + [FLUSHED])

    def test_there_is_no_sum_by_default(self):
        probe = self.replay(self.file(pcap(timed([v4(1)]))), "-E", "null", verbosity=())
        self.assertEqual(without_sum(probe.lines), probe.lines)

    def test_an_input_without_a_frame_has_a_sum_of_nothing(self):
        found = self.run_over([], "-E", "null")
        self.assertEqual((found.total(RECEIVED), found.total(HANDED)), (0, 0))

    def test_every_packet_of_two_hundred_flows_is_sent(self):
        frames = [v4(1000 + number % 200) for number in range(700)]
        found = self.run_to_collector(frames)
        self.assertEqual((found.total(RECEIVED), found.total(HANDED), found.total(SENT, FIRST)),
                         (700, 700, 700))
        self.assertEqual(found.total("kestrelexp_export_records_total", FIRST), 200)
        self.assertEqual(found.total("kestrelexp_capture_bytes_total"), 700 * len(v4(0)))

    def test_frames_that_are_no_flow_are_told_by_reason(self):
        header = v4(1)[:14]
        frames = [v4(1), ethernet(arp_request()), ethernet(arp_request(), tags=[(0x8100, 5)]),
                  header,                                      # no byte of the IP header
                  v4(1)[:12] + b"\x81\x00\x00\x05",            # a tag, and then no EtherType
                  v4(1)[:12] + b"\x88\x47\x00\x01\x00\x40",    # labels without an end
                  header + b"\x55" + v4(1)[15:]]               # IP version 5
        found = self.run_over(frames, "-E", "null")
        self.assertEqual(found.reasons(DISCARDED), {"not_ip": 2, "truncated": 3, "ip_version": 1})
        self.assertEqual((found.total(RECEIVED), found.total(HANDED)), (7, 1))

    def test_a_filter_keeps_back_from_its_export_alone(self):
        rules = self.file("src port 1001\n", "rules")
        frames = [v4(1001)] * 3 + [v4(1002)] * 5 + [v4(1003)] * 7
        collector = self.collector()
        found = self.run_over(frames, "-F", f"filter:{rules}",
                              *self.export_words("netflow-v5", collector), "-E", "null")
        self.assertEqual(found.reasons(LOST, FIRST), {"filter": 12})
        self.assertEqual(found.total("kestrelexp_export_lost_records_total", FIRST), 2)
        self.assertEqual((found.total(SENT, FIRST), packets_in(collector.finish())), (3, 3))
        self.assertEqual((found.total(SENT, SECOND), found.total(LOST, SECOND)), (15, 0))

    def test_it_is_told_which_filter_rejected(self):
        first = self.file("src port 1001\nsrc port 1002\n", "first")
        second = self.file("src port 1001\n", "second")
        found = self.run_over([v4(1001)] * 3 + [v4(1002)] * 5 + [v4(1003)] * 7,
                              "-F", f"filter:{first}", "-F", f"filter:{second}", "-E", "null")
        told = {(name, labels): value for (name, labels), value in found.values.items()
                if name.startswith("kestrelexp_filter_")}
        self.assertEqual(told, {
            ("kestrelexp_filter_rejected_records_total", 'export="null-0",filter="filter-0"'): 1,
            ("kestrelexp_filter_rejected_packets_total", 'export="null-0",filter="filter-0"'): 7,
            ("kestrelexp_filter_rejected_records_total", 'export="null-0",filter="filter-1"'): 1,
            ("kestrelexp_filter_rejected_packets_total", 'export="null-0",filter="filter-1"'): 5})

    def test_what_an_export_samples_out_is_lost_to_it(self):
        # Single-packet flows; of the records 0 to 9 those are taken that 3 divides.
        collector = self.collector()
        found = self.run_over([v4(1000 + number) for number in range(10)], "-S", "3",
                              *self.export_words("netflow-v5", collector), "-E", "null")
        self.assertEqual(found.reasons(LOST, FIRST), {"sampling": 6})
        self.assertEqual((found.total(SENT, FIRST), packets_in(collector.finish())), (4, 4))
        self.assertEqual((found.total(SENT, SECOND), found.total(LOST, SECOND)), (10, 0))

    def test_frames_that_the_input_passes_over_are_received_and_sampled_out(self):
        # Every third of ten frames is delivered: 3, 6 and 9.
        frames = [v4(1000 + number) for number in range(10)]
        capture = self.file(pcap(timed(frames)))
        found = Sum(self.replay(capture, "-E", "null", options=",sampling=3").lines)
        found.check(self)
        self.assertEqual((found.total(RECEIVED), found.total(SAMPLED_OUT), found.total(HANDED)),
                         (10, 7, 3))
        self.assertEqual(found.total("kestrelexp_capture_bytes_total"), sum(map(len, frames)))

    def test_ipv6_under_netflow_v5_is_told(self):
        found = self.run_to_collector([v4(1)] * 4 + [v6(2)] * 5 + [v6(3)] * 6)
        self.assertEqual(found.reasons(LOST, FIRST), {"ip_version": 11})
        self.assertEqual(found.total("kestrelexp_export_lost_records_total", FIRST), 2)
        self.assertEqual(found.total(SENT, FIRST), 4)

    def test_flows_without_a_template_are_told(self):
        for kind, elements in (
                ("ipfix", "IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IN_PKTS=PACKETS"),
                ("netflow-v9", "IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IN_PKTS=PACKETS")):
            with self.subTest(kind=kind):
                templates = self.file(f"BEGIN-TEMPLATE\n{elements}\n", "templates")
                collector = self.collector()
                key = "template_file" if kind == "ipfix" else "template-file"
                found = self.run_over(
                    [v4(1)] * 4 + [v6(2)] * 5 + [v6(3)] * 6, "-E",
                    f"{kind}:host=127.0.0.1,ip=4,port={collector.port},{key}={templates}")
                self.assertEqual(found.reasons(LOST), {"no_template": 4})
                self.assertEqual(found.total(SENT), 11)
                self.assertEqual(found.total("kestrelexp_export_records_total"), 2)
                datagrams = collector.finish()
                self.assertEqual(found.total("kestrelexp_export_messages_total"), len(datagrams))
                self.assertEqual(found.total("kestrelexp_export_bytes_total"),
                                 sum(map(len, datagrams)))

    def test_a_cache_that_is_too_small_loses_no_packet(self):
        # 32 slots for 3,000 flows of two packets that are 1,500 frames apart.
        frames = [v4(1000 + number % 3000) for number in range(6000)]
        found = self.run_to_collector(frames, "-q", "5")
        self.assertEqual((found.total(RECEIVED), found.total(SENT, FIRST)), (6000, 6000))
        removed = found.reasons(FLOW_REMOVALS)
        self.assertEqual(set(removed), {"collision", "forced"})
        self.assertLessEqual(removed["forced"], 32)
        self.assertEqual(sum(removed.values()), found.total("kestrelexp_handed_records_total"))
        self.assertEqual(sum(found.reasons(PACKET_REMOVALS).values()), 6000)

    def test_removals_are_told_by_reason(self):
        # Port 1 ends after a minute, and its next flow at the end; port 2 is silent after 0 s.
        made = [(T * NS + second * NS, v4(port))
                for second, port in ((0, 1), (0, 2), (20, 1), (40, 1), (60, 1), (61, 1))]
        probe = self.replay(self.file(pcap(made)), "-t", "60:30", "-E", "null")
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.reasons(FLOW_REMOVALS), {"active": 1, "inactive": 1, "forced": 1})
        self.assertEqual(found.reasons(PACKET_REMOVALS), {"active": 3, "inactive": 1, "forced": 2})

    def test_messages_that_cannot_be_sent_are_lost_with_their_packets(self):
        # Nobody listens: the answer to the first message makes the second one fail, and so on.
        found = self.run_over([v4(1000 + number // 2) for number in range(180)], "-E",
                              f"netflow-v5:host=127.0.0.1,ip=4,port={free_udp_port()}")
        self.assertEqual(found.reasons(LOST), {"send": 60})
        self.assertEqual(found.total(SENT), 120)
        self.assertEqual(found.total("kestrelexp_export_messages_total"), 2)
        self.assertEqual(found.total("kestrelexp_export_failed_messages_total"), 1)
