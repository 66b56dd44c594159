"""The recipes of the pages for VLANs work, and each bit of -C does what its row says."""

import re
import unittest

from example_plugins import ROOT, ExamplePluginsCase
from testbed.capture import NS
from testbed.frames import ethernet, icmp, ipv4, ipv6, tcp, udp

OPERATIONS = (ROOT / "docs/operations.md").read_text(encoding="utf-8")
FILTER_RULES = (ROOT / "docs/filter-rules.md").read_text(encoding="utf-8")
TEMPLATES = (ROOT / "docs/templates.md").read_text(encoding="utf-8")

A, B, C = "192.0.2.1", "192.0.2.2", "192.0.2.3"
OTHER_MAC = bytes.fromhex("020000000009")


def inside(source=A, destination=B, transport=None):
    return ipv4(transport or udp(1000, 53), source, destination)


def labelled(label, ttl=64):
    frame = bytearray(ethernet(inside(), labels=[label]))
    frame[14 + 3] = ttl
    return bytes(frame)


# For each bit: frames that it makes different flows, and frames that it leaves one flow.
OF_BITS = {
    "IP": ([ethernet(inside()), ethernet(inside(C)), ethernet(inside(A, C)),
            ethernet(ipv6(udp(1000, 53), "::1", "::2"))],
           [ethernet(inside()), ethernet(inside(transport=tcp(1, 2)))]),
    "PORTS": ([ethernet(inside(transport=udp(*ports))) for ports in ((1, 2), (1, 3), (3, 2))],
              [ethernet(inside(transport=icmp(*kind))) for kind in ((8, 0), (3, 1))]),
    "ICMP": ([ethernet(inside(transport=icmp(*kind))) for kind in ((8, 0), (3, 0), (3, 1))],
             [ethernet(inside(transport=udp(*ports))) for ports in ((1, 2), (1, 3))]),
    "MAC": ([ethernet(inside()), ethernet(inside(), source=OTHER_MAC),
             ethernet(inside(), destination=OTHER_MAC)],
            [ethernet(inside()), ethernet(inside(C))]),
    "L3_ID": ([ethernet(inside()), ethernet(ipv6(udp(1000, 53), "::1", "::2"))],
              [ethernet(inside()), ethernet(inside(transport=tcp(1, 2)))]),
    "L4_ID": ([ethernet(inside()), ethernet(inside(transport=tcp(1000, 53)))],
              [ethernet(inside()), ethernet(ipv6(udp(1000, 53), "::1", "::2"))]),
    "VLAN_ID": ([ethernet(inside()), *(ethernet(inside(), tags=[(0x8100, vid) for vid in tags])
                                       for tags in ([1], [2], [1, 2], [2, 1]))],
                [ethernet(inside(), tags=[(0x8100, vid)]) for vid in (7, 7 | 5 << 13)]),
    "MPLS_ID": ([ethernet(inside()), labelled(16), labelled(17)],
                [labelled(16, 64), labelled(16, 63)]),
}
BITS = re.findall(r"(?m)^\| `(0x\d+)` (\w+) \| (on|off) \|", OPERATIONS)


def spaced(frames):
    """The frames as packets, so near to each other that no timeout parts them."""
    return [((1000 + number) * NS // 100 + 1000 * NS, frame)
            for number, frame in enumerate(frames)]


class Recipes(ExamplePluginsCase):
    def flows(self, frames, *options):
        """The lines of csv: one for each flow."""
        return self.replay(spaced(frames), ["csv"], *options, "-E", "csv:")[1]

    def test_the_table_has_every_bit_and_the_default_is_their_sum(self):
        self.assertEqual([int(bit, 16) for bit, _, _ in BITS], [1 << n for n in range(9)])
        self.assertEqual({name for _, name, _ in BITS}, {*OF_BITS, "INTERFACE"})
        default = sum(int(bit, 16) for bit, _, state in BITS if state == "on")
        self.assertIn(f"The default is 0x{default:04x}.", OPERATIONS)

    def test_each_bit_separates_what_the_table_says(self):
        for bit, name, _ in BITS:
            if name == "INTERFACE":  # no input here has more than one
                continue
            apart, together = OF_BITS[name]
            with self.subTest(bit=name):
                self.assertEqual(len(self.flows(apart, "-C", bit)), len(apart))
                self.assertEqual(len(self.flows(apart, "-C", "0")), 1)
                self.assertEqual(len(self.flows(together, "-C", bit)), 1)

    def test_the_rule_for_one_vlan_keeps_its_packets_alone(self):
        row, = re.findall(r"(?m)^\| only VLAN 10 \| `(.+?)` on the command line, and `(.+?)` \|$",
                          FILTER_RULES)
        options, rule = row
        (self.folder / "rules.txt").write_text(rule + "\n")
        frames = [ethernet(inside(), tags=[(0x8100, vid)]) for vid in (20, 10, 20, 10, 10)]
        lines = self.flows(frames, *options.split(), "-F", f"filter:{self.folder}/rules.txt")
        self.assertEqual(lines, [f"{A},{B},17,1000,53,3,84"])

    def test_the_options_for_vlan_templates_give_each_id_its_flow(self):
        options, = re.findall(r"VLANs, for `(.+?)`:", TEMPLATES)
        frames = [ethernet(inside(), tags=[(0x8100, vid)]) for vid in (20, 10, 20)]
        _, lines = self.replay(spaced(frames), ["csv"], *options.split(),
                               "-E", "csv:field=L2_VLAN_0")
        self.assertEqual(lines, [f"{A},{B},17,1000,53,1,28,10", f"{A},{B},17,1000,53,2,56,20"])
        alone = [word for word in options.split() if word in ("-e", "vlan")]
        _, lines = self.replay(spaced(frames), ["csv"], *alone, "-E", "csv:field=L2_VLAN_0")
        self.assertEqual(lines, [f"{A},{B},17,1000,53,3,84,20"])


if __name__ == "__main__":
    unittest.main()
