"""The collector against packets written by hand and packets that another program sends."""

import socket
import struct
import subprocess
import tempfile
import time
import unittest
from collections import Counter
from pathlib import Path

from testbed import netflow_v5
from testbed.flow_model import Flow
from testbed.network import free_udp_port
from testbed.process import WatchedProcess

ONE_RECORD = bytes.fromhex(
    "0005 0001 000003e8 5f5e1000 00000064 00000007 00 09 4064"  # header
    "0a000001 0a000002 00000000 0005 0006 00000003 00000100 000001f4 000002bc"
    "04d2 0050 00 1b 06 b8 0000 0000 00 00 0000".replace(" ", ""))


def changed(position, value):
    packet = bytearray(ONE_RECORD)
    packet[position] = value
    return bytes(packet)


class Decoding(unittest.TestCase):
    def test_every_field_is_read_from_its_place(self):
        header, records = netflow_v5.decode(ONE_RECORD)
        self.assertEqual(header, netflow_v5.Header(
            count=1, uptime_ms=1000, seconds=1_600_000_000, nanoseconds=100, sequence=7,
            engine_id=9, sampling=0x4064))
        self.assertEqual(records, [netflow_v5.Record(
            Flow("10.0.0.1", "10.0.0.2", 6, 1234, 80, 0x1B, 0xB8, 3, 256, input=5, output=6),
            first_ms=500, last_ms=700)])

    def test_every_byte_that_must_be_zero_is_checked(self):
        fixed = [20, *range(24 + 8, 24 + 12), 24 + 36, *range(24 + 40, 24 + 48)]
        for position in fixed:
            with self.subTest(position=position), self.assertRaises(netflow_v5.Malformed):
                netflow_v5.decode(changed(position, 1))

    def test_wrong_version_count_and_length_are_refused(self):
        for packet in (changed(1, 9), changed(3, 0), changed(3, 2), ONE_RECORD[:-1],
                       ONE_RECORD + b"\0", ONE_RECORD[:23], b""):
            with self.subTest(packet=packet), self.assertRaises(netflow_v5.Malformed):
                netflow_v5.decode(packet)

    def test_31_records_are_refused(self):
        packet = ONE_RECORD[:2] + struct.pack(">H", 31) + ONE_RECORD[4:24] + ONE_RECORD[24:] * 31
        with self.assertRaises(netflow_v5.Malformed):
            netflow_v5.decode(packet)


class Collecting(unittest.TestCase):
    def setUp(self):
        self.collector = netflow_v5.Collector(engine_id=3, sampling=0)
        self.addCleanup(self.collector.close)

    def export(self, **changes):
        """One packet as a good exporter would send it now, but for the changes."""
        now, uptime = time.time_ns() // 1000 * 1000, time.monotonic_ns() // 1_000_000
        values = {"sequence": 0, "engine": 3, "sampling": 0, "first": uptime, "last": uptime,
                  "uptime": uptime, **changes}
        header = struct.pack(">HHIIIIBBH", 5, 1, values["uptime"], now // 10**9, now % 10**9,
                             values["sequence"], 0, values["engine"], values["sampling"])
        record = bytearray(ONE_RECORD[24:])
        record[24:32] = struct.pack(">II", values["first"], values["last"])
        self.collector._accept(header + bytes(record))

    def test_a_good_sequence_is_taken(self):
        self.export()
        self.export(sequence=1)
        self.assertEqual(len(self.collector.records), 2)

    def test_gaps_and_foreign_values_are_refused(self):
        uptime = time.monotonic_ns() // 1_000_000
        for changes in ({"sequence": 1}, {"engine": 4}, {"sampling": 0x4001},
                        {"first": uptime - 10_000}, {"last": uptime + 1000},
                        {"uptime": uptime - 1000}, {"first": uptime, "last": uptime - 1}):
            with self.subTest(**changes), self.assertRaises(netflow_v5.Malformed):
                self.export(**changes)


class CollectingFromAnotherExporter(unittest.TestCase):
    def test_replayed_packets_decode_to_the_same_flow(self):
        with tempfile.TemporaryDirectory(prefix="kestrel-replay-") as directory:
            port = free_udp_port()
            with WatchedProcess(["nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", str(port),
                                 "-t", "600"]) as capture:
                capture.wait_for_line("Startup")
                # Not sampled: the capture program would multiply the counters by the rate.
                self.send_to(port, ONE_RECORD[:22] + bytes(2) + ONE_RECORD[24:])
                time.sleep(0.2)
                capture.signal(15)
                capture.wait()
            # A new file may have begun in between; the flow is in the larger one.
            stored = max(Path(directory).glob("nfcapd.2*"), key=lambda file: file.stat().st_size)
            with netflow_v5.udp_receiver() as receiver:
                receiver.settimeout(5)
                subprocess.run(["nfreplay", "-v", "5", "-H", "127.0.0.1", "-r", stored,
                                "-p", str(receiver.getsockname()[1])],
                               check=True, capture_output=True, stdin=subprocess.DEVNULL)
                packet = bytearray(receiver.recv(65536))
        packet[20] = 0  # the replayer leaves engine_type to chance
        header, records = netflow_v5.decode(bytes(packet))
        self.assertEqual(header.count, 1)
        self.assertEqual(Counter(record.flow for record in records), Counter([
            Flow("10.0.0.1", "10.0.0.2", 6, 1234, 80, 0x1B, 0xB8, 3, 256, input=5, output=6)]))

    @staticmethod
    def send_to(port, packet):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(packet, ("127.0.0.1", port))


if __name__ == "__main__":
    unittest.main()
