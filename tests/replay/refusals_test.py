"""Replays that are refused at the start: status 255, and what cannot be read is said."""

# Not under the thread sanitizer: no thread is started.

from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp
from testbed.replay import CAPTURES, ReplayCase

FRAME = ethernet(ipv4(udp(1000, 53, b"abcd"), "10.0.0.1", "10.0.0.2"))


class Refusals(ReplayCase):
    def assert_refused(self, path, message, **options):
        lines = self.refused(path, **options)
        self.assertIn(message, [line[:len(message)] for line in lines])
        self.assertEqual(lines[-1], "Driver initialization failed")

    def test_a_file_that_is_not_there(self):
        self.assert_refused(f"{self.directory}/none",
                            f"Capture file {self.directory}/none: No such file or directory")

    def test_a_directory(self):
        self.assert_refused(self.directory, f"Capture file {self.directory}: ")

    def test_a_file_that_is_no_capture(self):
        path = self.file("This is a text and no capture at all.\n")
        self.assert_refused(path, f"Capture file {path}: unknown file format")

    def test_an_empty_file_and_a_header_that_breaks_off(self):
        for size in (0, 3, 10, 23):
            path = self.file(pcap([(1_600_000_000 * NS, FRAME)])[:size])
            self.assert_refused(path, f"Capture file {path}: truncated dump file;")

    def test_a_first_frame_that_breaks_off(self):
        whole = pcap([(1_600_000_000 * NS, FRAME)])
        for size in (25, 39, 41, len(whole) - 1):
            path = self.file(whole[:size])
            self.assert_refused(path, f"Capture file {path} breaks off at byte {size}, after 0 "
                                      "frames: truncated dump file;")

    def test_no_file_at_all(self):
        lines = self.refused_words("-I", "capture-file:sampling=2", "-E", "null")
        self.assertEqual(lines[-3:], ["File parameter is mandatory for capture-file input.",
                                      "Unable to init plugin",
                                      "Driver initialization failed"])

    def test_an_empty_standard_input(self):
        self.assert_refused("-", "Capture file (standard input): truncated dump file;")

    def test_a_filter_file_that_is_not_there(self):
        capture = CAPTURES / "zeek-wikipedia.pcap"
        self.assert_refused(capture, "Filter file /nowhere/filter: No such file or directory",
                            options=",filter-file=/nowhere/filter")

    def test_a_filter_file_without_end_and_one_that_cannot_be_read(self):
        capture = CAPTURES / "zeek-wikipedia.pcap"
        self.assert_refused(capture, "Filter file /dev/zero: longer than 1 MiB",
                            options=",filter-file=/dev/zero")
        self.assert_refused(capture, f"Filter file {self.directory}: Is a directory",
                            options=f",filter-file={self.directory}")

    def test_a_filter_that_is_no_expression(self):
        rules = self.file("udp port port", "filter.txt")
        self.assert_refused(CAPTURES / "zeek-wikipedia.pcap", f"Filter file {rules}: ",
                            options=f",filter-file={rules}")
