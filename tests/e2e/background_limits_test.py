"""Exports in the background, and the time limits of their connections: a collector that takes
nothing, and one whose host vanishes, are left within seconds."""

# Few others beside it: ten thousand frames a second for seventeen seconds, and none is dropped.
# Not under the thread sanitizer: it waits for time limits, with the threads of background_test.
# Not under the address sanitizer: it waits for time limits, with the messages of background_test.

import socket
import time

from testbed.accounts import DROPPED, LOST
from testbed.background import (BACKGROUND, LARGE, ONE, SMALL, SOME, TCP, BackgroundCase, flows,
                                messages)
from testbed.flow_sets import Reader
from testbed.network import blast
from testbed.probe import ipfix
from testbed.process import SLOWNESS, wait_until


class BackgroundLimits(BackgroundCase):
    def test_a_shut_window_holds_up_nobody_else(self):
        healthy, stalled = self.datagrams(), self.stream(room=4096)
        probe = self.probe(*ipfix(stalled.port, TCP + ",queue=1,drain=1"),
                           *ipfix(healthy.port, BACKGROUND), source=LARGE)
        blast(SOME, 20_000)
        wait_until(lambda: stalled.packets > SOME - 200, "the first flows")
        stalled.stall()
        total = SOME
        start = time.monotonic()
        while time.monotonic() < start + 17:  # it is left after 15 s, and connected to again
            blast(30_000, 10_000)
            total += 30_000
            healthy.drain()
        probe.wait_for_line("no collector (it takes nothing), trying again (1 times)")
        self.end_in_time(probe, 4)
        healthy.drain()
        stalled.read_on()
        stalled.drain()
        found = self.sum_of(probe, total)
        other = 'export="ipfix-1"'
        self.assertEqual(found.total(DROPPED), 0)
        self.assertEqual(found.total(LOST, other), 0)
        self.assertEqual(sum(message.packets for message in messages(healthy, Reader)), total)
        self.assertEqual(set(found.reasons(LOST, ONE)),
                         {"queue_full", "unacknowledged", "not_drained"})
        self.assertEqual(total, stalled.packets + found.kept_from(ONE))

    def test_a_host_that_vanishes_is_noticed_within_twenty_seconds(self):
        far = self.far_machine()
        idle, busy = (far.socket(self.listen) for _ in range(2))
        words = [word.replace("127.0.0.1", far.address) for listener in (idle, busy)
                 for word in ipfix(listener.getsockname()[1], TCP + ",drain=0")]
        # The first has no traffic: a filter that keeps nothing is in front of it.
        rules = self.directory() / "rules"
        rules.write_text("dst port 9\n")
        probe = self.probe("-F", f"filter:{rules}", *words, source=SMALL)
        for listener in (idle, busy):
            peer, _ = listener.accept()
            self.addCleanup(peer.close)
        self.sender.send(*flows(1))
        time.sleep(1)
        far.run("ip link set far down")
        start = time.monotonic()
        self.sender.send(*flows(2))
        wait_until(lambda: probe.log.count("no collector (") == 2, probe.describe(), 21)
        self.assertGreater(time.monotonic() - start, 5)
        self.end_in_time(probe, 3)
        self.sum_of(probe, 2 * SOME)

    @staticmethod
    def listen(address):
        listener = socket.create_server((address, 0))
        listener.settimeout(20 * SLOWNESS)
        return listener
