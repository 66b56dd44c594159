"""More than the probe can take: what it has not taken is counted, to the frame."""

# Runs alone: it sends as fast as it can, and a frame that is lost is to be one of the probe's ring.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it is about speed, and its frames are plain.

import signal

from testbed.accounts import DROPPED, LOST, RECEIVED, SENT, UNREAD, Sum
from testbed.case import E2eCase
from testbed.flow_model import packets_and_octets
from testbed.network import blast, received_frames
from testbed.probe import ipfix, netflow_v5
from testbed.process import settle, status_field, wait_until
from testbed.stream_collector import StreamCollector

V5 = 'export="netflow-v5-0"'
FLOW_REMOVALS = "kestrelexp_cache_removed_flows_total"


class Overload(E2eCase):
    def sum_of(self, probe):
        found = Sum(probe.lines)
        found.check(self)
        return found

    def stop_still(self, probe):
        probe.signal(signal.SIGSTOP)
        wait_until(lambda: status_field(probe.pid, "State")[0] == "T", "standstill")

    def test_a_starved_probe_counts_what_the_kernel_dropped(self):
        collector = self.collector()
        probe = self.probe("-q", "17", "-t", "600:300", *netflow_v5(collector.port))
        for _ in range(3):
            # Its ring of 2 MiB holds a fraction of that.
            self.stop_still(probe)
            blast(60_000, 200_000)
            probe.signal(signal.SIGCONT)
            settle(1)
        self.stop_in_order(probe, meanwhile=lambda: collector.drain(0.05))
        collector.drain()
        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 180_000)
        self.assertGreater(found.total(DROPPED, 'stage="ring"'), 10_000)
        self.assertEqual(found.total(DROPPED, 'stage="card"'), 0)
        self.assertGreater(found.total(RECEIVED), 10_000)
        self.assertEqual(found.total(LOST), 0)
        exported = packets_and_octets(collector.flows)[0]
        self.assertEqual(180_000, exported + found.kept_from(V5))

    def test_an_interrupt_in_the_middle_tells_what_nobody_has_read(self):
        collector = self.collector()
        probe = self.probe("-q", "17", "-t", "600:300", *netflow_v5(collector.port))
        blast(5_000, 20_000)
        self.stop_still(probe)
        blast(60_000, 200_000)
        probe.signal(signal.SIGINT)
        probe.signal(signal.SIGCONT)
        wait_until(lambda: collector.drain(0.05) or not probe.running, "its end")
        self.assertEqual(probe.wait(), 0, probe.describe())
        collector.drain()
        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 65_000)
        self.assertGreater(found.total(DROPPED), 1000)
        self.assertEqual(65_000, sum(map(found.total, (RECEIVED, DROPPED, UNREAD))))
        self.assertEqual(65_000, packets_and_octets(collector.flows)[0] + found.kept_from(V5))

    def test_100000_flows_through_a_cache_of_256(self):
        collector, stream = self.collector(), StreamCollector()
        self.addCleanup(stream.close)
        probe = self.probe("-q", "8", *netflow_v5(collector.port),
                           *ipfix(stream.port, ",protocol=tcp"))
        blast(100_000, 40_000)
        self.stop_in_order(probe, meanwhile=lambda: collector.drain(0.05))
        collector.drain()
        stream.drain()
        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 100_000)
        # One packet a flow; 256 at most are there at the end.
        removed = found.reasons(FLOW_REMOVALS)
        self.assertEqual(sum(removed.values()), found.total(RECEIVED))
        self.assertGreater(removed["collision"], 50_000)
        self.assertLessEqual(removed["forced"], 256)
        for export, exported in ((V5, packets_and_octets(collector.flows)[0]),
                                 ('export="ipfix-1"', stream.packets)):
            self.assertEqual(found.total(SENT, export), exported)
            self.assertEqual(100_000, exported + found.kept_from(export), export)
