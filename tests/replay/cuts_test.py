"""Files that become shorter, or longer, while they are read."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import array
import fcntl
import os
import termios
import threading

from testbed.accounts import without_sum
from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp
from testbed.probe import FLUSHED
from testbed.process import wait_until
from testbed.replay import ReplayCase

T = 1_600_000_000
HEADER, RECORD = 24, 62  # bytes: of the file, of a record in it
FRAMES = 20_000
PORT = 34  # where a frame has it
BLOCKED = 60_000  # bytes in a FIFO; 65,536 fill it


def numbered(count, payload=b"abcd", first=0):
    """As many flows of one packet, by their source ports."""
    frame = ethernet(ipv4(udp(0, 53, payload), "10.0.0.1", "10.0.0.2"))
    return pcap([(T * NS + number * 1000,
                  frame[:PORT] + number.to_bytes(2, "big") + frame[PORT + 2:])
                 for number in range(first, first + count)])


class Cuts(ReplayCase):
    def hold_up(self, content):
        """A replay of the file whose export waits for us, after some of the frames."""
        path = self.file(content)
        out = self.directory / "flows"
        os.mkfifo(out)
        flows = os.open(out, os.O_RDWR)
        self.addCleanup(os.close, flows)
        probe = self.start(path, "-q", "8", "-E", f"flow_lines:file={out}")
        waiting = array.array("i", [0])

        def is_held_up():
            fcntl.ioctl(flows, termios.FIONREAD, waiting)
            return waiting[0] > BLOCKED
        wait_until(is_held_up, "a full FIFO")
        return path, flows, probe

    def let_go(self, flows, probe, status):
        """Takes all flows; returns their source ports."""
        taken = []
        is_over = threading.Event()

        def take():
            while not is_over.is_set():
                taken.append(os.read(flows, 1 << 20))
        taker = threading.Thread(target=take, daemon=True)
        taker.start()
        self.assertEqual(probe.wait(60), status, probe.describe())
        is_over.set()
        os.write(flows, b"\n")  # so that the last read ends
        taker.join()
        self.assertEqual(probe.lines[-1], FLUSHED)
        return sorted(int(line.split()[8]) for line in b"".join(taken).split(b"\n") if line)

    def breaking_off(self, probe):
        """Byte and frames of the message."""
        line, = [line for line in probe.lines if " breaks off at byte " in line]
        words = line.split()
        self.assertEqual(line, f"Capture file {self.directory}/made.pcap breaks off at byte "
                               f"{words[7].rstrip(',')}, after {words[9]} frames: it was cut while "
                               "it was read")
        return int(words[7].rstrip(",")), int(words[9])

    def test_a_cut_further_on_ends_the_reading_at_the_last_whole_frame(self):
        # Within a frame, within a header, and between two frames.
        for rest in (30, 7, 0):
            with self.subTest(rest=rest):
                path, flows, probe = self.hold_up(numbered(FRAMES))
                os.truncate(path, HEADER + 15_000 * RECORD + rest)
                self.assertEqual(self.let_go(flows, probe, 1), list(range(15_000)))
                self.assertEqual(self.breaking_off(probe), (HEADER + 15_000 * RECORD, 15_000))
                self.assertEqual(self.totals(probe), (15_000, 15_000, 15_000, 0))
                os.unlink(self.directory / "flows")

    def test_a_file_that_vanishes_under_the_reader_keeps_what_was_read(self):
        path, flows, probe = self.hold_up(numbered(FRAMES))
        os.truncate(path, 0)
        ports = self.let_go(flows, probe, 1)
        position, frames = self.breaking_off(probe)
        self.assertLess(frames, FRAMES)
        self.assertEqual(position, HEADER + frames * RECORD)
        self.assertEqual(ports, list(range(frames)))
        self.assertEqual(self.totals(probe), (frames, frames, frames, 0))

    def test_a_cut_within_a_frame_of_several_pages(self):
        record = RECORD - 4 + 9_000
        path, flows, probe = self.hold_up(numbered(2000, bytes(9_000)))
        os.truncate(path, HEADER + 1900 * record + 5_000)
        self.assertEqual(self.let_go(flows, probe, 1), list(range(1900)))
        self.assertEqual(self.breaking_off(probe), (HEADER + 1900 * record, 1900))

    def test_what_is_added_meanwhile_is_read_as_well(self):
        path, flows, probe = self.hold_up(numbered(20_000))
        with open(path, "ab") as file:
            file.write(numbered(20_000, first=20_000)[HEADER:])
        self.assertEqual(self.let_go(flows, probe, 0), list(range(40_000)))
        self.assertEqual(self.totals(probe), (40_000, 40_000, 40_000, 0))

    def test_an_interrupt_ends_the_walk_between_two_batches(self):
        _, flows, probe = self.hold_up(numbered(FRAMES))
        probe.signal()
        ports = self.let_go(flows, probe, 0)
        read, in_flows, _, _ = self.totals(probe)
        self.assertLess(read, FRAMES)
        self.assertEqual((in_flows, ports), (read, list(range(read))))
        self.assertNotIn("breaks off", "".join(without_sum(probe.lines)))
