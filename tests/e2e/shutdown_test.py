"""How the probe ends: in order with every flow, or at once when told twice."""

import os
import signal

from testbed.accounts import without_sum
from testbed.case import E2eCase
from testbed.flow_model import packets_and_octets, predict
from testbed.frames import ethernet, ipv4, udp
from testbed.probe import FLUSHED, netflow_v5
from testbed.process import settle

A, B = "10.0.0.1", "10.0.0.2"
CAUGHT = "CTRL-C detected, will exit as soon as possible"
DOOMED = "Ok. Ok. Exiting now. You will be DOOMED for it"


class Shutdown(E2eCase):
    def test_nothing_sent_before_the_interrupt_is_lost(self):
        frames = [ethernet(ipv4(udp(1000 + number % 1500, 53, b"x" * (number % 97)), A, B))
                  for number in range(6000)]
        collector = self.collector()
        probe = self.probe(*netflow_v5(collector.port))
        self.sender.send(*frames)
        self.stop_in_order(probe, collector)
        self.assertEqual(packets_and_octets(collector.flows),
                         (6000, sum(28 + number % 97 for number in range(6000))))
        self.assert_flows(collector.flows, predict(frames))

    # Not under the address sanitizer: it looks at lines alone.
    def test_the_end_is_told_in_this_order(self):
        probe = self.probe("-E", "null")
        self.sender.send(ethernet(ipv4(udp(1, 2), A, B)), ethernet(ipv4(udp(3, 4), A, B)))
        self.stop_in_order(probe)
        lines = without_sum(probe.lines)
        self.assertEqual(lines[lines.index(CAUGHT):],
                         [CAUGHT, "Flushing queue", "Queue flushed. 2 records out.", FLUSHED])

    # Not under the address sanitizer: it looks at lines alone.
    def test_an_end_without_traffic_flushes_nothing(self):
        probe = self.probe("-E", "null")
        self.stop_in_order(probe)
        self.assertIn("Queue flushed. 0 records out.", probe.lines)

    # Not under the address sanitizer: it looks at lines alone.
    # Not under the thread sanitizer: it ends as an interrupt does.
    def test_sigquit_ends_in_order_too(self):
        probe = self.probe("-E", "null")
        probe.signal(signal.SIGQUIT)
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertIn(FLUSHED, probe.lines)

    def test_a_second_interrupt_ends_at_once(self):
        # The export sleeps over its flow for a minute, so that the end in order is under way.
        probe = self.probe("-X", os.environ["KESTREL_SLOW_EXPORT"],
                           "-E", "slow_export:every=1,pause_ms=60000")
        self.sender.send(ethernet(ipv4(udp(1, 2), A, B)))
        settle()
        probe.signal(signal.SIGINT)
        probe.wait_for_line("slow_export: pause")
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 42, probe.describe())
        self.assertIn(DOOMED, probe.lines)
        self.assertNotIn(FLUSHED, probe.lines)
