"""The frames of the tests that run the program: its network, its directories, its end."""

import signal
import tempfile
import unittest
from collections import Counter
from pathlib import Path

from testbed.netflow_v5 import Collector
from testbed.network import PROBED, FrameSender, enter_private_network, enter_quiet_network
from testbed.probe import FLUSHED, READY, Probe
from testbed.process import settle


class Case(unittest.TestCase):
    """Whatever a test opened is closed after it."""

    maxDiff = None

    def directory(self):
        """A directory that is removed after the test."""
        holder = tempfile.TemporaryDirectory(prefix="kestrel-test-")
        self.addCleanup(holder.cleanup)
        return Path(holder.name)

    def start_program(self, *arguments, **options):
        probe = Probe(*arguments, **options)
        self.addCleanup(probe.kill)
        return probe


class QuietCase(Case):
    """Each test has a namespace of its own, with nothing but loopback."""

    def setUp(self):
        enter_quiet_network()

    def interrupt(self, probe):
        """Ends the program in order; returns its messages."""
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 0, probe.describe())
        return probe.messages


class E2eCase(Case):
    """Each test has a namespace of its own, with a veth pair between a sender and the probe."""

    def setUp(self):
        enter_private_network()
        self.sender = FrameSender()
        self.addCleanup(self.sender.close)

    def collector(self, **expected):
        collector = Collector(**expected)
        self.addCleanup(collector.close)
        return collector

    def probe(self, *arguments, device=PROBED, input_options="", source=None, ready=True,
              **options):
        """Starts the probe on its end of the pair, or with another input (the words up to its -I),
        and waits until it captures."""
        source = source or ("-I", f"pcap:device={device}{input_options}")
        probe = self.start_program("-v", "0", *source, *arguments, **options)
        if ready:
            probe.wait_for_line(READY)
        return probe

    def stop_in_order(self, probe, *collectors, **options):
        """Lets the probe take up what was sent, ends it, and drains the collectors."""
        settle()
        status = probe.stop(**options)
        self.assertEqual(status, 0, probe.describe())
        self.assertIn(FLUSHED, probe.lines, probe.describe())
        for collector in collectors:
            collector.drain()

    def assert_flows(self, actual, expected):
        """Two multisets of flows are equal; says which flows are missing and which too many."""
        expected = Counter(expected)
        missing, surplus = expected - actual, actual - expected
        if missing or surplus:
            lines = [f"missing {count} x {flow}" for flow, count in missing.items()]
            lines += [f"surplus {count} x {flow}" for flow, count in surplus.items()]
            self.fail("flows differ\n" + "\n".join(lines))
