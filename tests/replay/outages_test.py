"""A collector goes away for good: an interrupt ends the wait for it, and what is lost is said."""

import os
import signal
import socket
import struct
import time

from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp
from testbed.probe import FLUSHED
from testbed.process import SLOWNESS
from testbed.replay import ROOT, ReplayCase

CAUGHT = "CTRL-C detected, will exit as soon as possible"
FAILED = "Can't reconnect to collector"
T = 1_600_000_000
FLOWS = 500
PACKETS = [(T * NS, ethernet(ipv4(udp(1 + number, 53), "10.0.0.1", "10.0.0.2")))
           for number in range(FLOWS)]


class Outages(ReplayCase):
    def start_with_stream(self, *words):
        """A probe that reads frames from a pipe, and the end of the pipe to write them to."""
        reading, writing = os.pipe()
        stream = os.fdopen(writing, "wb", buffering=0)
        self.addCleanup(stream.close)
        probe = self.start("-", *words, stdin=reading)
        os.close(reading)
        return probe, stream

    def listen(self):
        listener = socket.create_server(("127.0.0.1", 0))
        listener.settimeout(20 * SLOWNESS)
        self.addCleanup(listener.close)
        return listener

    def export(self, listener):
        return ("-E", f"ipfix:host=127.0.0.1,ip=4,port={listener.getsockname()[1]},protocol=tcp,"
                      f"template_file={ROOT}/etc/ipfix-template.txt")

    def go_away(self, listener):
        """Resets the connection, so that the next send fails. Nobody listens from now on."""
        connection, _ = listener.accept()
        listener.close()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.close()

    def test_an_interrupt_ends_the_pause_and_all_records_are_accounted_for(self):
        listeners = [self.listen(), self.listen()]
        probe, stream = self.start_with_stream(*(word for listener in listeners
                                                 for word in self.export(listener)))
        stream.write(pcap(PACKETS[:1]))  # a replay starts with its first packet
        probe.wait_for_line("Kestrel OK")
        for listener in listeners:
            self.go_away(listener)
        stream.write(pcap(PACKETS[1:])[24:])
        stream.close()
        probe.wait_for_line(FAILED)
        start = time.monotonic()
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(20), 0, probe.describe())
        self.assertLess(time.monotonic() - start, 10 * SLOWNESS)
        self.assertIn(CAUGHT, probe.lines)
        self.assertEqual(probe.lines.count(
            f"Reconnect to collector interrupted, {FLOWS} records lost"), 2, probe.describe())
        # The second export's first attempt was its last.
        self.assertEqual(probe.lines.count(FAILED), 3, probe.describe())
        self.assertEqual(probe.lines[-1], FLUSHED, probe.describe())
