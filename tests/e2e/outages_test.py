"""Collectors that are killed and come back: frames sent = packets that the collector has + packets
that were on the wire when nobody took them + losses that the probe counts, exactly."""

import struct
from collections import Counter

from testbed.accounts import HANDED, LOST, SENT, UNREAD, Sum
from testbed.case import E2eCase
from testbed.returning_collector import ReturningCollector
from testbed.flow_sets import Reader, split_stream
from testbed.frames import UDP, ethernet, ipv4, udp
from testbed.netflow_v5 import V5Reader
from testbed.network import PROBED, received_frames
from testbed.probe import ipfix, netflow_v5, netflow_v9
from testbed.process import wait_until
from testbed.stream_collector import StreamCollector
from testbed.wire import LoopbackWitness

FAILED = "Can't reconnect to collector"
LOST_RECORDS = "kestrelexp_export_lost_records_total"
HANDED_RECORDS = "kestrelexp_handed_records_total"
ONE = 'export="ipfix-0"'
PCAP = ("-I", f"pcap:device={PROBED}")
# So small a cache hands flows on as soon as others come.
SMALL = ("-q", "6", "-t", "600:300")
# A cache that hands flows on a second later, with rings that take all that is sent here.
LARGE = ("-q", "16", "-t", "600:1")


def flows_of_one_packet(block, count):
    """Frames of as many flows; flows of different blocks differ."""
    return [ethernet(ipv4(udp(1 + n, 53), f"10.1.0.{block}", "10.2.0.1")) for n in range(count)]


def packets_of(datagrams, reader):
    return sum(reader.read(datagram).packets for datagram in datagrams)


def packets_left_out(datagrams, taken, reader):
    """Packets of the datagrams that are not among those taken."""
    taken = Counter(taken)
    packets = 0
    for datagram in datagrams:
        message = reader.read(datagram)  # those taken have templates, too
        if taken[datagram] > 0:
            taken[datagram] -= 1
        else:
            packets += message.packets
    return packets, taken.total()


def messages_on(wire, port):
    """The whole messages that were on the wire, over all connections to a port."""
    read = []
    for stream in wire.streams(port):
        reader = Reader()
        read += [reader.read(message) for message in split_stream(stream)[0]]
    return read


class Outages(E2eCase):
    def setUp(self):
        super().setUp()
        self.wire = LoopbackWitness()
        self.addCleanup(self.wire.finish)

    def sum_of(self, probe):
        found = Sum(probe.lines)
        found.check(self)
        return found

    def test_datagrams_are_lost_or_on_the_wire_while_nobody_listens(self):
        collectors = [ReturningCollector() for _ in range(3)]
        ports = [collector.port for collector in collectors]
        for collector in collectors:
            self.addCleanup(collector.close)
        probe = self.probe(*netflow_v5(ports[0]), *netflow_v9(ports[1]), *ipfix(ports[2]),
                           source=SMALL + PCAP)
        self.send_and_wait(1, ports)
        for collector in collectors:
            collector.die()
        self.send_and_wait(2, ports)
        for collector in collectors:
            collector.come_back()
        self.send_and_wait(3, ports)
        self.stop_in_order(probe, *collectors)
        self.wire.finish()

        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 4500)
        for collector, export, reader in zip(
                collectors, ("netflow-v5-0", "netflow-v9-1", "ipfix-2"),
                (V5Reader, Reader, Reader)):
            with self.subTest(export=export):
                self.check_datagrams(found, collector, f'export="{export}"', reader)

    def send_and_wait(self, block, ports):
        """1,500 flows; returns when ten messages of theirs have passed to each port."""
        before = [self.wire.count_of(UDP, port) for port in ports]
        self.sender.send(*flows_of_one_packet(block, 1500))
        wait_until(lambda: all(self.wire.count_of(UDP, port) >= count + 10
                               for port, count in zip(ports, before)), "messages on the wire")

    def check_datagrams(self, found, collector, export, reader):
        on_wire = self.wire.datagrams(collector.port)
        exported = packets_of(collector.datagrams, reader())
        nobodys, from_nowhere = packets_left_out(on_wire, collector.datagrams, reader())
        self.assertEqual(from_nowhere, 0, "datagrams that were never on the wire")
        self.assertGreater(nobodys, 50)
        self.assertEqual(found.total(SENT, export), packets_of(on_wire, reader()))
        self.assertEqual(found.total("kestrelexp_export_messages_total", export), len(on_wire))
        self.assertEqual(found.total("kestrelexp_export_bytes_total", export),
                         sum(map(len, on_wire)))
        self.assertGreater(found.total(LOST, export), 0)
        self.assertEqual(found.reasons(LOST, export), {"send": found.total(LOST, export)})
        self.assertEqual(4500, exported + nobodys + found.kept_from(export))

    def start_stream(self, cache):
        """A probe with one IPFIX export over TCP, and its collector that has taken 1,000 flows."""
        collector = StreamCollector()
        self.addCleanup(collector.close)
        probe = self.probe(*ipfix(collector.port, ",protocol=tcp"),
                           source=cache + PCAP)
        self.sender.send(*flows_of_one_packet(1, 1000))
        wait_until(lambda: collector.packets > 800, "packets")
        collector.drain()
        return probe, collector

    # Not under the address sanitizer: it waits for a minute.
    # Not under the thread sanitizer: it waits for a minute.
    def test_a_stream_that_broke_off_goes_on_after_a_minute(self):
        probe, collector = self.start_stream(SMALL)
        collector.stall()
        self.sender.send(*flows_of_one_packet(2, 1000))
        wait_until(lambda: sum(map(len, self.wire.streams(collector.port))) >
                   len(collector.connections[0].stream) + 30_000, "what nobody reads")
        collector.die(after_bytes=100)
        self.sender.send(*flows_of_one_packet(3, 1000))
        probe.wait_for_line(FAILED)
        collector.listen()
        collector.read_on()
        self.sender.send(*flows_of_one_packet(4, 5000))
        wait_until(lambda: len(collector.connections) == 2, "another connection", 65)
        collector.drain()
        self.stop_in_order(probe)
        collector.drain()
        self.wire.finish()

        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 8000)
        first, second = collector.connections
        before, partial = first.messages()
        after, rest = second.messages()
        self.assertEqual((len(partial), rest), (100, b""))
        taken = before[-1].sequence + before[-1].records
        self.assertEqual(struct.unpack_from(">I", partial, 8)[0], taken)
        # The records that the collector misses by its sequence numbers, of a packet each.
        missing = after[0].sequence - taken
        self.assertEqual(after[-1].sequence + after[-1].records, found.total(HANDED_RECORDS))
        self.assertEqual(found.total(HANDED), found.total(HANDED_RECORDS))
        lost = found.reasons(LOST, ONE)
        self.assertEqual(set(lost), {"send"})
        on_wire = messages_on(self.wire, collector.port)
        nobodys = sum(message.packets for message in on_wire
                      if taken <= message.sequence < after[0].sequence)
        self.assertEqual(found.total(SENT, ONE), sum(message.packets for message in on_wire))
        self.assertGreater(nobodys, 0)
        self.assertEqual(missing, nobodys + lost["send"])
        self.assertEqual(8000, collector.packets + nobodys + found.kept_from(ONE))
        self.assertEqual(found.total("kestrelexp_export_reconnects_total"), 1)

    def interrupt_an_outage(self, cache):
        """Ends a probe whose collector is away; returns its sum, which has all 2,000 frames."""
        probe, collector = self.start_stream(cache)
        collector.die()
        self.sender.send(*flows_of_one_packet(2, 1000))
        probe.wait_for_line(FAILED)
        self.stop_in_order(probe)
        self.wire.finish()
        found = self.sum_of(probe)
        self.assertEqual(received_frames(), 2000)
        on_wire = messages_on(self.wire, collector.port)
        self.assertEqual(found.total(SENT, ONE), sum(message.packets for message in on_wire))
        (last,) = collector.connections[0].messages()[0][-1:]
        nobodys = sum(message.packets for message in on_wire if message.sequence > last.sequence)
        self.assertIn("Reconnect to collector interrupted, "
                      f"{found.total(LOST_RECORDS, ONE)} records lost", probe.lines)
        self.assertEqual(2000, collector.packets + nobodys + found.kept_from(ONE))
        return found

    def test_an_interrupt_in_an_outage_leaves_nothing_out(self):
        found = self.interrupt_an_outage(LARGE)
        self.assertGreaterEqual(found.total(LOST, ONE), 900)
        self.assertEqual(found.total(UNREAD), 0)

    # Not under the address sanitizer: as the one above, with a small cache.
    # Not under the thread sanitizer: as the one above, with a small cache.
    def test_an_interrupt_in_an_outage_tells_what_nobody_has_read(self):
        # The rings have room for twelve packets, the cache for 64.
        found = self.interrupt_an_outage(SMALL)
        self.assertGreater(found.total(LOST, ONE), 0)
        self.assertGreater(found.total(UNREAD), 100)
