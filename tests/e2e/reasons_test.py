"""Known traffic through several exports at once: each packet that one of them has not sent is
counted under the reason that was worked out by hand."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from testbed.accounts import DISCARDED, DROPPED, LOST, RECEIVED, SAMPLED_OUT, SENT, Sum
from testbed.case import E2eCase
from testbed.returning_collector import ReturningCollector
from testbed.flow_model import packets_and_octets
from testbed.flow_sets import Reader
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.netflow_v5 import SAMPLING_MODE
from testbed.network import received_frames
from testbed.probe import ipfix, netflow_v5, netflow_v9
from testbed.process import settle
from testbed.stream_collector import StreamCollector

V5, V9, IPFIX, NULL = (f'export="{name}"' for name in (
    "netflow-v5-0", "netflow-v9-1", "ipfix-2", "null-3"))

# A quarter of the flows has source port 1001.
V4_FLOWS = [ethernet(ipv4(udp(1000 + n % 4, 53), f"10.0.{n // 200}.{n % 200}", "10.9.9.9"))
            for n in range(600)]
V6_FLOWS = [ethernet(ipv6(tcp(1000 + n % 4, 443), f"2001:db8::{n + 1:x}", "2001:db8::"))
            for n in range(200)]
NO_IP = ethernet(arp_request())
CUT = V4_FLOWS[0][:14]  # no byte of the IP header
DELIVERED = V4_FLOWS * 2 + V6_FLOWS * 3 + [NO_IP] * 30 + [CUT] * 20


def records_and_packets(datagrams):
    reader = Reader()
    messages = [reader.read(datagram) for datagram in datagrams]
    return (sum(message.records for message in messages),
            sum(message.packets for message in messages))


class Reasons(E2eCase):
    def opened(self, kind, **options):
        collector = kind(**options)
        self.addCleanup(collector.close)
        return collector

    def test_every_reason_at_once(self):
        rules, templates = self.directory() / "rules", self.directory() / "templates"
        rules.write_text("src port 1001\n", encoding="ascii")
        templates.write_text("BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IN_PKTS=PACKETS\n",
                             encoding="ascii")
        v5 = self.collector(sampling=SAMPLING_MODE | 2)
        v9, sampled = self.opened(ReturningCollector), self.opened(ReturningCollector)
        probe = self.probe("-F", f"filter:{rules}", *netflow_v5(v5.port),
                           *netflow_v9(v9.port, f",template-file={templates}"),
                           "-S", "3", *ipfix(sampled.port), "-E", "null",
                           input_options=",sampling=2")
        # The input delivers the second of every two frames.
        self.sender.send(*[frame for frame in DELIVERED for _ in range(2)])
        self.stop_in_order(probe, v5, v9, sampled)
        found = Sum(probe.lines)
        found.check(self)

        frames = 2 * (1200 + 600 + 30 + 20)
        self.assertEqual(received_frames(), frames)
        self.assertEqual((found.total(RECEIVED), found.total(SAMPLED_OUT), found.total(DROPPED)),
                         (frames, frames // 2, 0))
        self.assertEqual(found.reasons(DISCARDED), {"not_ip": 30, "truncated": 20})
        # Of 1,800 packets the rules leave 150 flows of two, and 50 flows of three with IPv6.
        self.assertEqual(found.reasons(LOST, V5), {"filter": 1350, "ip_version": 150})
        self.assertEqual(packets_and_octets(v5.flows)[0], 300)
        self.assertEqual(found.reasons(LOST, V9), {"no_template": 600})
        self.assertEqual(records_and_packets(v9.datagrams), (600, 1200))
        # Every third of 800 records, beginning with the first.
        records, packets = records_and_packets(sampled.datagrams)
        self.assertEqual(records, 267)
        self.assertEqual(found.reasons(LOST, IPFIX), {"sampling": 1800 - packets})
        self.assertEqual(found.total(SENT, NULL), 1800)
        for export, exported in ((V5, 300), (V9, 1200), (IPFIX, packets), (NULL, 1800)):
            self.assertEqual(frames, exported + found.kept_from(export), export)

    def test_quiet_traffic_reaches_every_collector_without_a_loss(self):
        v5, v9 = self.collector(), self.opened(ReturningCollector)
        stream = self.opened(StreamCollector)
        probe = self.probe("-t", "60:1", *netflow_v5(v5.port), *netflow_v9(v9.port),
                           *ipfix(stream.port, ",protocol=tcp"))
        for first in range(0, 600, 100):
            self.sender.send(*V4_FLOWS[first:first + 100] * 2)
            settle(0.4)
        self.stop_in_order(probe, v5, v9)
        stream.drain()
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(packets_and_octets(v5.flows)[0], 1200)
        self.assertEqual(records_and_packets(v9.datagrams)[1], 1200)
        self.assertEqual(stream.packets, 1200)
        for export in found.exports():
            self.assertEqual((found.total(SENT, export), found.kept_from(export)), (1200, 0))
