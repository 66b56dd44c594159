"""Captures compressed by gzip or zstd, as files of any name and through pipes."""

import gzip
import os
import subprocess
import threading
import time
import zlib

from testbed.capture import NS, pcap, pcapng
from testbed.frames import ethernet, ipv4, udp
from testbed.process import SLOWNESS, settle
from testbed.replay import ReplayCase

T = 1_600_000_000
STORED = 0  # gzip's level that compresses nothing: what comes out is known byte for byte
GZIP_HEADER, STORED_HEADER = 10, 5


def numbered(count, first=0):
    """As many flows of one packet of 32 bytes: 24 bytes, then 62 for each."""
    return [(T * NS + number * 1_000_000,
             ethernet(ipv4(udp(number, 53, b"abcd"), "10.0.0.1", "10.0.0.2")))
            for number in range(first, first + count)]


def zstd(content, *options):
    return subprocess.run(["zstd", "-q", "-c", *options], input=content, stdout=subprocess.PIPE,
                          check=True).stdout


KINDS = {"gzip": gzip.compress, "zstd": zstd}


class Compressed(ReplayCase):
    def replay_to_ports(self, path, status=0, **options):
        out = self.directory / "flows.txt"
        probe = self.replay(path, "-E", f"flow_lines:file={out}", status=status, **options)
        return sorted(int(line.split()[8]) for line in out.read_text().splitlines()), probe

    def assert_whole(self, content, count, name="made.pcap"):
        ports, probe = self.replay_to_ports(self.file(content, name))
        self.assertEqual(ports, list(range(count)))
        self.assertEqual(self.totals(probe), (count, count, count, 0))

    def test_files_of_any_name_are_told_by_their_first_bytes(self):
        for compress in KINDS.values():
            for write in (pcap, pcapng):
                for name in ("trace.pcap.gz", "trace", "trace.txt.zst"):
                    with self.subTest(compress=compress.__name__, write=write.__name__, name=name):
                        self.assert_whole(compress(write(numbered(50))), 50, name)

    def test_captures_larger_than_all_buffers(self):
        large = pcap([(T * NS + number, ethernet(ipv4(udp(number, 53, bytes(8000)), "10.0.0.1",
                                                      "10.0.0.2"))) for number in range(1000)])
        for compress in KINDS.values():
            self.assert_whole(compress(large), 1000)

    def test_members_and_frames_that_follow_one_another_are_one_capture(self):
        content = pcap(numbered(90))
        parts = content[:1000], content[1000:1001], content[1001:]
        for name, compress in KINDS.items():
            with self.subTest(name):
                self.assert_whole(b"".join(map(compress, parts)), 90)
        self.assert_whole(gzip.compress(content) + bytes(5000), 90)  # filled up
        skipped = b"\x5a\x2a\x4d\x18\x03\0\0\0abc"
        self.assert_whole(skipped + zstd(content) + skipped, 90)

    def test_an_output_that_fills_the_buffer_exactly_ends_in_order(self):
        # 256 KiB in all.
        content = pcap(numbered(1) + [(T * NS, bytes(262_144 - 24 - 62 - 16))])
        self.assertEqual(len(content), 262_144)
        for name, compress in KINDS.items():
            with self.subTest(name):
                _, probe = self.replay_to_ports(self.file(compress(content)))
                self.assertEqual(self.totals(probe), (2, 1, 1, 1))

    def test_they_come_through_standard_input_and_fifos(self):
        fifo = self.directory / "fifo"
        os.mkfifo(fifo)
        for name, compress in KINDS.items():
            content = compress(pcap(numbered(40)))
            with self.subTest(name), open(self.file(content), "rb") as source:
                ports, _ = self.replay_to_ports("-", stdin=source)
                self.assertEqual(ports, list(range(40)))
                writer = threading.Thread(target=fifo.write_bytes, args=(content,), daemon=True)
                writer.start()
                self.assertEqual(self.replay_to_ports(fifo)[0], list(range(40)))
                writer.join()

    def assert_breaks_off(self, content, count, position, words):
        ports, probe = self.replay_to_ports(self.file(content), status=1)
        self.assertEqual(ports, list(range(count)))
        self.assertIn(f"Capture file {self.directory}/made.pcap breaks off at byte {position}, "
                      f"after {count} frames: {words}", probe.lines)

    def test_what_is_cut_gives_what_came_out_of_it(self):
        content = pcap(numbered(20))  # 1264 bytes
        stored = gzip.compress(content, STORED)
        self.assertEqual(len(stored), GZIP_HEADER + STORED_HEADER + 1264 + 8)
        words = "gzip: unexpected end of file"
        for cut in (1, 8):  # within what is after the last frame
            self.assert_breaks_off(stored[:-cut], 20, 1264, words)
        self.assert_breaks_off(stored[:-8 - 100], 18, 1164, words)  # 18 frames: 1140 bytes
        self.assert_breaks_off(stored[:-8 - 124], 18, 1140, words)  # between two frames
        self.assert_breaks_off(gzip.compress(content) + stored[:5], 20, 1264, words)
        for cut in (1, 4):
            self.assert_breaks_off(zstd(content)[:-cut], 20, 1264, "zstd: unexpected end of file")

    def test_what_is_damaged_is_told_in_the_words_of_the_library(self):
        content = pcap(numbered(20))
        made = bytearray(gzip.compress(content))
        made[-8] ^= 1
        self.assert_breaks_off(bytes(made), 20, 1264, "gzip: incorrect data check")
        self.assert_breaks_off(gzip.compress(content) + b"more", 20, 1264,
                               "gzip: incorrect header check")
        # The first blocks of several come out before the sum over all of them is known.
        made = bytearray(zstd(pcap(numbered(20_000))))
        made[-1] ^= 1
        ports, probe = self.replay_to_ports(self.file(bytes(made)), status=1)
        self.assertGreater(len(ports), 2000)
        self.assertEqual(ports, list(range(len(ports))))
        self.assertIn(f", after {len(ports)} frames: zstd: Restored data doesn't match checksum",
                      probe.log)
        # A stored block, then one of a type that there is not.
        deflated = zlib.compressobj(STORED, zlib.DEFLATED, 31)
        made = deflated.compress(content) + deflated.flush(zlib.Z_FULL_FLUSH) + b"\x07"
        self.assert_breaks_off(made, 20, 1264, "gzip: invalid block type")

    def test_what_is_broken_within_the_first_frame_is_refused(self):
        content = pcap(numbered(2))
        stored = gzip.compress(content, STORED)
        for content, words in (
                (stored[:15 + 10], ": gzip: unexpected end of file"),
                (stored[:15 + 50], " breaks off at byte 50, after 0 frames: "
                                   "gzip: unexpected end of file"),
                (b"\x1f\x8b\x07" + stored[3:], ": gzip: unknown compression method"),
                (b"\x1f\x8b", ": gzip: unexpected end of file"),
                (zstd(b""), ": truncated dump file; tried to read 4 file header bytes, only got 0"),
                (gzip.compress(b"This is a text.\n" * 9), ": unknown file format")):
            with self.subTest(words):
                path = self.file(content)
                self.assertIn(f"Capture file {path}{words}", self.refused(path))

    def test_libpcap_has_the_word_on_what_is_in_it(self):
        content = bytearray(pcap(numbered(20_000)))
        content[24 + 62 * 10 + 11] = 0x7F  # the length of the frame
        ports, probe = self.replay_to_ports(self.file(gzip.compress(bytes(content))), status=1)
        self.assertEqual(ports, list(range(10)))
        self.assertIn(f"breaks off at byte {24 + 62 * 10 + 16}, after 10 frames: invalid packet "
                      "capture length ", probe.log)

    def test_an_interrupt_ends_it_at_once_while_the_source_is_silent(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        probe = self.start("-", "-E", "null", stdin=reading)
        os.close(reading)
        os.write(writing, gzip.compress(pcap(numbered(9)), STORED)[:-8 - 7])
        probe.wait_for_line("Kestrel OK")
        settle(0.2)
        names = [open(f"/proc/{probe.pid}/task/{task}/comm", encoding="ascii").read().strip()
                 for task in os.listdir(f"/proc/{probe.pid}/task")]
        self.assertIn("decompression", names)
        before = time.monotonic()
        probe.signal()
        self.assertEqual(probe.wait(20), 0, probe.describe())
        self.assertLess(time.monotonic() - before, 5 * SLOWNESS)
        self.assertEqual(self.totals(probe), (8, 8, 8, 0))
        self.assertNotIn("breaks off", probe.log)
