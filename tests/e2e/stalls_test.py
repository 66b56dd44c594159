"""Collectors over TCP that are there and do not take what they get: one that closes each connection
at once, one that reads nothing for a while. Nothing of it is silent, and nothing is left out."""

# Few others beside it: it measures processor time, and fills the capture ring.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it measures processor time, and its frames are plain.

import os
import re
import signal
import socket
import threading
import time

from testbed.accounts import DROPPED, LOST, SENT, Sum
from testbed.case import E2eCase
from testbed.flow_sets import Reader, split_stream
from testbed.network import PROBED, blast, blaster, limit_send_buffers, received_frames
from testbed.probe import ipfix
from testbed.process import WatchedProcess, settle, wait_until
from testbed.stream_collector import StreamCollector
from testbed.wire import LoopbackWitness

ONE = 'export="ipfix-0"'
DROPS_TOLD = re.compile(
    r"VERBOSE: 0:Packets lost in the last \d+ s: (\d+), "
    r'kestrelexp_capture_dropped_packets_total\{input="pcap",stage="ring"\}')
STALL_S = 25  # statistics come every eleven seconds


class ClosingCollector:
    """Accepts and closes at once."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self.count = 0  # connections so far
        self._is_closed = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._is_closed.is_set():
            try:
                self._listener.accept()[0].close()
                self.count += 1
            except TimeoutError:
                pass

    def close(self):
        self._is_closed.set()
        self._thread.join()
        self._listener.close()


def cpu_seconds(pid):
    """Processor time of a process so far."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as status:
        fields = status.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Stalls(E2eCase):
    def sum_of(self, probe):
        found = Sum(probe.lines)
        found.check(self)
        return found

    def start_stall(self):
        """A probe, and its collector that has taken some of 2,000 flows and reads no more. Both
        ends of the connection hold a fraction of what the tests send after that."""
        limit_send_buffers(16_384)
        collector = StreamCollector(room=4096)
        self.addCleanup(collector.close)
        probe = self.probe(*ipfix(collector.port, ",protocol=tcp"),
                           source=("-q", "8", "-I", f"pcap:device={PROBED}"))
        blast(2000, 20_000)
        wait_until(lambda: collector.packets > 1000, "packets")
        collector.stall()
        return probe, collector

    def test_a_collector_that_closes_at_once_is_told_of_while_the_probe_runs(self):
        wire, collector = LoopbackWitness(), ClosingCollector()
        self.addCleanup(wire.finish)
        self.addCleanup(collector.close)
        probe = self.probe(*ipfix(collector.port, ",protocol=tcp"),
                           source=("-q", "6", "-I", f"pcap:device={PROBED}"))
        blast(24_000, 2_000)  # a word about losses comes every ten seconds
        probe.wait_for_line("Packets lost in the last 10 s: ", timeout=5)
        told = [int(match[1]) for line in probe.lines if (match := re.fullmatch(
            f"VERBOSE: 0:Export ipfix to 127.0.0.1 port {collector.port}: sending failed "
            r"\((?:Broken pipe|Connection reset by peer)\), connected again \((\d+) times\)",
            line))]
        # At once, and again ten seconds later with all that came up in between.
        self.assertEqual((len(told), told[0]), (2, 1))
        self.assertGreater(told[1], 50)
        self.stop_in_order(probe)
        wire.finish()

        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 24_000)
        self.assertEqual(found.total("kestrelexp_export_reconnects_total"), collector.count - 1)
        self.assertGreater(found.total(LOST, ONE), 1000)
        # What nobody read was on the wire all the same.
        streams = [split_stream(stream) for stream in wire.streams(collector.port)]
        self.assertEqual({rest for _, rest in streams}, {b""})
        nobodys = sum(message.packets for whole, _ in streams
                      for message in map(Reader().read, whole))
        self.assertEqual(found.total(SENT, ONE), nobodys)
        self.assertEqual(24_000, nobodys + found.kept_from(ONE))

    def test_a_shut_window_stops_neither_statistics_nor_accounts(self):
        probe, collector = self.start_stall()
        blast(60_000, 60_000)  # more than the window, the rings, and the kernel's ring take

        lines, cpu_before, start = len(probe.lines), cpu_seconds(probe.pid), time.monotonic()
        more = WatchedProcess(blaster(500 * STALL_S, 500))
        self.addCleanup(more.kill)
        self.assertEqual(more.wait(STALL_S + 20), 0)
        share = (cpu_seconds(probe.pid) - cpu_before) / (time.monotonic() - start)
        self.assertLess(share, 0.03)
        statistics = [line for line in probe.lines[lines:]
                      if re.match(r"VERBOSE: 0:stat *\d", line)]
        self.assertGreaterEqual(len(statistics), 2, probe.describe())
        self.assertEqual({int(line.split(",")[2]) for line in statistics[1:]}, {0}, "flows left")
        told = sum(int(match[1]) for line in probe.lines if (match := DROPS_TOLD.fullmatch(line)))

        collector.read_on()
        collector.drain(1)
        self.stop_in_order(probe)
        collector.drain()
        found = self.sum_of(probe)
        frames = 2000 + 60_000 + 500 * STALL_S
        self.assertEqual(received_frames(), frames)
        # A word about losses comes every ten seconds, also while nothing moves.
        self.assertGreater(told, 30_000)
        self.assertGreaterEqual(told, found.total(DROPPED, 'stage="ring"') - 500 * 12)
        self.assertEqual(found.total(LOST, ONE), 0)
        self.assertEqual(found.total(SENT, ONE), collector.packets)
        self.assertEqual(frames, collector.packets + found.kept_from(ONE))

    def test_an_interrupt_in_a_stall_waits_for_the_collector(self):
        probe, collector = self.start_stall()
        blast(60_000, 60_000)
        probe.signal(signal.SIGINT)
        settle(2)
        self.assertTrue(probe.running)
        collector.read_on()
        self.assertEqual(probe.wait(), 0, probe.describe())
        collector.drain()
        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 62_000)
        self.assertGreater(found.total(DROPPED), 10_000)
        self.assertEqual(found.total(SENT, ONE), collector.packets)
        self.assertEqual(62_000, collector.packets + found.kept_from(ONE))
