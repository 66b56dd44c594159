"""How replays end: statuses, messages, totals."""

import socket

from testbed.accounts import without_sum
from testbed.capture import NS, pcap, pcapng
from testbed.frames import arp_request, ethernet, ipv4, udp
from testbed.netflow_v5 import decode
from testbed.probe import FLUSHED
from testbed.replay import ReplayCase

T = 1_600_000_000
BIG, LITTLE = ">", "<"


def frame(port):
    return ethernet(ipv4(udp(port, 53, b"abcd"), "10.0.0.1", "10.0.0.2"))


def numbered(count):
    """As many flows of one packet of 32 bytes, a millisecond apart."""
    return [(T * NS + number * 1_000_000, frame(1000 + number)) for number in range(count)]


class Ends(ReplayCase):
    def flows(self, content, *arguments, **options):
        """Source ports of the flows that come out, in order; and the probe's lines."""
        out = self.directory / "flows.txt"
        probe = self.replay(self.file(content), *arguments, "-E", f"flow_lines:file={out}",
                            **options)
        lines = [line.split() for line in out.read_text().splitlines()]
        return sorted(int(line[8]) for line in lines), probe

    def test_the_last_lines_tell_what_was_read(self):
        made = numbered(3) + [(T * NS, ethernet(arp_request()))] + numbered(2)
        probe = self.replay(self.file(pcap(made)), "-E", "null")
        self.assertEqual(without_sum(probe.lines)[-4:], [
            "Flushing queue", "Queue flushed. 3 records out.",
            "VERBOSE: 0:Input ended: 6 packets read, 5 in 3 flows, 1 no flow", FLUSHED])

    # Not under the thread sanitizer: its threads are those of the others.
    def test_the_totals_are_not_shown_by_default(self):
        probe = self.replay(self.file(pcap(numbered(1))), "-E", "null", verbosity=())
        self.assertEqual(probe.lines, ["Flushing queue", "Queue flushed. 1 records out.", FLUSHED])

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_file_without_frames_ends_in_order(self):
        for content in (pcap([]), pcapng([])):
            ports, probe = self.flows(content)
            self.assertEqual((ports, self.totals(probe)), ([], (0, 0, 0, 0)))

    # Not under the thread sanitizer: its threads are those of the others.
    def test_every_kind_of_file_gives_the_same(self):
        made = numbered(5)
        for write in (pcap, pcapng):
            for order in (LITTLE, BIG):
                for nanoseconds in (False, True):
                    with self.subTest(write=write.__name__, order=order, nano=nanoseconds):
                        ports, probe = self.flows(write(made, order, nanoseconds))
                        self.assertEqual(ports, [1000, 1001, 1002, 1003, 1004])
                        self.assertEqual(self.totals(probe), (5, 5, 5, 0))

    # Not under the thread sanitizer: its threads are those of the others.
    def test_names_of_files_may_hold_colons(self):
        path = self.file(pcap(numbered(2)), "12:30:00 :.pcap")
        out = self.directory / "flows:1.txt"
        chosen = self.file("udp src port 1001", "chosen:by:port")
        probe = self.replay(path, "-E", f"flow_lines:file={out}",
                            options=f",filter-file={chosen}")
        self.assertEqual(self.totals(probe), (1, 1, 1, 0))
        self.assertEqual(len(out.read_text().splitlines()), 1)

    def test_standard_input_is_read_to_its_end(self):
        path = self.file(pcap(numbered(100)))
        with open(path, "rb") as content:
            probe = self.replay("-", "-E", "null", stdin=content)
        self.assertEqual(self.totals(probe), (100, 100, 100, 0))

    def assert_breaks_off(self, content, position, count):
        """After so many frames, which are exported; the status says it."""
        ports, probe = self.flows(content, status=1)
        self.assertEqual(ports, list(range(1000, 1000 + count)))
        self.assertIn(f"Capture file {self.directory}/made.pcap breaks off at byte {position}, "
                      f"after {count} frames: ", probe.log)
        self.assertEqual(self.totals(probe), (count, count, count, 0))
        return probe

    def test_a_file_that_breaks_off_gives_what_was_read(self):
        # A header of 24 bytes, then for each frame one of 16 and 46 bytes.
        whole = pcap(numbered(10))
        for cut in (1, 40, 61):  # in the frame, in the frame, in the header before it
            probe = self.assert_breaks_off(whole[:-cut], 644 - cut, 9)
            self.assertIn(" frames: truncated dump file; tried to read ", probe.log)

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_pcapng_file_that_breaks_off_gives_what_was_read(self):
        # Blocks of 28 and 20 bytes, then for each frame one of 80.
        whole = pcapng(numbered(3))
        self.assertEqual(len(whole), 288)
        for cut in (1, 79):
            self.assert_breaks_off(whole[:-cut], 288 - cut, 2)

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_file_that_is_damaged_in_the_middle_gives_what_comes_before(self):
        # The third frame's header says that it holds more than any frame has.
        damaged = bytearray(pcap(numbered(1000)))
        at = 24 + 2 * 62
        damaged[at + 8:at + 12] = b"\xff\xff\xff\x7f"
        self.assert_breaks_off(bytes(damaged), at + 16, 2)

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_pipe_that_breaks_off_is_no_regular_end_either(self):
        path = self.file(pcap(numbered(100))[:-1])
        with open(path, "rb") as content:
            probe = self.replay("-", "-E", "null", status=1, stdin=content)
        self.assertIn("Capture file (standard input) breaks off at byte 6223, after 99 frames: ",
                      probe.log)
        self.assertEqual(self.totals(probe), (99, 99, 99, 0))

    def test_sampling_delivers_the_nth_of_every_n_frames(self):
        ports, probe = self.flows(pcap(numbered(10)), options=",sampling=3")
        self.assertEqual((ports, self.totals(probe)), ([1002, 1005, 1008], (3, 3, 3, 0)))
        packet, = self.export(self.file(pcap(numbered(3))), "netflow-v5", options=",sampling=3")
        self.assertEqual(decode(packet)[0].sampling, 0x4003)

    # Not under the thread sanitizer: its threads are those of the others.
    def test_negative_sampling_is_none_and_said(self):
        ports, probe = self.flows(pcap(numbered(2)), options=",sampling=-2")
        self.assertEqual(ports, [1000, 1001])
        self.assertIn("Sampling set to unbelievable value: -2", probe.lines)

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_filter_file_chooses_frames(self):
        chosen = self.file("udp src port 1003 or\n  udp src port 1001\n", "filter.txt")
        ports, probe = self.flows(pcap(numbered(10)), options=f",filter-file={chosen}")
        self.assertEqual((ports, self.totals(probe)), ([1001, 1003], (2, 2, 2, 0)))

    # Not under the thread sanitizer: its threads are those of the others.
    def test_a_collector_that_goes_away_stops_nothing(self):
        # Silences of a minute: every flow is a datagram of its own.
        made = [(T * NS + number * 60 * NS, frame(1000 + number)) for number in range(50)]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as closed:
            closed.bind(("127.0.0.1", 0))
            port = closed.getsockname()[1]
        probe = self.replay(self.file(pcap(made)),
                            "-E", f"netflow-v5:host=127.0.0.1,ip=4,port={port}")
        self.assertEqual(self.totals(probe), (50, 50, 50, 0))
