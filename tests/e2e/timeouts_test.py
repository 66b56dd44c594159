"""Flows that leave by themselves, while the probe goes on."""

# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import time

from testbed.case import E2eCase
from testbed.flow_model import Flow, predict
from testbed.frames import ethernet, ipv4, udp
from testbed.probe import netflow_v5
from testbed.process import settle

A, B = "10.0.0.1", "10.0.0.2"


class Timeouts(E2eCase):
    # Not under the thread sanitizer: as idle_flows_leave_while_others_go_on.
    def test_idle_flows_leave_without_any_traffic(self):
        collector = self.collector()
        probe = self.probe("-t", "4:1", *netflow_v5(collector.port))
        frames = [ethernet(ipv4(udp(1000 + number, 53), A, B)) for number in range(90)]
        self.sender.send(*frames)
        began = time.monotonic()
        # One second idle, three looks of the remover a quarter of a second apart, and the packet
        # of the last 30 waits for a 91st flow: so 60 flows within a few seconds.
        collector.wait_for_flows(60, timeout=4)
        self.assertGreaterEqual(time.monotonic() - began, 1.0)
        self.assertTrue(probe.running)
        self.stop_in_order(probe, collector)
        self.assert_flows(collector.flows, predict(frames))

    def test_idle_flows_leave_while_others_go_on(self):
        collector = self.collector()
        probe = self.probe("-q", "10", "-t", "60:1", *netflow_v5(collector.port))
        idle = [ethernet(ipv4(udp(1000 + number, 53), A, B)) for number in range(31)]
        busy = ethernet(ipv4(udp(1, 2), A, B))
        self.sender.send(*idle)
        deadline = time.monotonic() + 20
        sent = 0
        while len(collector.records) < 30:
            self.assertLess(time.monotonic(), deadline)
            self.sender.send(busy)
            sent += 1
            collector.drain(0.001)
        self.stop_in_order(probe, collector)
        self.assert_flows(collector.flows, predict(idle + [busy] * sent))

    # Not under the thread sanitizer: as idle_flows_leave_while_others_go_on.
    def test_a_flow_that_lasts_leaves_in_pieces(self):
        collector = self.collector()
        probe = self.probe("-t", "4:3", *netflow_v5(collector.port))
        began = time.monotonic()
        for due in (0, 1, 2, 3, 4.5, 5.5):
            time.sleep(max(0, began + due - time.monotonic()))
            self.sender.send(ethernet(ipv4(udp(1, 2), A, B)))
        self.stop_in_order(probe, collector)
        # The first packet 4 s or more after the start of the flow begins the next one.
        self.assert_flows(collector.flows, {Flow(A, B, 17, 1, 2, 0, 0, 4, 112): 1,
                                            Flow(A, B, 17, 1, 2, 0, 0, 2, 56): 1})
        first, second = collector.records
        self.assertAlmostEqual(first.last_ms - first.first_ms, 3000, delta=300)
        self.assertAlmostEqual(second.first_ms - first.first_ms, 4500, delta=300)

    # Not under the thread sanitizer: as idle_flows_leave_while_others_go_on.
    def test_a_quiet_line_makes_the_exports_flush(self):
        collector = self.collector()
        probe = self.probe("-t", "4:1", *netflow_v5(collector.port))
        frame = ethernet(ipv4(udp(1, 2), A, B))
        self.sender.send(frame)
        collector.wait_for_flows(1, timeout=15)
        self.assertTrue(probe.running)
        self.assert_flows(collector.flows, predict([frame]))

    def test_the_smallest_cache_keeps_every_packet(self):
        collector = self.collector()
        probe = self.probe("-q", "5", *netflow_v5(collector.port))
        frames = [ethernet(ipv4(udp(1000 + number, 53), A, B)) for number in range(2000)]
        self.sender.send(*frames)
        settle()
        collector.drain()
        self.assertGreaterEqual(len(collector.records), 2000 - 32 - 30)
        self.stop_in_order(probe, collector)
        self.assert_flows(collector.flows, predict(frames))
