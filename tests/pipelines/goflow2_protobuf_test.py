"""goflow2's messages in protocol buffers beside those of the export kafka: the same flows have the
same numbers, types and values."""

import os
from collections import Counter

from broker import Cluster
from capture_pieces import TAGGED, pieces
from collector_goflow2 import PORT, Goflow2, read_message, split_messages, take_varint
from testbed.case import QuietCase
from testbed.probe import run_to_its_end
from testbed.replay import ROOT, TOTALS

MS = 1_000_000
IPFIX = 4
# By number and wire type, as flow.proto has them.
VARINT, BYTES = 0, 2
TYPE, SEQUENCE_NUM, TIME_RECEIVED_NS = (1, VARINT), (4, VARINT), (110, VARINT)
OF_THE_WAY = {TYPE, SEQUENCE_NUM, TIME_RECEIVED_NS}
TIMES = {(111, VARINT): "time_flow_start_ns", (112, VARINT): "time_flow_end_ns"}
FLOW = TIMES | {
    (3, VARINT): "sampling_rate", (6, BYTES): "src_addr", (7, BYTES): "dst_addr",
    (9, VARINT): "bytes", (10, VARINT): "packets", (11, BYTES): "sampler_address",
    (18, VARINT): "in_if", (19, VARINT): "out_if", (20, VARINT): "proto",
    (21, VARINT): "src_port", (22, VARINT): "dst_port", (23, VARINT): "ip_tos",
    (26, VARINT): "tcp_flags", (30, VARINT): "etype", (31, VARINT): "icmp_type",
    (32, VARINT): "icmp_code"}
AS_NUMBERS = {(14, VARINT): "src_as", (15, VARINT): "dst_as"}
MACS = {(27, VARINT): "src_mac", (28, VARINT): "dst_mac"}
TAGS = {(29, VARINT): "vlan_id", (33, VARINT): "src_vlan"}
MPLS_LABEL = (81, BYTES)  # repeated: all of them together
LABELS = {MPLS_LABEL: "mpls_label"}


def two_labels(packed):
    """Those that the shipped templates send."""
    at = end = 0
    for _ in range(2):
        if at < len(packed):
            _, at = take_varint(packed, at)
            end = at
    return packed[:end]


class Messages(QuietCase):
    def setUp(self):
        super().setUp()
        self.folder = self.directory()
        self.goflow2 = Goflow2(self.folder, "bin")
        self.addCleanup(self.goflow2.kill)
        self.cluster = Cluster()
        self.addCleanup(self.cluster.close)

    def templates(self, suffix, **instead):
        """A shipped file with other words for some."""
        path = self.folder / "templates.txt"
        text = (ROOT / f"etc/ipfix-template{suffix}.txt").read_text(encoding="ascii")
        for before, after in instead.items():
            self.assertIn(before, text)
            text = text.replace(before, after)
        path.write_text(text, encoding="ascii")
        return path

    def replay(self, captures, templates, words=(), both=()):
        """The flows of goflow2's messages and of ours. both: what stands before either export."""
        path, flows = self.folder / "piece.pcap", 0
        plugins = [word for name in ("KESTREL_CAPTURE_FILE", "KESTREL_KAFKA")
                   for word in ("-X", os.environ[name])]
        for piece in captures:
            path.write_bytes(piece)
            status, _, said = run_to_its_end(
                "-v", "0", *plugins, "-I", f"capture-file:file={path}", *words, *both, "-E",
                f"ipfix:host=127.0.0.1,port={PORT},template_file={templates},"
                "options-refresh-time=60", *both, "-E",
                f"kafka:brokers={self.cluster.brokers},format=protobuf,sampler=127.0.0.1")
            self.assertEqual(status, 0, "\n".join(said))
            flows += sum(int(total[3]) for line in said if (total := TOTALS.match(line)))
            # The next one comes when goflow2 has read this one.
            theirs = self.goflow2.messages(flows)
        ours = self.cluster.messages(bytes)
        self.assertEqual(self.goflow2.end(), [])
        self.assertEqual(len(theirs), len(ours))
        return list(map(read_message, theirs)), [self.only_one(message.flow) for message in ours]

    def only_one(self, data):
        message, = split_messages(data)
        return read_message(message)

    def compare(self, theirs, ours, least, names):
        """Both have all of these names somewhere, and nothing else."""
        self.assertGreater(len(ours), least)
        for message in theirs:
            self.assertEqual(message[TYPE], [IPFIX])
        for message in ours:
            self.assertNotIn(TYPE, message)
            self.assertIn(TIME_RECEIVED_NS, message)
            for name in TIMES:
                message[name] = [time // MS * MS for time in message[name]]
        for side in (theirs, ours):
            self.assertEqual({key for message in side for key in message} - OF_THE_WAY,
                             names.keys())
        self.assertEqual(self.many(theirs), self.many(ours))

    @staticmethod
    def many(messages):
        """In any order; a value that comes twice is another flow."""
        return Counter(tuple(sorted((key, *values) for key, values in message.items()
                                    if key not in OF_THE_WAY)) for message in messages)

    def test_flows_with_interfaces_and_as_numbers_are_the_same(self):
        table = self.folder / "as.txt"
        table.write_text("65001-0.0.0.0/1\n4200000000-128.0.0.0/1\n", encoding="ascii")
        theirs, ours = self.replay(
            pieces(), self.templates("", **{"#SRC_AS32": "SRC_AS32"}),
            both=("-F", f"as_helper:{table}", "-N", "7", "-n", "9"))
        self.compare(theirs, ours, 3500, FLOW | AS_NUMBERS)

    def test_mac_addresses_are_the_same(self):
        theirs, ours = self.replay(pieces(*TAGGED), self.templates("-mac"),
                                   ("-e", "mac", "-C", "0x007f"), ("-N", "7", "-n", "9"))
        self.compare(theirs, ours, 500, FLOW | MACS)

    def test_tags_are_the_same(self):
        # goflow2 does not know the elements that the shipped templates have for two tags.
        templates = self.templates("-vlan", **{
            "id243/2=L2_VLAN_0,id245/2=L2_VLAN_1": "id58/2=L2_VLAN_0"})
        theirs, ours = self.replay(pieces(*TAGGED), templates,
                                   ("-e", "vlan", "-C", "0x00f7"), ("-N", "7", "-n", "9"))
        self.compare(theirs, ours, 500, FLOW | TAGS)

    def test_labels_are_the_same_but_for_the_third(self):
        theirs, ours = self.replay(
            pieces(*TAGGED), self.templates("-mpls"),
            ("-e", "vlan", "-e", "mpls", "-C", "0x0177"), ("-N", "7", "-n", "9"))
        for message in ours:
            for name in TAGS:  # those templates have none
                message.pop(name, None)
            if MPLS_LABEL in message:
                message[MPLS_LABEL] = [two_labels(*message[MPLS_LABEL])]
        self.compare(theirs, ours, 500, FLOW | LABELS)
