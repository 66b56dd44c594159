"""Elements that a template file gives by number, as a dissector of the field reads them."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.
# Not under the address sanitizer: units and the fuzz target read such files there.

from testbed.capture import NS, pcap
from testbed.flow_records import dissect, records
from testbed.frames import SYN, ethernet, ipv4, tcp
from testbed.replay import ReplayCase

FRAME = ethernet(ipv4(tcp(2001, 443, SYN, b"x" * 60), "192.0.2.1", "198.51.100.7"), labels=[74565])
BLOCKS = ("-e", "vlan", "-e", "mpls")


class NumberedElements(ReplayCase):
    def messages(self, kind, key, template):
        path = self.file("BEGIN-TEMPLATE\n" + template, name="templates.txt")
        return self.export(self.file(pcap([(NS, FRAME)])), kind, *BLOCKS,
                           export_options=f",{key}={path}")

    def test_a_dissector_reads_private_elements(self):
        messages = self.messages("ipfix", "template_file",
                                 "id32473.57/4=BYTES,id7/2=L4_PORT_SRC,id70/3=L2_MPLS_0\n"
                                 "id4294967295.32767/3=PACKETS\n")
        self.assertEqual(records(messages), [
            {(32473, 57): b"\0\0\0\x64", 7: b"\x07\xd1", 70: b"\x12\x34\x51",
             (0xFFFFFFFF, 32767): b"\0\0\1"}])
        pens, numbers, values, ports, labels, bottoms = dissect(
            messages, self.directory, "cflow.template_ipfix_field_pen",
            "cflow.template_ipfix_field_type_enterprise", "cflow.enterprise_private_entry",
            "cflow.srcport", "cflow.mpls_label", "cflow.mpls_bos")
        self.assertEqual(pens, ["32473", "4294967295"])
        self.assertEqual(numbers, ["57", "32767"])
        self.assertEqual(values, ["00000064", "000001"])
        self.assertEqual((ports, labels, bottoms), (["2001"], ["74565"], ["1"]))

    def test_a_dissector_reads_numbers_in_netflow_v9(self):
        messages = self.messages("netflow-v9", "template-file",
                                 "id1/8=BYTES,id2/3=PACKETS,id11/2=L4_PORT_DST\n")
        octets, packets, ports = dissect(messages, self.directory, "cflow.octets",
                                         "cflow.packets", "cflow.dstport")
        self.assertEqual(records(messages), [{1: bytes(7) + b"\x64", 2: b"\0\0\1", 11: b"\1\xbb"}])
        self.assertEqual((octets, ports), (["100"], ["443"]))
        self.assertEqual(packets, ["1"])

    def test_a_fault_ends_the_start_with_the_field(self):
        for kind, key, field, reason in (
                ("ipfix", "template_file", "id0/4=BYTES", "wrong element number, not 1 to 32767"),
                ("ipfix", "template_file", "id9/0=BYTES", "wrong length, not 1 to 65534"),
                ("netflow-v9", "template-file", "id32473.57/4=BYTES",
                 "an enterprise number, which IPFIX alone knows")):
            with self.subTest(field=field):
                path = self.file(f"BEGIN-TEMPLATE\nIN_PKTS=PACKETS\n{field}\n", name="faulty.txt")
                lines = self.refused(self.file(pcap([(NS, FRAME)])), "-E",
                                     f"{kind}:host=127.0.0.1,{key}={path}")
                self.assertEqual(lines[-1], f"Field: {field} has {reason}")
