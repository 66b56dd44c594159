"""The plugins of the guide are those of the examples, and do what the guide says."""

import re
import subprocess
import unittest

from example_plugins import EXAMPLES, PROGRAM, ROOT, ExamplePluginsCase
from testbed import frames
from testbed.process import WatchedProcess, settle

GUIDE = ROOT / "docs/plugin-guide.md"


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


class PluginGuide(ExamplePluginsCase):
    def flows(self, plugins, *options):
        return self.replay(PACKETS, plugins, *options)

    def flows_of_text(self, plugin, text):
        """Runs the probe over a text file until the input has read it; the lines of csv."""
        (self.folder / "input.txt").write_text(text)
        with open(self.folder / "output.csv", "w", encoding="ascii") as output:
            with WatchedProcess(
                    [PROGRAM, "-v", "0", "-q", "10", "-X", f"./{plugin}.so,./csv.so", "-I",
                     f"{plugin}:file=input.txt", "-E", "csv:"],
                    cwd=self.folder, stdout=output) as probe:
                probe.wait_for_line(f"{plugin}: end of the file")
                settle()
                probe.signal()
                self.assertEqual(probe.wait(), 0, probe.describe())
        return sorted((self.folder / "output.csv").read_text().splitlines()[1:])

    def test_the_listings_of_the_guide_are_those_of_the_examples(self):
        listings = re.findall(r"(?s)```c\n(.*?)```", GUIDE.read_text())
        at_least, lines, finished = ((EXAMPLES / f"{name}.c").read_text()
                                     for name in ("at_least", "lines", "finished"))
        self.assertEqual(listings[:2], [at_least, lines])
        self.assertEqual(len(listings), 4)
        self.assertIn("\nflow_key plugin_input_get_final_flow(", listings[2])
        self.assertTrue(finished.endswith(listings[2]))
        subprocess.run(
            ["cc", "-std=c11", "-Wall", "-Wextra", "-Werror", "-pedantic", "-Wno-unused-function",
             "-fsyntax-only", "-I", ROOT / "include", "-x", "c", "-"],
            input=listings[3], text=True, check=True)

    def test_the_input_of_packets_gives_flows_with_keys_of_its_own(self):
        # Both directions, another port, another protocol, and a line that is no packet.
        text = "".join(f"{line}\n" for line in (
            "192.0.2.1 198.51.100.2 17 5000 53 28", "198.51.100.2 192.0.2.1 17 53 5000 100",
            "192.0.2.1 198.51.100.2 17 5000 53 128", "192.0.2.1 198.51.100.2 17 5001 53 40",
            "no packet", "192.0.2.1 198.51.100.2 6 5000 53 60"))
        # Many more flows, so that a key whose sign depended on its fields would lose some.
        text += "".join(f"10.0.{n}.1 10.0.0.{n} 6 {1000 + n} 80 {40 + n}\n" for n in range(100))
        self.assertEqual(self.flows_of_text("lines", text), sorted([
            "192.0.2.1,198.51.100.2,17,5000,53,2,156", "198.51.100.2,192.0.2.1,17,53,5000,1,100",
            "192.0.2.1,198.51.100.2,17,5001,53,1,40", "192.0.2.1,198.51.100.2,6,5000,53,1,60",
            *(f"10.0.{n}.1,10.0.0.{n},6,{1000 + n},80,1,{40 + n}" for n in range(100))]))

    def test_the_input_of_finished_flows_hands_them_on_one_by_one(self):
        text = ("source,destination,protocol,source_port,destination_port,packets,bytes\n"
                "192.0.2.1,198.51.100.2,17,5000,53,3,194\n"
                "192.0.2.1,198.51.100.2,17,5000,53,2,70\n"
                "2001:db8::1,2001:db8::2,17,5002,443,2,101\n")
        self.assertEqual(self.flows_of_text("finished", text), [
            "192.0.2.1,198.51.100.2,17,5000,53,2,70", "192.0.2.1,198.51.100.2,17,5000,53,3,194"])

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
