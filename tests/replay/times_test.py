"""The time of the packets is the time of the program: header times, time-outs, silences.

Where nothing else is said the time-outs are 180 s and 10 s. Passes are then 2.51 s apart (251
ticks). Without packets every third one looks at all flows: 7.53 s, 15.06 s, ... after the first
packet. Exports are looked after every 6 s, and flushed at the second look after the last flow.
"""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import struct
import time

from testbed.capture import NS, pcap
from testbed.frames import arp_request, ethernet, ipv4, udp
from testbed.netflow_v5 import decode
from testbed.replay import ReplayCase

T = 631_152_000  # 1990-01-01
MS = 1_000_000
TIMEOUTS = ("-t", "180:10")


def frame(port):
    return ethernet(ipv4(udp(port, 53), "10.0.0.1", "10.0.0.2"))


def packets(*times_and_ports, origin=T):
    """(seconds after the origin, source port)"""
    return [(round((origin + seconds) * 1000) * MS, frame(port))
            for seconds, port in times_and_ports]


def ipfix_header(message):
    """Export time, and whether there is a template set."""
    version, length, seconds = struct.unpack_from(">HHI", message)
    assert (version, length) == (10, len(message))
    sets = []
    position = 16
    while position < length:
        kind, size = struct.unpack_from(">HH", message, position)
        sets.append(kind)
        position += size
    return seconds, 2 in sets


def nf9_header(packet):
    """Uptime in ms, seconds, and whether the first flowset has templates."""
    version, _, uptime, seconds = struct.unpack_from(">HHII", packet)
    assert version == 9
    return uptime, seconds, struct.unpack_from(">H", packet, 20)[0] == 0


class Times(ReplayCase):
    def v5(self, made, *arguments):
        """What the datagrams say: (seconds, nanoseconds, uptime), [(First, Last, packets) ...]. The
        flows of a datagram are put in order, as that of a flush is the order of the cache."""
        datagrams = self.export(self.file(pcap(made)), "netflow-v5", *(arguments or TIMEOUTS))
        return [((header.seconds, header.nanoseconds, header.uptime_ms),
                 sorted((record.first_ms, record.last_ms, record.flow.packets)
                        for record in records))
                for header, records in map(decode, datagrams)]

    def test_a_flow_leaves_when_its_silence_is_noticed_and_is_sent_on_its_own(self):
        # The uptime begins at one minute.
        self.assertEqual(self.v5(packets((0, 1), (100, 2))), [
            ((T + 15, 60 * MS, 75_060), [(60_000, 60_000, 1)]),
            ((T + 100, 0, 160_000), [(160_000, 160_000, 1)])])

    def test_flows_of_one_moment_share_a_datagram(self):
        self.assertEqual(self.v5(packets((0, 1), (16, 2))), [
            ((T + 16, 0, 76_000), [(60_000, 60_000, 1), (76_000, 76_000, 1)])])

    def test_the_same_in_netflow_v9(self):
        made = self.file(pcap(packets((0, 1), (100, 2))))
        sent = self.export(made, "netflow-v9", *TIMEOUTS)
        self.assertEqual([nf9_header(packet) for packet in sent],
                         [(75_060, T + 15, True), (160_000, T + 100, False)])

    def test_ipfix_tells_the_time_of_the_flush(self):
        made = self.file(pcap(packets((0, 1), (100, 2))))
        sent = self.export(made, "ipfix", *TIMEOUTS)
        self.assertEqual([ipfix_header(message) for message in sent],
                         [(T + 24, True), (T + 100, False)])

    def test_templates_are_sent_again_by_the_packets_clock(self):
        # Flows leave at 15.06, 112.95 and 215.86 s; the third message is the first that is sent
        # later than 150 s, so templates are put after it and leave with the next flush.
        made = self.file(pcap(packets((0, 1), (100, 2), (200, 3), (300, 4))))
        messages = self.export(made, "ipfix", *TIMEOUTS,
                               export_options=",template-refresh-time=150")
        self.assertEqual([ipfix_header(message) for message in messages], [
            (T + 24, True), (T + 120, False), (T + 222, False), (T + 228, True), (T + 300, False)])

    def test_a_packet_ends_flows_that_the_passes_left_to_it(self):
        # At 10.04 s the scan had not been completed, so the packet at 12 s completes it.
        self.assertEqual(self.v5(packets((0, 1), (12, 1))), [
            ((T + 12, 0, 72_000), [(60_000, 60_000, 1), (72_000, 72_000, 1)])])

    def test_a_flow_that_pauses_shortly_goes_on(self):
        self.assertEqual(self.v5(packets((0, 1), (9, 1))), [
            ((T + 9, 0, 69_000), [(60_000, 69_000, 2)])])

    def test_an_hour_of_one_flow_leaves_every_three_minutes(self):
        seen = self.v5(packets(*((second, 1) for second in range(3600))))
        self.assertEqual(seen[:2], [
            ((T + 180, 0, 240_000), [(60_000, 239_000, 180)]),
            ((T + 360, 0, 420_000), [(240_000, 419_000, 180)])])
        self.assertEqual(seen[-1], ((T + 3599, 0, 3_659_000), [(3_480_000, 3_659_000, 180)]))
        self.assertEqual(len(seen), 20)

    def test_time_outs_are_those_of_the_command_line(self):
        # Passes of 0.26 s; the cut comes every 4 s, the end 1 s and up to three passes later.
        seen = self.v5(packets((0, 1), (1, 1), (2, 1), (3, 1), (4, 1), (30, 2)), "-t", "4:1")
        self.assertEqual([records for _, records in seen],
                         [[(60_000, 63_000, 4), (64_000, 64_000, 1)], [(90_000, 90_000, 1)]])

    def test_a_file_of_the_future(self):
        seen = self.v5(packets((0, 1), origin=4_102_444_800))
        self.assertEqual(seen, [((4_102_444_800, 0, 60_000), [(60_000, 60_000, 1)])])

    def test_packets_at_the_beginning_of_time(self):
        seen = self.v5(packets((0, 1), (1, 2), origin=0))
        self.assertEqual(seen, [((1, 0, 1_000), [(0, 0, 1), (1_000, 1_000, 1)])])

    def test_a_packet_out_of_order_ends_its_flow_and_the_clock_stays(self):
        seen = self.v5(packets((100, 1), (90, 1)))
        self.assertEqual(seen, [((T + 100, 0, 60_000), [(50_000, 50_000, 1), (60_000, 60_000, 1)])])

    def test_frames_that_are_no_flow_move_the_clock(self):
        made = packets((0, 1)) + [((T + 20) * NS, ethernet(arp_request()))] + packets((1, 1))
        self.assertEqual(self.v5(made), [
            ((T + 20, 0, 80_000), [(60_000, 60_000, 1), (61_000, 61_000, 1)])])

    def test_fifty_years_of_silence_pass_at_once(self):
        began = time.monotonic()
        seen = self.v5(packets((0, 1), (1_577_880_000, 2)))
        self.assertLess(time.monotonic() - began, 20)
        # 1,577,880,060,000 ms, cut to 32 bits.
        self.assertEqual(seen, [
            ((T + 15, 60 * MS, 75_060), [(60_000, 60_000, 1)]),
            ((T + 1_577_880_000, 0, 1_627_062_368), [(1_627_062_368, 1_627_062_368, 1)])])

    def test_times_keep_their_nanoseconds(self):
        out = self.directory / "flows.txt"
        made = [(T * NS + 123_456_789, frame(1)), (T * NS + 123_456_799, frame(1))]
        self.replay(self.file(pcap(made, nanoseconds=True)), "-E", f"flow_lines:file={out}")
        self.assertEqual(out.read_text().split()[:3],
                         [f"{T}123456799:", f"{T}123456789", f"{T}123456799"])
