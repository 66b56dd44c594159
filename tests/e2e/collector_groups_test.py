"""Exports with several collectors: who gets which flows, also when one of them goes and comes back,
with the sum of each closed."""

# Not under the address sanitizer: the connections are those of background_test, which runs there.
# Not under the thread sanitizer: the threads are those of background_test, which runs there.

from testbed.accounts import HANDED, LOST, SENT, Sum
from testbed.background import ONE
from testbed.case import E2eCase
from testbed.flow_records import number, records
from testbed.flow_sets import split_stream
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED
from testbed.process import settle, wait_until
from testbed.returning_collector import ReturningCollector
from testbed.stream_collector import StreamCollector

HOSTS = ("127.0.0.1", "127.0.0.2", "127.0.0.3")
SOURCE, DESTINATION = "192.0.2.1", "198.51.100.7"
# Flows are handed on a second after they end.
INPUT = ("-t", "600:1", "-I", f"pcap:device={PROBED}")
# A record takes a message to itself, so no more than one waits in a packet.
WIDE = "BEGIN-TEMPLATE\nid7/2=L4_PORT_SRC,id2/4=PACKETS,id461/1400=BYTES\n"
NARROW = "BEGIN-TEMPLATE\nid7/2=L4_PORT_SRC,id2/4=PACKETS\n"
WORD = 0xFFFFFFFFFFFFFFFF


def mixed(value, word):
    value = (value ^ word) * 0x9E3779B97F4A7C15 & WORD
    return value ^ value >> 32


def preference(port, position):
    """The model of a flow's wish for a collector: SplitMix64 over the flow's identity."""
    identity = mixed(0, 0xC0000201 << 32 | 0xC6336407)
    identity = mixed(mixed(identity, 17), port << 16 | 53)
    value = identity + (position + 1) * 0x9E3779B97F4A7C15 & WORD
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9 & WORD
    value = (value ^ value >> 27) * 0x94D049BB133111EB & WORD
    return value ^ value >> 31


def shares(ports, positions):
    """The ports of each collector, when those at these positions are up."""
    found = {position: [] for position in range(len(HOSTS))}
    for port in ports:
        found[max(positions, key=lambda position: preference(port, position))].append(port)
    return [found[position] for position in range(len(HOSTS))]


def frames(ports):
    return [ethernet(ipv4(udp(port, 53), SOURCE, DESTINATION)) for port in ports]


def ports_of(messages):
    return [number(record[7]) for record in records(messages)]


class CollectorGroups(E2eCase):
    def opened(self, kind, hosts):
        """A collector on each host, all on one port."""
        collectors = [kind(host=hosts[0])]
        collectors += [kind(host=host, port=collectors[0].port) for host in hosts[1:]]
        for collector in collectors:
            self.addCleanup(collector.close)
        return collectors

    def start(self, group, collectors, templates=WIDE, kind="ipfix", options=""):
        path = self.directory() / "templates"
        path.write_text(templates, encoding="ascii")
        key = {"ipfix": "template_file", "netflow-v9": "template-file"}[kind]
        hosts = "#".join(collector.host for collector in collectors)
        probe = self.probe("-E", f"{kind}:host={hosts},port={collectors[0].port},group={group},"
                           f"{key}={path},reconnect=background{options}", source=INPUT)
        wait_until(lambda: all(map(self.has_templates, collectors)), "templates")
        settle(1)  # after which connections are up
        return probe

    def has_templates(self, collector):
        if isinstance(collector, StreamCollector):
            return any(connection.stream for connection in collector.connections)
        collector.drain()
        return collector.datagrams

    def said(self, kind, collector, what):
        return f"Export {kind} to {collector.host} port {collector.port}: {what}"

    def ports(self, collector):
        """Those of all records that have come."""
        if isinstance(collector, StreamCollector):
            return [port for connection in collector.connections
                    for port in ports_of(split_stream(bytes(connection.stream))[0])]
        collector.drain()
        return ports_of(collector.datagrams)

    def send(self, ports, expected):
        """Sends a flow of each port; returns once each collector has what is expected, but for the
        record that waits in its packet. expected: (collector, ports)"""
        self.sender.send(*frames(ports))
        for collector, its_ports in expected:
            wait_until(lambda of=collector, wanted=set(its_ports):
                       len(wanted & set(self.ports(of))) >= len(wanted) - 1, f"{its_ports}")

    def test_in_parallel_each_collector_has_all_flows_and_a_sum_of_its_own(self):
        collectors = self.opened(ReturningCollector, HOSTS[:2])
        probe = self.start("parallel", collectors, NARROW)
        self.sender.send(*frames(range(1, 501)))
        self.stop_in_order(probe, *collectors)
        for collector in collectors:
            self.assertEqual(sorted(self.ports(collector)), list(range(1, 501)))
            # Templates, numbers and messages are its own.
            self.assertEqual(collector.datagrams[0][8:12], bytes(4))
        found = Sum(probe.lines)
        found.check(self, parallel=(ONE,))
        for collector in found.collectors(ONE):
            self.assertEqual(found.total(SENT, ONE, collector), 500)
        self.assertEqual(found.collectors(ONE), ['collector="0"', 'collector="1"'])

    def test_in_parallel_one_that_is_down_keeps_nothing_from_the_other(self):
        collectors = self.opened(ReturningCollector, HOSTS[:2])
        probe = self.start("parallel", collectors, NARROW, options=",drain=2")
        collectors[1].die()
        self.sender.send(*frames(range(1, 501)))
        probe.wait_for_line(self.said("ipfix", collectors[1], "no collector"))
        self.stop_in_order(probe, collectors[0])
        self.assertEqual(sorted(self.ports(collectors[0])), list(range(1, 501)))
        found = Sum(probe.lines)
        found.check(self, parallel=(ONE,))
        self.assertEqual(found.total(LOST, ONE, 'collector="0"'), 0)
        self.assertGreater(found.total(LOST, ONE, 'collector="1"'), 0)

    def test_load_balancing_moves_the_flows_of_a_collector_that_is_down_and_no_other(self):
        collectors = self.opened(StreamCollector, HOSTS)
        probe = self.start("load-balancing", collectors, options=",protocol=tcp")
        blocks = range(1, 201), range(201, 401), range(401, 601)
        whole, without = shares(blocks[0], (0, 1, 2)), shares(blocks[1], (0, 2))
        again = shares(blocks[2], (0, 1, 2))
        self.assertEqual(without[1], [])
        self.send(blocks[0], zip(collectors, whole))
        collectors[1].die()
        probe.wait_for_line(self.said("ipfix", collectors[1], "no collector"))
        self.send(blocks[1], zip(collectors, without))
        collectors[1].listen()
        probe.wait_for_line(self.said("ipfix", collectors[1], "connected after"), 60)
        self.send(blocks[2], zip(collectors, again))
        self.stop_in_order(probe, *collectors)

        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(HANDED), 600)
        for position, collector in enumerate(collectors):
            expected = whole[position] + without[position] + again[position]
            self.assertGreater(len(expected), 100)
            lost = found.total(LOST, ONE, f'collector="{position}"')
            ports = self.ports(collector)
            self.assertEqual(set(ports) - set(expected), set())
            if position != 1:
                self.assertEqual((len(ports), lost), (len(expected), 0))
            # What its system has acknowledged when it dies is lost unseen: a record at most, here.
            self.assertIn(len(expected) - len(ports) - lost, (0, 1))

    def test_records_of_a_flow_meet_at_one_collector(self):
        collectors = self.opened(ReturningCollector, HOSTS)
        probe = self.start("load-balancing", collectors)
        expected = shares(range(1, 301), (0, 1, 2))
        for times in (1, 2):
            self.sender.send(*frames(range(1, 301)))
            wait_until(lambda n=times: all(
                len(self.ports(collector)) >= len(ports) * n - 1
                for collector, ports in zip(collectors, expected)), "a record of each flow")
        self.stop_in_order(probe, *collectors)
        for collector, ports in zip(collectors, expected):
            self.assertEqual(sorted(self.ports(collector)), sorted(ports * 2))
        Sum(probe.lines).check(self)

    def test_fallback_goes_to_the_first_that_is_up_and_goes_back(self):
        collectors = self.opened(ReturningCollector, HOSTS[:2])
        first, second = collectors
        probe = self.start("fallback", collectors, kind="netflow-v9")
        self.send(range(1, 51), [(first, range(1, 51))])
        self.assertEqual(self.ports(second), [])
        first.die()
        # Datagrams tell of it: these are lost or wait.
        self.sender.send(*frames(range(51, 61)))
        probe.wait_for_line(self.said("netflow-v9", first, "no collector"))
        self.send(range(101, 151), [(second, range(101, 151))])
        first.come_back()
        probe.wait_for_line(self.said("netflow-v9", first, "connected after"), 60)
        self.send(range(201, 251), [(first, range(201, 251))])
        self.stop_in_order(probe, *collectors)
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(HANDED), 160)
        to_first, to_second = map(set, map(self.ports, collectors))
        self.assertLessEqual(to_first, {*range(1, 61), *range(201, 251)})
        self.assertLessEqual(set(range(101, 151)), to_second)
        self.assertLessEqual(to_second, set(range(51, 151)))
        self.assertEqual(len(to_first) + len(to_second) + found.total(LOST), 160)

    def test_groups_that_make_no_sense_end_the_start(self):
        for words, said in (
                ("ipfix:host=a#b", "host names several collectors: say how they share the flows, "
                 "with group=parallel, load-balancing or fallback"),
                ("netflow-v9:host=a#b,group=both,reconnect=background",
                 "Unknown group: both (there are parallel, load-balancing and fallback)"),
                ("ipfix:host=a#b,group=parallel", "group goes with reconnect=background"),
                ("netflow-v5:host=a#b,group=parallel,reconnect=background",
                 "netflow-v5 has one collector: give each an export of its own"),
                ("netflow-v5:host=a#b,reconnect=background",
                 "netflow-v5 has one collector: give each an export of its own"),
                ("ipfix:host=a,group=parallel,reconnect=background",
                 "group goes with several collectors, as in host=a#b")):
            with self.subTest(words=words):
                probe = self.probe("-E", words, source=INPUT, ready=False)
                self.assertEqual(probe.wait(), 255, probe.describe())
                self.assertEqual(probe.lines[-1], said)
