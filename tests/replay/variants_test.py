"""The shipped template files for tags, labels and MAC addresses, with the options that the page
names: each kind of flow has the fields and values worked out by hand, and a dissector agrees."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.
# Not under the address sanitizer: units and the fuzz target read such files there.

import ipaddress
import re
from itertools import product

from testbed.capture import NS, pcap
from testbed.flow_records import dissect, number, records
from testbed.frames import SYN, ethernet, icmp, icmpv6, ipv4, ipv6, other, tcp, udp
from testbed.replay import ROOT, ReplayCase

PAGE = (ROOT / "docs/templates.md").read_text(encoding="utf-8")
OPTIONS = dict(re.findall(
    r"(?m)^\| `ipfix-template-(\w+)\.txt`, `nf9-template-\1\.txt` \| `([^`]+)` \|", PAGE))
KEYS = {"ipfix": "template_file", "netflow-v9": "template-file"}
FILES = {"ipfix": "ipfix-template", "netflow-v9": "nf9-template"}

T = 631_152_000  # 1990-01-01, when a replay has been up for a minute
A, B = "192.0.2.1", "198.51.100.7"
C, D = "2001:db8::1", "2001:db8::2"
MACS = {56: 0x020000000001, 80: 0x020000000002}

# Transport, protocol, bytes of it, and the elements that its flows have beside those of all.
KINDS = {
    4: [(tcp(2001, 443, SYN), 6, 20, {7: 2001, 11: 443, 6: SYN}),
        (udp(2002, 53, b"y" * 9), 17, 17, {7: 2002, 11: 53}),
        (icmp(3, 1), 1, 16, {32: 0x0301}),
        (other(47, b"z" * 30), 47, 30, {})],
    6: [(tcp(2004, 443, SYN), 6, 20, {7: 2004, 11: 443, 6: SYN}),
        (udp(2005, 53, b"y" * 9), 17, 17, {7: 2005, 11: 53}),
        (icmpv6(128, 0), 58, 16, {32: 0x8000}),
        (other(47, b"z" * 30), 47, 30, {})],
}


def address(text):
    return int(ipaddress.ip_address(text))


def flows(variants, more):
    """Frames, and the elements of each one's flow. variants: options of ethernet() and elements
    that they stand for. more: further elements of all flows, by IP version."""
    made = []
    for (options, elements), version in product(variants, KINDS):
        for transport, protocol, size, own in KINDS[version]:
            if version == 4:
                packet, size = ipv4(transport, A, B, tos=8), size + 20
                own = {**own, 8: address(A), 12: address(B), 5: 8}
            else:
                packet, size = ipv6(transport, C, D), size + 40
                own = {**own, 27: address(C), 28: address(D)}
            made.append((ethernet(packet, **options),
                         {10: 5, 14: 6, 4: protocol, 1: size, 2: 1, 34: 0,
                          **own, **elements, **more(version)}))
    return made


def tags(*vids):
    return {"tags": [(0x8100, vid) for vid in vids]}


TAGGED = [({}, {}), (tags(10), {58: 10}), (tags(20), {58: 20}), (tags(10, 30), {243: 10, 245: 30}),
          (tags(4095, 0, 7), {243: 4095, 245: 0})]
# In the order of the wire: 20 bits of label, 3 of traffic class, the bottom of the stack.
LABELLED = [({}, {}), ({"labels": [16]}, {70: 0x000101}), ({"labels": [0xABCDE]}, {70: 0xABCDE1}),
            ({"labels": [16, 17]}, {70: 0x000100, 71: 0x000111}),
            ({"labels": [16, 17, 18]}, {70: 0x000100, 71: 0x000110})]


class Variants(ReplayCase):
    def check(self, variant, made, *columns):
        """Returns what the dissector says in the columns, for each kind of export."""
        path = self.file(pcap([(T * NS + place * 1_000_000, frame)
                               for place, (frame, _) in enumerate(made)]))
        said = []
        for kind, key in KEYS.items():
            with self.subTest(kind=kind):
                templates = ROOT / "etc" / f"{FILES[kind]}-{variant}.txt"
                messages = self.export(path, kind, *OPTIONS[variant].split(), "-N", "5", "-n", "6",
                                       export_options=f",{key}={templates}")
                found = [{element: number(value) for element, value in record.items()}
                         for record in records(messages)]
                first, last, origin = ((152, 153, T * 1000) if kind == "ipfix" else
                                       (22, 21, 60_000))
                expected = [{**elements, first: origin + place, last: origin + place}
                            for place, (_, elements) in enumerate(made)]
                self.assertEqual(sorted(found, key=lambda record: record[first]), expected)
                said.append([sorted(column)
                             for column in dissect(messages, self.directory, *columns)])
        return said

    def test_tags(self):
        made = flows(TAGGED, lambda version: {})
        for said in self.check("vlan", made, "cflow.vlanid", "cflow.dot1q_vlan_id",
                               "cflow.dot1q_customer_vlan_id"):
            self.assertEqual(said, [["10"] * 8 + ["20"] * 8, ["10"] * 8 + ["4095"] * 8,
                                    ["0"] * 8 + ["30"] * 8])

    def test_labels(self):
        made = flows(LABELLED, lambda version: {})
        for labels, bottoms in self.check("mpls", made, "cflow.mpls_label", "cflow.mpls_bos"):
            self.assertEqual(labels, ["16"] * 24 + ["17"] * 16 + ["703710"] * 8)
            self.assertEqual(bottoms, ["0"] * 24 + ["1"] * 24)

    def test_mac_addresses(self):
        made = flows([({}, MACS), ({"source": bytes(6)}, {**MACS, 56: 0})],
                     lambda version: {60: version, 35: 0})
        for sources, destinations in self.check("mac", made, "cflow.srcmac", "cflow.dstmac"):
            self.assertEqual(sources, ["00:00:00:00:00:00"] * 8 + ["02:00:00:00:00:01"] * 8)
            self.assertEqual(destinations, ["02:00:00:00:00:02"] * 16)

    def test_page_and_files_name_the_same_options(self):
        self.assertEqual(OPTIONS, {"vlan": "-e vlan -C 0x00f7",
                                   "mpls": "-e vlan -e mpls -C 0x0177",
                                   "mac": "-e mac -C 0x007f"})
        for variant, options in OPTIONS.items():
            for kind, key in KEYS.items():
                name = f"{FILES[kind]}-{variant}.txt"
                text = (ROOT / "etc" / name).read_text(encoding="utf-8")
                self.assertIn(f"\n# {options} and {key}=/etc/kestrel/{name}.\n", text)
        self.assertEqual(sorted(path.name for path in (ROOT / "etc").glob("*-template-*.txt")),
                         sorted(f"{prefix}-{variant}.txt"
                                for prefix in FILES.values() for variant in OPTIONS))

    def test_without_the_block_the_probe_does_not_start(self):
        path = self.file(pcap([(T * NS, ethernet(ipv4(udp(1, 2), A, B)))]))
        for variant, value in (("vlan", "L2_VLAN_0"), ("mpls", "L2_MPLS_0"), ("mac", "L2_SRC_MAC")):
            for kind, key in KEYS.items():
                lines = self.refused(path, "-E", f"{kind}:host=127.0.0.1,{key}="
                                     f"{ROOT}/etc/{FILES[kind]}-{variant}.txt")
                self.assertEqual(lines[-1], f"Unable to found record value: {value}")
