"""Options records: what an export tells its collector about itself, when, and that every byte of it
is right. The bytes of each form are derived by hand in src/export/options_form_test.cpp."""

# Not under the address sanitizer: units run this code.
# Not under the thread sanitizer: background_options_test has the threads.

from testbed import options as told
from testbed.accounts import LOST, SENT, Sum
from testbed.af_packet import index_of
from testbed.af_packet import words as af_packet
from testbed.case import E2eCase
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, ip
from testbed.probe import ipfix, netflow_v9
from testbed.process import wait_until
from testbed.stream_collector import StreamCollector

EXPORTS = (ipfix, netflow_v9)
DAY = ",options-refresh-time=86400"
EVERY_SECOND = ",options-refresh-time=1"
TEMPLATE = "BEGIN-TEMPLATE\nL4_SRC_PORT=L4_PORT_SRC\n"
FIXED_NAME, FIXED_DESCRIPTION = b"kb".ljust(32, b"\0").hex(), b"uplink".ljust(64, b"\0").hex()
# The sets of the first message with options: one in 20 packets, a message of 28 or 32 bytes before,
# and the interface kb, which is number 7.
FIRST = {ipfix: f"""
    0003 0018 0200 0003 0001 0095 0004 0022 0004 0023 0001 0000
    0003 0018 0202 0003 0001 000a 0004 0052 ffff 0053 ffff 0000
    0003 001c 0203 0004 0001 0095 0004 0028 0008 0029 0008 002a 0008 0000
    0003 0018 0204 0003 0001 0095 0004 00a3 0008 00a4 0008 0000
    0003 001c 0205 0004 0001 0090 0004 00a6 0008 00a7 0008 00a8 0008 0000
    0200 0010 01020304 00000014 01 000000
    0203 0020 01020304 000000000000001c 0000000000000001 0000000000000000
    0204 0018 01020304 0000000000000000 0000000000000000
    0205 0020 00000000 0000000000000000 0000000000000000 0000000000000000
    0202 0014 00000007 02 {b"kb".hex()} 06 {b"uplink".hex()} 0000""",
         netflow_v9: f"""
    0001 0018 0200 0004 0008 0001 0004 0022 0004 0023 0001 0000
    0001 001c 0202 0004 000c 0001 0004 000a 0004 0052 0020 0053 0040 0000
    0001 001c 0203 0004 000c 0001 0004 0028 0008 0029 0008 002a 0008 0000
    0001 0018 0204 0004 0008 0001 0004 00a3 0008 00a4 0008 0000
    0001 001c 0205 0004 000c 0001 0004 00a6 0008 00a7 0008 00a8 0008 0000
    0200 0010 01020304 00000014 01 000000
    0203 0020 01020304 0000000000000020 0000000000000001 0000000000000000
    0204 0018 01020304 0000000000000000 0000000000000000
    0205 0020 01020304 0000000000000000 0000000000000000 0000000000000000
    0202 006c 01020304 00000007 {FIXED_NAME} {FIXED_DESCRIPTION}"""}
TEMPLATE_KEYS = {ipfix: "template_file", netflow_v9: "template-file"}


def flows(count, first=1):
    return [ethernet(ipv4(udp(first + n, 53), "10.1.0.1", "10.2.0.1")) for n in range(count)]


class Options(E2eCase):
    def datagrams(self):
        collector = told.Datagrams()
        self.addCleanup(collector.close)
        return collector

    def wait_for_records(self, collector, element, count=1):
        wait_until(lambda: len(collector.options(element)) >= count,
                   f"{count} records with element {element}")
        return collector.options(element)

    def end(self, probe, *collectors):
        """Ends the probe; all that it says it sent has come, in its order."""
        self.stop_in_order(probe, *collectors)
        found = Sum(probe.lines)
        found.check(self)
        for collector, export in zip(collectors, found.exports()):
            told.check_sequence(collector.messages)
            self.assertEqual(found.total("kestrelexp_export_messages_total", export),
                             len(collector.raw))
            self.assertEqual(found.total("kestrelexp_export_bytes_total", export),
                             sum(map(len, collector.raw)))
            self.assertEqual(found.total("kestrelexp_export_records_total", export),
                             sum(message.flows for message in collector.messages))
        return found

    def test_the_first_messages_are_exact_to_the_byte(self):
        ip(f"link set {PROBED} alias uplink")
        templates = self.directory() / "templates"
        templates.write_text(TEMPLATE, encoding="ascii")
        for export in EXPORTS:
            with self.subTest(export=export.__name__):
                collector = self.datagrams()
                words = ("-S", "10", "-N", "7", "-n", "7", "-E",
                         f"{export.__name__.replace('_', '-')}:host=127.0.0.1,ip=4,"
                         f"port={collector.port},{TEMPLATE_KEYS[export]}={templates},"
                         f"source_id=16909060{DAY}")
                probe = self.probe(*words, input_options=",sampling=2")
                self.wait_for_records(collector, told.RATE)
                self.end(probe, collector)
                self.assertEqual(len(collector.raw), 2)
                header = 16 if export is ipfix else 20
                self.assertEqual(collector.raw[1][header:].hex(" "),
                                 bytes.fromhex(FIRST[export]).hex(" "))
                self.assertEqual(collector.raw[1][header - 4:header], bytes((1, 2, 3, 4)))

    def test_every_second_the_statistics_are_those_of_the_counters(self):
        collectors = [self.datagrams() for _ in EXPORTS]
        probe = self.probe(*(word for export, collector in zip(EXPORTS, collectors)
                             for word in export(collector.port, EVERY_SECOND)),
                           source=("-q", "6", "-I", f"pcap:device={PROBED}"))
        self.sender.send(*flows(500), bytes(12) + b"\x08\x06" + bytes(40))
        for collector in collectors:
            wait_until(lambda: any(record[told.OBSERVED] == 500
                                   for record in collector.options(told.OBSERVED)), "500 flows")
            self.wait_for_records(collector, told.FLOWS, 3)
        self.end(probe, *collectors)
        for collector in collectors:
            sent = flows_sent = 0
            for number, message in enumerate(collector.messages):
                for record in message.of(told.FLOWS):
                    self.assertEqual((record[told.OCTETS], record[told.MESSAGES],
                                      record[told.FLOWS]), (sent, number, flows_sent))
                for record in message.of(told.OBSERVED):
                    self.assertEqual(record[told.IGNORED], 0)  # what is not IP is none
                for record in message.of(told.UNSENT_FLOWS):
                    self.assertEqual((record[told.UNSENT_FLOWS], record[told.UNSENT_PACKETS],
                                      record[told.UNSENT_OCTETS]), (0, 0, 0))
                sent += message.length
                flows_sent += message.flows
            self.assertEqual(flows_sent, 500)

    def test_what_is_not_exported_is_told(self):
        collector = self.datagrams()
        probe = self.probe("-S", "5", *netflow_v9(collector.port, EVERY_SECOND),
                           source=("-q", "6", "-I", f"pcap:device={PROBED}"))
        # 28 bytes of each are IP; 4 of 5 are not sent.
        self.sender.send(*flows(1000))
        def unsent():
            return [tuple(record[element] for element in (
                told.UNSENT_FLOWS, told.UNSENT_PACKETS, told.UNSENT_OCTETS))
                    for record in collector.options(told.UNSENT_FLOWS)]
        # Some flows stay in so small a cache.
        wait_until(lambda: unsent() and unsent()[-1][0] > 700, "what is not sent")
        found = self.end(probe, collector)
        self.assertEqual((found.total(SENT), found.total(LOST)), (200, 800))
        for count, packets, octets in unsent():
            self.assertEqual((packets, octets), (count, 28 * count))
        self.assertEqual({record[told.RATE] for record in collector.options(told.RATE)}, {5})

    def test_an_interface_that_changes_is_told_at_once(self):
        collectors = [self.datagrams() for _ in range(2)]
        probes = [self.probe(*ipfix(collectors[0].port, DAY)),
                  self.probe(*ipfix(collectors[1].port, DAY), source=af_packet())]
        for collector in collectors:
            self.wait_for_records(collector, told.NAME)
        ip(f"link set {PROBED} alias to-the-office")
        for collector in collectors:
            first, second = self.wait_for_records(collector, told.NAME, 2)
            self.assertEqual((first[told.DESCRIPTION], second[told.DESCRIPTION]),
                             ("", "to-the-office"))
        self.assertEqual(second[told.NAME], PROBED)
        for probe, collector in zip(probes, collectors):
            self.end(probe, collector)

    def test_an_interface_that_is_made_again_has_its_new_number(self):
        collector = self.datagrams()
        probe = self.probe(*netflow_v9(collector.port, DAY), source=af_packet())
        before, = self.wait_for_records(collector, told.NAME)
        ip(f"link delete {PROBED}")
        probe.wait_for_line(f"Device {PROBED} is gone")
        ip(f"link add ka index 4711 type veth peer name {PROBED} index 4712")
        ip("link set ka arp off up")
        ip(f"link set {PROBED} arp off up")
        wait_until(lambda: collector.options(told.NAME)[-1][told.INGRESS] == 4712, "its number")
        self.assertNotEqual(before[told.INGRESS], 4712)
        self.end(probe, collector)

    def test_numbers_are_those_of_the_flow_records(self):
        both, own, last = self.datagrams(), self.datagrams(), self.datagrams()
        probe = self.probe(*ipfix(own.port, DAY), "-N", "7", "-n", "8", *ipfix(both.port, DAY),
                           "-n", "9", *ipfix(last.port, DAY), source=af_packet(f"{PROBED}#lo"))
        numbers = {name: index_of(name) for name in (PROBED, "lo")}
        self.assertEqual({record[told.NAME]: record[told.INGRESS]
                          for record in self.wait_for_records(own, told.NAME, 2)}, numbers)
        self.assertEqual([(record[told.INGRESS], record[told.NAME])
                          for record in self.wait_for_records(both, told.NAME, 2)],
                         [(7, f"{PROBED},lo"), (8, f"{PROBED},lo")])
        # A number stays in the record for the exports after the one that it was given for.
        self.assertEqual([record[told.INGRESS]
                          for record in self.wait_for_records(last, told.NAME, 2)], [7, 9])
        self.end(probe, own, both, last)

    def test_sampling_of_af_packet_is_random(self):
        plain, psamp = self.datagrams(), self.datagrams()
        probe = self.probe(*ipfix(plain.port, DAY), "-S", "10",
                           *netflow_v9(psamp.port, DAY + ",sampling-elements=psamp"),
                           source=af_packet(options=",sampling=50"))
        self.assertEqual([(record[told.RATE], record[told.ALGORITHM])
                          for record in self.wait_for_records(plain, told.RATE)], [(50, 2)])
        self.assertEqual([(record[told.SPACED], record[told.SPACE])
                          for record in self.wait_for_records(psamp, told.SPACED)], [(1, 499)])
        self.end(probe, plain, psamp)

    def test_a_new_connection_has_templates_and_then_options(self):
        collector = StreamCollector()
        self.addCleanup(collector.close)
        probe = self.probe(*ipfix(collector.port, ",protocol=tcp" + DAY),
                           source=("-q", "6", "-I", f"pcap:device={PROBED}"))
        wait_until(lambda: len(kinds(collector, 0)) >= 2, "the first options")
        collector.die()
        collector.listen()
        number = 0
        def has_come_again():
            nonlocal number
            self.sender.send(*flows(100, 1 + 100 * number))
            number += 1
            return len(collector.connections) == 2 and len(kinds(collector, 1)) >= 2
        wait_until(has_come_again, "the options of the second connection")
        self.stop_in_order(probe)
        collector.drain()
        Sum(probe.lines).check(self)
        for connection in range(2):
            self.assertEqual(kinds(collector, connection)[:2], ["templates", "options"])


def kinds(collector, connection):
    """What the messages of a connection have."""
    if len(collector.connections) <= connection:
        return []
    return ["options" if message.options_templates else
            "templates" if message.templates else "flows"
            for message in told.read_stream(bytes(collector.connections[connection].stream))]
