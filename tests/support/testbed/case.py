"""The frame of every whole-program test: a private network, a sender, collectors, a probe."""

import tempfile
import unittest
from collections import Counter
from pathlib import Path

from testbed.netflow_v5 import Collector
from testbed.network import FrameSender, enter_private_network
from testbed.probe import FLUSHED, Probe
from testbed.process import settle


class E2eCase(unittest.TestCase):
    """Each test has a namespace of its own; whatever it opened is closed behind it."""

    maxDiff = None

    def setUp(self):
        enter_private_network()
        self.sender = FrameSender()
        self.addCleanup(self.sender.close)

    def directory(self):
        """A directory that is removed behind the test."""
        holder = tempfile.TemporaryDirectory(prefix="kestrel-e2e-")
        self.addCleanup(holder.cleanup)
        return Path(holder.name)

    def collector(self, **expected):
        collector = Collector(**expected)
        self.addCleanup(collector.close)
        return collector

    def probe(self, *arguments, **options):
        """Starts the probe and waits until it captures."""
        probe = Probe(*arguments, **options)
        self.addCleanup(probe.kill)
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
