"""The plugins of the guide are those of the examples, and do what they say."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

from testbed import frames
from testbed.capture import pcap

ROOT = Path(__file__).resolve().parents[2]
GUIDE = ROOT / "docs/plugin-guide.md"
EXAMPLES = ROOT / "examples/plugin"
PROGRAM = os.environ.get("KESTREL_PROBE", "kestrelexp")
CAPTURE_FILE = os.environ.get("KESTREL_CAPTURE_FILE", "capture-file.so")


def v4(transport):
    return frames.ethernet(frames.ipv4(transport, "192.0.2.1", "198.51.100.2"))


def v6(transport):
    return frames.ethernet(frames.ipv6(transport, "2001:db8::1", "2001:db8::2"))


# Three flows: UDP over IPv4 (packets of 28, 128 and 38 bytes), TCP over IPv4 (40), UDP over IPv6
# (48 and 53).
PACKETS = [
    (1_000_000_000_000, v4(frames.udp(5000, 53))),
    (1_000_100_000_000, v4(frames.tcp(5001, 80, frames.SYN))),
    (1_000_200_000_000, v4(frames.udp(5000, 53, bytes(100)))),
    (1_000_300_000_000, v6(frames.udp(5002, 443))),
    (1_000_400_000_000, v4(frames.udp(5000, 53, bytes(10)))),
    (1_000_500_000_000, v6(frames.udp(5002, 443, bytes(5)))),
]


class PluginGuide(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)

    def flows(self, plugins, *options):
        """Builds the examples, runs the probe over the packets; the lines that csv wrote."""
        shutil.copytree(EXAMPLES, self.folder, dirs_exist_ok=True)
        flags = f"PLUGIN_CFLAGS=-std=c11 -Wall -Wextra -Werror -fPIC -I{ROOT}/include"
        subprocess.run(["make", "-s", "-C", self.folder, flags], check=True, capture_output=True)
        (self.folder / "packets.pcap").write_bytes(pcap(PACKETS))
        objects = ",".join([CAPTURE_FILE, *(str(self.folder / f"{p}.so") for p in plugins)])
        done = subprocess.run(
            [PROGRAM, "-q", "12", "-X", objects, "-I",
             f"capture-file:file={self.folder}/packets.pcap", *options],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)
        head, *lines = done.stdout.splitlines()
        return head, sorted(lines)

    def test_the_first_plugin_of_the_guide_is_the_example(self):
        listings = re.findall(r"(?s)```c\n(.*?)```", GUIDE.read_text())
        self.assertEqual(listings, [(EXAMPLES / "at_least.c").read_text()])

    def test_the_filter_keeps_flows_of_so_many_packets(self):
        head, lines = self.flows(["at_least", "csv"], "-F", "at_least:packets=3", "-E", "csv:")
        self.assertEqual(head,
                         "source,destination,protocol,source_port,destination_port,packets,bytes")
        self.assertEqual(lines, ["192.0.2.1,198.51.100.2,17,5000,53,3,194"])

    def test_the_filter_keeps_flows_of_two_packets_unless_told_otherwise(self):
        _, lines = self.flows(["at_least", "csv"], "-F", "at_least:", "-E", "csv:")
        self.assertEqual(lines, ["192.0.2.1,198.51.100.2,17,5000,53,3,194",
                                 "2001:db8::1,2001:db8::2,17,5002,443,2,101"])

    def test_the_process_plugin_gives_the_export_a_field(self):
        head, lines = self.flows(["largest", "csv"], "-P", "largest:",
                                 "-E", "csv:field=LARGEST_PACKET")
        self.assertTrue(head.endswith(",packets,bytes,LARGEST_PACKET"))
        self.assertEqual(lines, ["192.0.2.1,198.51.100.2,17,5000,53,3,194,128",
                                 "192.0.2.1,198.51.100.2,6,5001,80,1,40,40",
                                 "2001:db8::1,2001:db8::2,17,5002,443,2,101,53"])


if __name__ == "__main__":
    unittest.main()
