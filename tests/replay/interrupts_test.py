"""An interrupt ends a replay in order, wherever it is."""

import os
import signal
import struct
import threading
import time

from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp
from testbed.netflow_v5 import decode
from testbed.probe import FLUSHED
from testbed.process import settle
from testbed.replay import ReplayCase

CAUGHT = "CTRL-C detected, will exit as soon as possible"
T = 1_600_000_000


def frame(port):
    return ethernet(ipv4(udp(port, 53), "10.0.0.1", "10.0.0.2"))


class Pipe:
    """Standard input of a probe."""

    def __init__(self, case):
        self.reading, self._writing = os.pipe()
        case.addCleanup(self.close)

    def write(self, data):
        while data:
            data = data[os.write(self._writing, data):]

    def write_on_and_on(self, piece):
        """From a thread of its own, until nobody reads any more."""
        def run():
            try:
                while True:
                    self.write(piece)
            except OSError:
                pass
        threading.Thread(target=run, daemon=True).start()

    def let_go(self):
        """The reading end is the probe's alone from now on."""
        os.close(self.reading)
        self.reading = None

    def close(self):
        for end in (self.reading, self._writing):
            if end is not None:
                os.close(end)
        self.reading = self._writing = None


class Interrupts(ReplayCase):
    def start_on_pipe(self, *arguments):
        pipe = Pipe(self)
        probe = self.start("-", *arguments, stdin=pipe.reading)
        pipe.let_go()
        return probe, pipe

    def stop(self, probe, number=signal.SIGINT):
        probe.signal(number)
        self.assertEqual(probe.wait(20), 0, probe.describe())
        self.assertEqual(probe.lines[-1], FLUSHED, probe.describe())
        self.assertIn(CAUGHT, probe.lines)

    def test_a_silent_pipe_gives_what_came_through_it(self):
        collector = self.collector()
        probe, pipe = self.start_on_pipe(*self.export_words("netflow-v5", collector))
        pipe.write(pcap([(T * NS, frame(1)), (T * NS, frame(2)), (T * NS, frame(1))]))
        probe.wait_for_line("Kestrel OK")
        settle(0.2)
        self.stop(probe)
        self.assertEqual(self.totals(probe), (3, 3, 2, 0))
        header, _ = decode(*collector.finish())
        self.assertEqual((header.count, header.seconds), (2, T))

    # Not under the thread sanitizer: as a_silent_pipe_gives_what_came_through_it.
    def test_a_frame_that_has_come_in_part_is_left_out(self):
        probe, pipe = self.start_on_pipe("-E", "null")
        pipe.write(pcap([(T * NS, frame(1)), (T * NS, frame(2))])[:-7])
        probe.wait_for_line("Kestrel OK")
        settle(0.2)
        self.stop(probe)
        self.assertEqual(self.totals(probe), (1, 1, 1, 0))
        self.assertNotIn("breaks off", probe.log)

    # Not under the address sanitizer: it waits for an alarm.
    # Not under the thread sanitizer: it waits for an alarm.
    def test_a_pipe_that_says_nothing_at_all_is_an_input_without_frames(self):
        probe, _ = self.start_on_pipe("-E", "null")
        probe.wait_for_line("Plugin to load")
        time.sleep(6)  # the alarm of every fifth second comes in between
        self.stop(probe)
        self.assertEqual(self.totals(probe), (0, 0, 0, 0))

    def fifo(self, name):
        path = self.directory / name
        os.mkfifo(path)
        return path

    # Not under the address sanitizer: it waits for an alarm.
    # Not under the thread sanitizer: it waits for an alarm.
    def test_a_fifo_without_a_writer_is_an_input_without_frames(self):
        probe = self.start(self.fifo("silent"), "-E", "null")
        probe.wait_for_line("Plugin to load")
        time.sleep(6)  # the alarm of every fifth second comes in between
        self.stop(probe)
        self.assertEqual(self.totals(probe), (0, 0, 0, 0))

    def test_a_termination_ends_the_wait_for_a_writer_too(self):
        probe = self.start(self.fifo("silent"), "-E", "null")
        probe.wait_for_line("Plugin to load")
        settle(0.3)
        self.stop(probe, signal.SIGTERM)
        self.assertEqual(self.totals(probe), (0, 0, 0, 0))

    def test_a_fifo_waits_for_its_writer_and_is_read_to_its_end(self):
        path = self.fifo("late")
        probe = self.start(path, "-E", "null")
        probe.wait_for_line("Plugin to load")
        settle(0.3)
        with open(path, "wb") as writer:
            settle(0.3)
            writer.write(pcap([(T * NS, frame(1)), (T * NS, frame(2))]))
        self.assertEqual(probe.wait(20), 0, probe.describe())
        self.assertEqual(self.totals(probe), (2, 2, 2, 0))

    # Not under the thread sanitizer: as a_silent_pipe_gives_what_came_through_it.
    def test_a_fifo_whose_writer_writes_nothing_is_no_capture(self):
        path = self.fifo("empty")
        probe = self.start(path, "-E", "null")
        with open(path, "wb"):
            pass
        self.assertEqual(probe.wait(20), 255, probe.describe())
        self.assertIn(f"Capture file {path}: truncated dump file;", probe.log)

    # Not under the thread sanitizer: as a_silent_pipe_gives_what_came_through_it.
    def test_a_filter_that_does_not_come_is_not_waited_for(self):
        capture = self.file(pcap([(T * NS, frame(1))]))
        probe = self.start(capture, "-E", "null",
                           options=f",filter-file={self.fifo('filter')}")
        probe.wait_for_line("Plugin to load")
        settle(0.3)
        self.stop(probe)
        self.assertEqual(self.totals(probe), (0, 0, 0, 0))
        self.assertNotIn("Filter file", probe.log)

    def test_in_the_middle_of_a_stream_nothing_that_was_read_is_lost(self):
        # Each round of 200 flows lies a minute after the one before.
        collector = self.collector()
        probe, pipe = self.start_on_pipe(*self.export_words("netflow-v5", collector))
        rounds = [(T * NS + 60 * NS * turn, frame(1 + number))
                  for turn in range(20) for number in range(200)]
        pipe.write(pcap(rounds))
        pipe.write_on_and_on(pcap([(T * NS + 3600 * NS, frame(number)) for number in range(50)])
                             [24:])
        collector.wait_for_one()
        self.stop(probe)
        read, in_flows, flows, no_flow = self.totals(probe)
        self.assertEqual((in_flows, no_flow), (read, 0))
        self.assertGreater(read, 200)  # flows of the first round left because of the second
        datagrams = collector.finish()
        records = [record for datagram in datagrams for record in decode(datagram)[1]]
        last = struct.unpack_from(">I", datagrams[-1], 16)[0]
        self.assertEqual(last + decode(datagrams[-1])[0].count, flows)
        if len(records) == flows:  # the socket had room for all of them
            self.assertEqual(sum(record.flow.packets for record in records), read)

    def test_a_second_interrupt_ends_at_once(self):
        probe, _ = self.start_on_pipe("-E", "null")
        probe.wait_for_line("Plugin to load")
        settle(0.2)
        probe.signal(signal.SIGINT, signal.SIGQUIT)
        self.assertEqual(probe.wait(), 42, probe.describe())
