"""Several lanes of af-packet, and several probes, share the frames of a device by flow."""

import dataclasses
import os
import random
from collections import Counter

from testbed.accounts import DISCARDED, SENT, Sum
from testbed.af_packet import RECEIVED, AfPacketCase, index_of, packet, received, words
from testbed.flow_model import packets_and_octets, predict
from testbed.frames import (ACK, FIN, SYN, UDP, Transport, arp_request, ethernet, icmp, ipv4, ipv6,
                            tcp, udp)
from testbed.probe import netflow_v5
from testbed.network import PROBED, blaster, make_pair
from testbed.process import WatchedProcess, status_field, wait_until

DEVICE_TAKEN = "kestrelexp_capture_device_packets_total"
DEVICE_DROPPED = "kestrelexp_capture_device_dropped_packets_total"


def fragments(source, identification):
    """A datagram in three pieces, of which only the first has ports."""
    whole = udp(1000, 53, bytes(range(256)) * 12).data
    pieces = [whole[at:at + 1024] for at in range(0, len(whole), 1024)]
    return [ethernet(ipv4(Transport(UDP, piece), source, "10.0.0.2", identification=identification,
                          fragment_offset=128 * number, more_fragments=number + 1 < len(pieces)))
            for number, piece in enumerate(pieces)]


def mixed_traffic(count):
    """Frames of many kinds in a few hundred flows, and ARP frames: the same ones each time."""
    draw = random.Random(42)

    def any_frame():
        kind = draw.randrange(8)
        source, host = f"10.1.0.{draw.randrange(20)}", f"10.2.0.{draw.randrange(5)}"
        load = bytes(draw.randrange(300))
        tags = [(0x8100, draw.randrange(1, 4))] * draw.randrange(3)
        if kind == 0:
            return [ethernet(arp_request())]
        if kind == 1:
            return fragments(source, draw.randrange(65536))
        if kind == 2:
            return [ethernet(ipv4(icmp(draw.choice((0, 8)), 0, load), source, host), tags=tags)]
        if kind == 3:
            return [ethernet(ipv6(udp(draw.randrange(1, 50), 53, load), "2001:db8::1",
                                  "2001:db8::2"), tags=tags)]
        if kind == 4:
            return [ethernet(ipv4(udp(draw.randrange(1, 9), 53, load), source, host), tags=tags)]
        return [ethernet(ipv4(tcp(draw.randrange(1, 9), 80, draw.choice((SYN, ACK, FIN | ACK)),
                                  load), source, host), tags=tags)]

    return [frame for _ in range(count) for frame in any_frame()]


class Lanes(AfPacketCase):
    def test_one_two_and_four_lanes_have_the_flows_of_the_model(self):
        frames = mixed_traffic(4000)
        expected = Counter({dataclasses.replace(flow, input=index_of(PROBED)): count
                            for flow, count in predict(frames).items()})
        receivers = [self.collector() for _ in range(3)]
        probes = [self.probe(*netflow_v5(receiver.port), source=words(options=f",lanes={lanes}"))
                  for lanes, receiver in zip((1, 2, 4), receivers)]
        self.sender.send(*frames)
        for probe, receiver in zip(probes, receivers):
            self.stop_in_order(probe, receiver)
            self.assert_flows(receiver.flows, expected)
            found = Sum(probe.lines)
            found.check(self)
            self.assertEqual(found.total(RECEIVED), len(frames))
            self.assertEqual(found.reasons(DISCARDED),
                             {"not_ip": frames.count(ethernet(arp_request()))})

    def test_an_interrupt_in_the_middle_leaves_nothing_out(self):
        for lanes in (1, 4):
            with self.subTest(lanes=lanes):
                receiver = self.collector()
                probe = self.probe("-q", "10", *netflow_v5(receiver.port),
                                   source=words(options=f",lanes={lanes}"))
                with WatchedProcess(blaster(1_000_000, 20_000)):
                    receiver.wait_for_flows(3000, 20)
                    status = probe.stop(meanwhile=receiver.drain)
                self.assertEqual(status, 0, probe.describe())
                receiver.drain()
                found = Sum(probe.lines)
                found.check(self)
                self.assertGreaterEqual(found.total(RECEIVED), 3000)
                self.assertEqual(packets_and_octets(receiver.flows)[0], found.total(SENT))

    def test_each_flow_is_in_one_lane_as_a_whole(self):
        probe = self.start(options=",lanes=4")
        for _ in range(10):
            self.sender.send(*[ethernet(packet(1000 + number)) for number in range(500)])
        self.assert_flows(self.flows(probe),
                          {received(1000 + number, 10): 1 for number in range(500)})
        probe.wait_for_line("4 lanes of ")

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_tags_do_not_part_a_flow(self):
        probe = self.start(options=",lanes=4")
        for tags in ([], [(0x8100, 1)], [(0x88A8, 2), (0x8100, 3)]):
            self.sender.send(*[ethernet(packet(1000 + number), tags=tags) for number in range(50)])
        self.assert_flows(self.flows(probe),
                          {received(1000 + number, 3): 1 for number in range(50)})

    # Not under the thread sanitizer: the kernel shares out.
    def test_fragments_of_a_datagram_are_in_one_lane(self):
        probe = self.start(options=",lanes=4")
        sources = [f"10.0.1.{number}" for number in range(40)]
        for source in sources:
            self.sender.send(*fragments(source, 1), *fragments(source, 2))
        flows = self.flows(probe)
        self.assertEqual(sorted(flow.source for flow in flows.elements()), sorted(sources))
        self.assertEqual({flow.packets for flow in flows}, {len(fragments("10.0.0.1", 1)) * 2})

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_all_lanes_have_their_share(self):
        # Each loses what its small ring has no room for, and counts it.
        probe = self.start_plain(options=",lanes=4,ring=1")
        probe.signal(19)  # SIGSTOP
        wait_until(lambda: status_field(probe.pid, "State")[0] == "T", "standstill")
        for _ in range(100):
            self.sender.send(*[ethernet(packet(1000 + number)) for number in range(1000)])
        probe.signal(18)  # SIGCONT
        found = self.sums(probe)
        lost = [found.total(DEVICE_DROPPED, 'device="kb"', f'lane="{lane}"', 'stage="ring"')
                for lane in range(4)]
        self.assertGreater(min(lost), 1000)
        self.assertEqual(sum(lost) + found.total(RECEIVED), 100_000)
        taken = [found.total(DEVICE_TAKEN, 'device="kb"', f'lane="{lane}"') for lane in range(4)]
        self.assertGreater(min(taken), 1000)
        self.assertEqual(sum(taken), found.total(RECEIVED))
        self.assertEqual(found.total("kestrelexp_capture_dropped_packets_total", 'stage="ring"'),
                         sum(lost))

    def test_several_devices(self):
        make_pair("kc", "kd")
        probe = self.start(device="kb#kd", options=",lanes=3")
        for _ in range(5):
            for number in range(20):
                self.send(1000 + number, 2)
                self.send(3000 + number, 1, sender="kc")
        self.assert_flows(self.flows(probe),
                          {received(1000 + number, 10): 1 for number in range(20)} |
                          {received(3000 + number, 5, "kd"): 1 for number in range(20)})

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_sixty_four_lanes(self):
        probe = self.start(options=",lanes=64,ring=1")
        self.sender.send(*[ethernet(packet(1000 + number % 500)) for number in range(5000)])
        self.assert_flows(self.flows(probe),
                          {received(1000 + number, 10): 1 for number in range(500)})

    # Not under the address sanitizer: the frame is that of af_packet_test.
    def test_a_process_plugin_for_one_thread_has_all_frames_in_one_lane(self):
        log = self.directory() / "frames"
        probe = self.start("-X", os.environ["KESTREL_FRAME_LOG"], "-P", f"frame_log:{log}",
                           options=",lanes=4")
        self.sender.send(*[ethernet(packet(1000 + number)) for number in range(100)])
        self.assert_flows(self.flows(probe),
                          {received(1000 + number, 1): 1 for number in range(100)})
        self.assertEqual(sum(line.startswith("create") for line in log.read_text().splitlines()),
                         100)

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_an_expression_and_sampling_hold_for_all_lanes(self):
        receiver = self.collector(sampling=0x4000 | 2)
        probe = self.probe(*netflow_v5(receiver.port), source=words(
            options=",lanes=4,sampling=2,filter=tcp or src port 1000"))
        frames = [ethernet(packet(1000)), ethernet(packet(2000))]
        frames += [ethernet(ipv4(tcp(number, 80, ACK), "10.0.0.1", "10.0.0.2"))
                   for number in range(1, 9)]
        self.sender.send(*frames * 1000)
        self.stop_in_order(probe, receiver)
        flows = [record.flow for record in receiver.records]
        self.assertEqual({flow.source_port for flow in flows}, {1000, *range(1, 9)})
        # 4500 are expected, with a deviation of 47.
        self.assertAlmostEqual(sum(flow.packets for flow in flows), 4500, delta=6 * 47)


class Groups(AfPacketCase):
    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_probes_of_one_group_share_the_frames(self):
        receivers = [self.collector() for _ in range(2)]
        probes = [self.probe(*netflow_v5(receiver.port),
                             source=words(options=f",fanout=5,lanes={lanes}"))
                  for lanes, receiver in zip((1, 2), receivers)]
        for _ in range(3):
            self.sender.send(*[ethernet(packet(1000 + number)) for number in range(300)])
        for probe, receiver in zip(probes, receivers):
            self.stop_in_order(probe, receiver)
        first, second = (receiver.flows for receiver in receivers)
        self.assert_flows(first + second,
                          {received(1000 + number, 3): 1 for number in range(300)})
        self.assertGreater(len(first), 50)
        self.assertGreater(len(second), 120)

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_probes_without_a_group_have_all_frames_each(self):
        receivers = [self.collector() for _ in range(2)]
        probes = [self.probe(*netflow_v5(receiver.port), source=words(options=",lanes=2"))
                  for receiver in receivers]
        self.sender.send(*[ethernet(packet(1000 + number)) for number in range(100)])
        for probe, receiver in zip(probes, receivers):
            self.stop_in_order(probe, receiver)
            self.assert_flows(receiver.flows,
                              {received(1000 + number, 1): 1 for number in range(100)})

    # Not under the address sanitizer: it is the kernel that shares out.
    # Not under the thread sanitizer: it is the kernel that shares out.
    def test_frames_that_pass_while_lanes_are_opened_come_once_or_not_at_all(self):
        frames = [ethernet(packet(1000 + number)) for number in range(50)]
        sent = 0
        probe = self.probe("-E", "null", source=words(options=",lanes=8"), ready=False)
        while not any("Kestrel OK" in line for line in probe.lines):
            self.sender.send(*frames)
            sent += len(frames)
        self.stop_in_order(probe)
        found = Sum(probe.lines)
        found.check(self)
        self.assertLessEqual(found.total(RECEIVED), sent)
