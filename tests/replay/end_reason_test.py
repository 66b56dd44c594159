"""The process plugin end-reason: each way in which a flow leaves the cache has its number."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import os
import re
import subprocess
from collections import Counter

from testbed.capture import NS, pcap
from testbed.flow_records import dissect, number, records
from testbed.frames import SYN, ethernet, icmp, icmpv6, ipv4, ipv6, other, tcp, udp
from testbed.replay import ROOT, ReplayCase

T = 631_152_000
A, B = "192.0.2.1", "198.51.100.7"
C, D = "2001:db8::1", "2001:db8::2"
PLUGIN = ("-X", os.environ["KESTREL_END_REASON"], "-P", "end-reason")
TIMEOUTS = ("-t", "180:10")
TEMPLATE = "BEGIN-TEMPLATE\nL4_SRC_PORT=L4_PORT_SRC,IN_PKTS=PACKETS,id136/1=END_REASON\n"
KEYS = {"ipfix": "template_file", "netflow-v9": "template-file"}
README = (ROOT / "extras/end-reason/README.md").read_text(encoding="utf-8")
EACH_KIND = [ethernet(ipv4(transport, A, B))
             for transport in (tcp(1, 80, SYN), udp(2, 53), icmp(8, 0), other(47, b"x"))]
EACH_KIND += [ethernet(ipv6(transport, C, D))
              for transport in (tcp(1, 80, SYN), udp(2, 53), icmpv6(128, 0), other(47, b"x"))]


def packets(*times_and_ports):
    """(seconds, source port)"""
    return [((T + seconds) * NS, ethernet(ipv4(udp(port, 53), A, B)))
            for seconds, port in times_and_ports]


class EndReason(ReplayCase):
    def messages(self, made, *options, kind="ipfix"):
        templates = self.file(TEMPLATE, name="templates.txt")
        return self.export(self.file(pcap(made)), kind, *PLUGIN, *(options or TIMEOUTS),
                           export_options=f",{KEYS[kind]}={templates}")

    def reasons(self, made, *options):
        """(source port, packets, reason) of each flow."""
        return sorted((number(record[7]), number(record[2]), number(record[136]))
                      for record in records(self.messages(made, *options)))

    def test_silence_is_an_idle_timeout_and_the_end_is_forced(self):
        self.assertEqual(self.reasons(packets((0, 1), (1, 1), (100, 2))), [(1, 2, 1), (2, 1, 4)])

    def test_a_flow_that_goes_on_has_active_timeouts(self):
        self.assertEqual(self.reasons(packets(*((second, 1) for second in range(400)))),
                         [(1, 40, 4), (1, 180, 2), (1, 180, 2)])

    def test_a_packet_out_of_order_is_a_lack_of_resources(self):
        self.assertEqual(self.reasons(packets((100, 1), (90, 1))), [(1, 1, 4), (1, 1, 5)])

    def test_flows_that_make_room_for_others_lacked_resources(self):
        # 32 places for 1,000 flows: what the last 32 of them pushed out.
        found = self.reasons(packets(*((0, port) for port in range(1, 1001))), "-q", "5")
        self.assertEqual([port for port, _, _ in found], list(range(1, 1001)))
        self.assertEqual(Counter(reason for _, _, reason in found), {4: 32, 5: 968})

    def test_a_dissector_knows_the_reasons(self):
        made = packets((0, 1), (100, 3), (101, 2), (99, 2))
        for kind in KEYS:
            with self.subTest(kind=kind):
                ports, reasons = dissect(self.messages(made, kind=kind), self.directory,
                                         "cflow.srcport", "cflow.flow_end_reason")
                self.assertEqual(sorted(zip(ports, reasons)),
                                 [("1", "1"), ("2", "4"), ("2", "5"), ("3", "4")])

    def with_the_field(self, name):
        """A shipped template file after the command of the plugin's page."""
        command, = re.findall(r"(?m)^sed .*$", README)
        made = self.directory / name
        command = command.replace("/etc/kestrel/ipfix-template.txt", f"{ROOT}/etc/{name}")
        command = command.replace("/etc/kestrel/ipfix-end-reason.txt", str(made))
        subprocess.run(["sh", "-c", command], check=True, stdin=subprocess.DEVNULL)
        return made

    def test_the_command_of_the_page_gives_each_template_the_field(self):
        path = self.file(pcap([(T * NS, frame) for frame in EACH_KIND]))
        for kind, name in (("ipfix", "ipfix-template.txt"), ("netflow-v9", "nf9-template.txt"),
                           ("ipfix", "ipfix-template-mac.txt")):
            with self.subTest(file=name):
                found = records(self.export(
                    path, kind, *PLUGIN, "-e", "mac",
                    export_options=f",{KEYS[kind]}={self.with_the_field(name)}"))
                self.assertEqual([record[136] for record in found], [b"\4"] * 8)

    def test_templates_without_room_for_the_field_are_refused(self):
        path = self.file(pcap(packets((0, 1))))
        lines = self.refused(path, *PLUGIN, "-e", "vlan", "-E", "ipfix:host=127.0.0.1,"
                             f"template_file={self.with_the_field('ipfix-template-vlan.txt')}")
        # 24 templates of 336 fields, and an IPv6 record of 75 bytes.
        self.assertEqual(lines[-1], "Templates too large for a packet: 1444 bytes of templates "
                                    "and a record of 75 bytes")

    def test_without_the_plugin_there_is_no_such_field(self):
        templates = self.file(TEMPLATE, name="templates.txt")
        lines = self.refused(self.file(pcap(packets((0, 1)))), "-E",
                             f"ipfix:host=127.0.0.1,template_file={templates}")
        self.assertEqual(lines[-1], "Unable to found record value: END_REASON")
