"""goflow2 as a judge: the rate that it learns, and its line of a flow beside ours."""

import json
import os
import re
import shlex
import subprocess
import urllib.request
from collections import Counter

from capture_pieces import TAGGED, pieces
from collector_goflow2 import PORT, PROGRAM, Goflow2, is_bound
from testbed.af_packet import index_of
from testbed.capture import NS, pcap
from testbed.case import E2eCase, QuietCase
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, ip, wait_for_carrier
from testbed.probe import READY, ipfix, netflow_v5, netflow_v9, run_to_its_end
from testbed.process import WatchedProcess, wait_until
from testbed.replay import ROOT

PAGE = (ROOT / "docs/collectors.md").read_text(encoding="utf-8")
T = 1_600_000_000
OPTIONS = ",options-refresh-time=60"
# Each of one packet of 128 bytes.
FLOWS = pcap([((T + n) * NS, ethernet(ipv4(udp(1 + n, 53, b"x" * 100), "10.1.0.1", "10.2.0.1")))
              for n in range(400)])


class Goflow2Case(QuietCase):
    def setUp(self):
        super().setUp()
        self.folder = self.directory()
        self.goflow2 = Goflow2(self.folder)
        self.addCleanup(self.goflow2.kill)

    def replay(self, capture, *words, options=""):
        """words: what comes after the input."""
        path = self.folder / "made.pcap"
        path.write_bytes(capture)
        status, _, said = run_to_its_end(
            "-v", "0", "-X", os.environ["KESTREL_CAPTURE_FILE"], "-X", os.environ["KESTREL_JSON"],
            "-I", f"capture-file:file={path}{options}", *words)
        self.assertEqual(status, 0, "\n".join(said))

    def check_no_complaint(self):
        self.assertEqual(self.goflow2.end(), [])


class Recipe(E2eCase):
    """The one of docs/collectors.md, word by word, but for files that are elsewhere here."""

    def test_the_recipe_of_the_page_writes_the_flows(self):
        section = PAGE.split("\n## goflow2\n")[1].split("\n## ")[0]
        block, = re.findall(r"(?s)```console\n(.*?)```", section)
        collector, probe = (shlex.split(line) for line in re.findall(r"(?m)^\$ (.+)$", block))
        folder = self.directory()
        path, templates = folder / "flows.json", ROOT / "etc/ipfix-template.txt"
        self.assertEqual((collector[0], probe[0]), ("goflow2", "kestrelexp"))
        self.assertEqual(collector.count("/var/tmp/flows.json"), 1)
        for words in (f"link set {PROBED} down", f"link set {PROBED} name eth0",
                      "link set eth0 up", "addr add 192.0.2.10/32 dev lo"):
            ip(words)
        wait_for_carrier()
        goflow2 = WatchedProcess(
            [PROGRAM, *(str(path) if word == "/var/tmp/flows.json" else word
                        for word in collector[1:])], stdout=subprocess.DEVNULL)
        self.addCleanup(goflow2.kill)
        goflow2.wait_for_line("starting collection")
        wait_until(lambda: is_bound(PORT), "goflow2 to listen")
        running = self.start_program("-v", "0", *probe[1:-1],
                                     f"{probe[-1]},template_file={templates}")
        running.wait_for_line(READY)
        # It has two workers: the flows come when it has told what it learned of the options.
        wait_until(lambda: 512 in self.known_templates(), "the options")
        self.sender.send(*(ethernet(ipv4(udp(port, 53, b"x" * 72), "10.0.0.1", "10.0.0.2"))
                           for port in (1, 2, 1)))
        self.stop_in_order(running)
        wait_until(lambda: path.read_bytes().count(b"\n") == 2, "two lines")
        found = [json.loads(line) for line in path.read_bytes().splitlines()]
        self.assertEqual(sorted((line["src_port"], line["packets"], line["bytes"],
                                 line["sampling_rate"], line["in_if"], line["sampler_address"])
                                for line in found),
                         [(1, 2, 200, 1, index_of("eth0"), "192.0.2.10"),
                          (2, 1, 100, 1, index_of("eth0"), "192.0.2.10")])

    @staticmethod
    def known_templates():
        """The ids that goflow2 tells over HTTP."""
        with urllib.request.urlopen("http://127.0.0.1:8080/templates", timeout=10) as answer:
            return {int(key) & 0xFFFF for known in json.load(answer).values() for key in known}


class Rates(Goflow2Case):
    def rates(self, export, count, words=("-S", "10"), **options):
        """The rates of the lines of a replay of FLOWS."""
        known = len(self.goflow2.lines(0))
        self.replay(FLOWS, *words, *export, **options)
        return [line["sampling_rate"] for line in self.goflow2.lines(known + count)[known:]]

    def check_scale(self, export, kind):
        """One packet in two and one flow in ten: 20 of 400 flows of 128 bytes are there. goflow2
        writes the rate and leaves the product to its readers."""
        self.replay(FLOWS, "-S", "10", *export, options=",sampling=2")
        lines = self.goflow2.lines(20)
        self.check_no_complaint()
        self.assertEqual({(line["type"], line["bytes"], line["packets"]) for line in lines},
                         {(kind, 128, 1)})
        self.assertEqual(sum(line["bytes"] * line["sampling_rate"] for line in lines), 51_200)
        self.assertEqual(sum(line["packets"] * line["sampling_rate"] for line in lines), 400)

    def test_readers_of_ipfix_get_what_was_there(self):
        self.check_scale(ipfix(PORT, OPTIONS), "IPFIX")

    def test_readers_of_netflow_v9_get_what_was_there(self):
        self.check_scale(netflow_v9(PORT, OPTIONS), "NETFLOW_V9")

    def test_readers_of_netflow_v5_get_what_was_there(self):
        self.check_scale(netflow_v5(PORT), "NETFLOW_V5")

    def test_a_probe_that_looks_at_everything_has_the_rate_1(self):
        for export in (ipfix, netflow_v9):
            with self.subTest(export=export.__name__):
                self.assertEqual(self.rates(export(PORT, OPTIONS), 400, ()), [1] * 400)

    def test_netflow_v5_says_0_where_everything_was_looked_at(self):
        self.assertEqual(self.rates(netflow_v5(PORT), 400, ()), [0] * 400)

    def test_the_rate_in_flow_records_is_not_read(self):
        for export in (ipfix, netflow_v9):
            with self.subTest(export=export.__name__):
                self.assertEqual(self.rates(export(PORT), 40), [0] * 40)

    def test_the_elements_of_psamp_are_taken_for_the_rate_1(self):
        for export in (ipfix, netflow_v9):
            with self.subTest(export=export.__name__):
                found = self.rates(export(PORT, OPTIONS + ",sampling-elements=psamp"), 40)
                self.assertEqual(found, [1] * 40)

    def test_a_rate_is_that_of_an_address_and_a_source_id(self):
        # Each replay sends from a port of its own.
        self.assertEqual(self.rates(ipfix(PORT, OPTIONS), 40), [10] * 40)
        self.assertEqual(self.rates(ipfix(PORT), 400, ()), [10] * 400)
        self.assertEqual(self.rates(ipfix(PORT, ",source_id=7"), 400, ()), [0] * 400)
        self.assertEqual(self.rates(netflow_v9(PORT), 400, ()), [0] * 400)


# What goflow2 writes of each flow and our lines do not have: the probe has no such value, and
# neither has what it exports. Both ways it is nothing.
ONLY_GOFLOW2 = {
    "dst_vlan": 0, "mpls_ttl": [], "mpls_ip": [], "forwarding_status": 0, "ip_ttl": 0,
    "ip_flags": 0, "ipv6_flow_label": 0, "fragment_id": 0, "fragment_offset": 0, "next_hop": "",
    "next_hop_as": 0, "bgp_next_hop": "", "bgp_communities": [], "as_path": [],
    "observation_domain_id": 0, "observation_point_id": 0, "layer_stack": [], "layer_size": [],
    "ipv6_routing_header_addresses": [], "ipv6_routing_header_seg_left": 0}
# Of an address that comes without a prefix.
NETWORKS = {"IPv4": "0.0.0.0/0", "IPv6": "::/0"}
# The same, unless the probe is told to have them.
MACS = {"src_mac": "00:00:00:00:00:00", "dst_mac": "00:00:00:00:00:00"}
TAGS = {"vlan_id": 0, "src_vlan": 0}
LABELS = {"mpls_label": []}
AS_NUMBERS = {"src_as": 0, "dst_as": 0}
# What is about the message or its reader, and not about the flow.
OF_THE_WAY = {"type", "time_received_ns", "sequence_num"}
TIMES = ("time_flow_start_ns", "time_flow_end_ns")
MS = 1_000_000


def without(line, names):
    return {name: value for name, value in line.items() if name not in names}


def many(lines):
    """Lines in any order: a message has its records in the order of their templates."""
    return Counter(json.dumps(line, sort_keys=True) for line in lines)


def in_milliseconds(lines):
    """As the shipped templates of IPFIX have times."""
    return [line | {name: line[name] // MS * MS for name in TIMES} for line in lines]


def shipped(export, suffix):
    """The words of an export with other templates that are shipped."""
    flag, words = export
    return flag, words.replace("-template.txt", f"-template-{suffix}.txt")


class Lines(Goflow2Case):
    """Captures, and for each flow the line that goflow2 makes of what was exported beside ours."""

    def replay_twice(self, captures, export, words=(), both=(), second=""):
        """The lines of goflow2 and of ours. both: what stands before the export and before ours.
        second: the fields of another file of ours, whose lines are returned as well."""
        paths = [self.folder / "ours.json"]
        words = [*words, *both, *export,
                 *both, "-E", f"json:file={paths[0]},sampler=127.0.0.1"]
        if second:
            paths.append(self.folder / "second.json")
            words += ["-E", f"json:file={paths[1]},fields={second}"]
        for capture in captures:
            self.replay(capture, *words)
            # The next one comes when goflow2 has read this one.
            self.goflow2.lines(paths[0].read_bytes().count(b"\n"))
        found = [[json.loads(line) for line in path.read_bytes().splitlines()] for path in paths]
        theirs = self.goflow2.lines(len(found[0]))
        self.check_no_complaint()
        self.assertEqual(len(theirs), len(found[0]))
        return theirs, *found

    def of_the_flow(self, theirs, ours, kind, *unknown):
        """Lines without what the table above has. unknown: tables of what the probe was not told
        to have."""
        for line in theirs:
            self.assertEqual(line["type"], kind)
            names = dict(ONLY_GOFLOW2)
            names |= {name: NETWORKS[line["etype"]] for name in ("src_net", "dst_net")}
            for table in unknown:
                names |= table
            self.assertEqual({name: line[name] for name in names}, names)
        for line in ours:
            self.assertEqual(line["type"], "FLOWUNKNOWN")
        return ([without(line, OF_THE_WAY | names.keys()) for line in theirs],
                [without(line, OF_THE_WAY) for line in ours])

    def test_a_flow_of_ipfix_has_our_line(self):
        theirs, ours = self.of_the_flow(*self.replay_twice(pieces(), ipfix(PORT, OPTIONS)),
                                        "IPFIX", MACS, TAGS, LABELS, AS_NUMBERS)
        self.assertGreater(len(ours), 3500)
        self.assertEqual(many(theirs), many(in_milliseconds(ours)))

    def test_a_flow_of_netflow_v9_has_our_line_but_its_times(self):
        theirs, ours = self.of_the_flow(*self.replay_twice(pieces(), netflow_v9(PORT, OPTIONS)),
                                        "NETFLOW_V9", MACS, TAGS, LABELS, AS_NUMBERS)
        self.assertGreater(len(ours), 3500)
        self.assertEqual(many(without(line, TIMES) for line in theirs),
                         many(without(line, TIMES) for line in ours))
        # The header's time is of whole seconds, cut, and its uptime of milliseconds.
        for name in TIMES:
            sides = [sorted((json.dumps(without(line, TIMES), sort_keys=True), line[name])
                            for line in lines) for lines in (theirs, ours)]
            early = [right - left for (_, left), (_, right) in zip(*sides)]
            self.assertGreater(min(early), -MS)
            self.assertLess(max(early), NS + MS)

    def test_mac_addresses_are_the_same(self):
        words = ("-e", "mac", "-C", "0x007f")
        theirs, ours = self.of_the_flow(*self.replay_twice(
            pieces(*TAGGED), shipped(ipfix(PORT, OPTIONS), "mac"), words), "IPFIX", TAGS, LABELS,
            AS_NUMBERS)
        self.assertGreater(len({line["src_mac"] for line in ours}), 100)
        self.assertEqual(many(theirs), many(in_milliseconds(ours)))

    def test_tags_are_the_same_but_for_flows_with_two(self):
        # The shipped templates send two tags as dot1qVlanId and dot1qCustomerVlanId, which goflow2
        # does not know.
        words = ("-e", "vlan", "-C", "0x00f7")
        theirs, ours, inner = self.replay_twice(
            pieces(*TAGGED), shipped(ipfix(PORT, OPTIONS), "vlan"), words, second="L2_VLAN_1")
        theirs, ours = self.of_the_flow(theirs, ours, "IPFIX", MACS, AS_NUMBERS)
        known = [line | (TAGS if second["L2_VLAN_1"] else {})
                 for line, second in zip(ours, inner)]
        self.assertGreater(sum(line["vlan_id"] != 0 for line in known), 10)
        self.assertGreater(sum(line["vlan_id"] != 0 for line in ours),
                           sum(line["vlan_id"] != 0 for line in known))
        self.assertEqual(many(theirs), many(in_milliseconds(known)))

    def test_labels_are_the_same_but_for_the_third(self):
        # The shipped templates have two of them, and no tags.
        words = ("-e", "vlan", "-e", "mpls", "-C", "0x0177")
        theirs, ours = self.of_the_flow(*self.replay_twice(
            pieces(*TAGGED), shipped(ipfix(PORT, OPTIONS), "mpls"), words), "IPFIX", MACS, TAGS,
            AS_NUMBERS)
        known = [without(line, TAGS) | {"mpls_label": line["mpls_label"][:2]} for line in ours]
        self.assertGreater(sum(len(line["mpls_label"]) == 1 for line in ours), 400)
        self.assertGreater(sum(len(line["mpls_label"]) > 2 for line in ours), 10)
        self.assertEqual(many(theirs), many(in_milliseconds(known)))

    def test_interfaces_and_as_numbers_are_the_same(self):
        table, templates = self.folder / "as.txt", self.folder / "templates.txt"
        table.write_text("65001-10.1.0.0/16\n4200000000-10.2.0.0/16\n", encoding="ascii")
        shipped_text = (ROOT / "etc/ipfix-template.txt").read_text(encoding="ascii")
        templates.write_text(shipped_text.replace("#SRC_AS32", "SRC_AS32"), encoding="ascii")
        export = "-E", (f"ipfix:host=127.0.0.1,port={PORT},template_file={templates}{OPTIONS}")
        theirs, ours = self.of_the_flow(*self.replay_twice(
            [FLOWS], export, both=("-F", f"as_helper:{table}", "-N", "7", "-n", "9")), "IPFIX",
            MACS, TAGS, LABELS)
        for line in ours:
            self.assertEqual((line["in_if"], line["out_if"], line["src_as"], line["dst_as"]),
                             (7, 9, 65001, 4200000000))
        self.assertEqual(many(theirs), many(in_milliseconds(ours)))
