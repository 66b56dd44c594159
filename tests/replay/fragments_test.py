"""Fragments know no ports and no ICMP type, whatever packet was in their place before."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

from testbed.capture import NS, pcap
from testbed.frames import ethernet, icmp, ipv4
from testbed.netflow_v5 import decode
from testbed.replay import ReplayCase

PLACES = 64  # packets are taken in batches of so many


def echo_request(host, **options):
    return ethernet(ipv4(icmp(8, 0), f"10.0.0.{host}", "10.0.1.1", **options))


class Fragments(ReplayCase):
    def test_a_fragment_of_icmp_has_no_type(self):
        frames = [echo_request(1)] * PLACES + [echo_request(2, fragment_offset=10)]
        made = self.file(pcap((n * NS // 100, frame) for n, frame in enumerate(frames)))
        (_, records), = map(decode, self.export(made, "netflow-v5"))
        self.assertEqual(
            sorted((record.flow.source, record.flow.packets, record.flow.destination_port)
                   for record in records),
            [("10.0.0.1", 64, 0x0800), ("10.0.0.2", 1, 0)])
