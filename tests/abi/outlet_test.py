"""An export in C11 that writes through an outlet into a pipe: what waits, what is lost, and why."""

import os
import time

from abi import Run
from testbed.accounts import LOST, SENT, Sum
from testbed.process import SLOWNESS, wait_until

ONE = 'export="pipe-lines-0"'
# Of the queue's 16,384 bytes a line takes 56 or 64.
IN_QUEUE = range(240, 300)


class Outlet(Run):
    """The input "final" delivers flows of 1, 2, 3, ... packets."""

    def setUp(self):
        super().setUp()
        self.pipe = self.folder / "pipe"
        os.mkfifo(self.pipe)

    def start_lines(self, count):
        running = self.start("final pipe_lines collect",
                             f"-v 0 -I final:count={count} -E pipe-lines:{self.pipe} "
                             f"-E collect:file={self.out}")
        self.wait_for_records(count)  # the export after it has had the last one
        return running

    def sum_of(self, probe, count):
        probe.signal()
        self.assertEqual(probe.wait(), 0, probe.describe())
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total("kestrelexp_handed_packets_total"), count * (count + 1) // 2)
        return found

    def test_a_pipe_that_is_read_gets_every_line(self):
        reader = os.open(self.pipe, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        probe = self.start_lines(200)
        found = self.sum_of(probe, 200)
        self.assertEqual(os.read(reader, 1 << 16).decode().splitlines(),
                         [f"{n} {n * 100}" for n in range(1, 201)])
        self.assertEqual(found.reasons(LOST, ONE), {})

    def test_without_a_reader_the_queue_fills_and_the_newest_are_dropped(self):
        probe = self.start_lines(1000)
        reader = os.open(self.pipe, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        read = b""

        def is_there():
            nonlocal read
            try:
                read += os.read(reader, 1 << 16)
            except BlockingIOError:
                pass
            return read.count(b"\n") in IN_QUEUE

        wait_until(is_there, "lines")
        found = self.sum_of(probe, 1000)
        is_there()
        lines = read.decode().splitlines()
        self.assertEqual(lines, [f"{n} {n * 100}" for n in range(1, len(lines) + 1)])
        sent = sum(range(1, len(lines) + 1))
        self.assertEqual(found.total(SENT, ONE), sent)
        self.assertEqual(found.reasons(LOST, ONE), {"queue_full": 500_500 - sent})

    def test_what_waits_at_the_end_is_counted_after_the_drain(self):
        probe = self.start_lines(100)
        start = time.monotonic()
        found = self.sum_of(probe, 100)
        self.assertGreater(time.monotonic() - start, 0.9)
        self.assertLess(time.monotonic() - start, 5 * SLOWNESS)
        self.assertEqual(found.reasons(LOST, ONE), {"not_drained": 5050})
        self.assertEqual(found.total(SENT, ONE), 0)
