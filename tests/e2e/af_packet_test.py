"""The input af-packet: every kind of frame comes out as it was on the wire, to the packet."""

# Not under the thread sanitizer: the threads are those of af_packet_lanes_test, which runs there.

import dataclasses
import os
import socket
import subprocess

from testbed.af_packet import (A, B, RECEIVED, AfPacketCase, SegmentSender, index_of,
                               packet, received, sent, words)
from testbed.accounts import DISCARDED
from testbed.flow_model import Flow, predict
from testbed.frames import (ACK, SYN, arp_request, ethernet, icmp, ipv4, ipv6, pseudowire, tcp,
                            udp)
from testbed.network import PROBED, SENDER, FrameSender, ip, make_pair
from testbed.probe import netflow_v5
from testbed.process import status_field, wait_until
from testbed.tunnel import PPP_DEVICE, Tunnel

JOINED = "kestrelexp_capture_joined_segments_total"
BLOCKS = ("-e", "vlan", "-e", "mpls", "-e", "mac")
VLAN_KEY = ("-C", "0xF7")

TAGS = [[], [(0x8100, 1)], [(0x8100, 0)], [(0x8100, 4095)], [(0x88A8, 2)], [(0x9100, 3)],
        [(0x88A8, 10), (0x8100, 20)], [(0x8100, 10), (0x88A8, 20)], [(0x88A8, 10), (0x88A8, 21)],
        [(0x88A8, 1), (0x8100, 2), (0x8100, 3), (0x8100, 4)], [(0x8100, 0x6000 | 7)]]


def plain(tags):
    """With one type for all of them but the old ones, as the parser is shown them."""
    return [(0x8100 if tpid == 0x88A8 else tpid, vid) for tpid, vid in tags]


def on(device, flows, count=1):
    """Flows of the model with the interface that they came in on."""
    return {dataclasses.replace(flow, input=index_of(device)): number * count
            for flow, number in flows.items()}


class Frames(AfPacketCase):
    def logged(self, frames, *arguments, options=""):
        """The frames as a process plugin sees them."""
        log = self.directory() / "frames"
        probe = self.start_plain("-X", os.environ["KESTREL_FRAME_LOG"], "-P", f"frame_log:{log}",
                                 *arguments, options=options)
        self.sender.send(*frames)
        self.stop_in_order(probe)
        return [bytes.fromhex(line.split()[3]) for line in log.read_text().splitlines()
                if not line.startswith("release")]

    def test_every_byte_of_a_frame_is_as_it_was_on_the_wire(self):
        frames = [ethernet(packet(1000 + number, bytes(number * 7 % 1400)), tags=tags)
                  for number, tags in enumerate(TAGS * 20)]
        expected = [ethernet(packet(1000 + number, bytes(number * 7 % 1400)), tags=plain(tags))
                    for number, tags in enumerate(TAGS * 20)]
        self.assertEqual(self.logged(frames), expected)

    def test_a_long_frame_is_whole_for_process_plugins(self):
        for end in (SENDER, PROBED):
            ip(f"link set {end} mtu 9000")
        frames = [ethernet(packet(1000, bytes(range(256)) * 35))]
        self.assertEqual(len(frames[0]), 9002)
        self.assertEqual(self.logged(frames), frames)

    def test_no_more_than_the_bytes_asked_for_are_kept(self):
        frame = ethernet(packet(1000, bytes(1000)))
        tagged = ethernet(packet(1000, bytes(1000)), tags=[(0x8100, 1)])
        self.assertEqual(self.logged([frame, tagged], options=",snap=64"),
                         [frame[:64], tagged[:68]])

    def test_tags_split_flows(self):
        frames = [ethernet(packet(1000), tags=tags) for tags in TAGS]
        shown = [ethernet(packet(1000), tags=plain(tags)) for tags in TAGS]
        probe = self.start(*VLAN_KEY, "-e", "vlan")
        self.sender.send(*frames, *frames)
        self.assert_flows(self.flows(probe), on(PROBED, predict(shown + shown, 0xF7)))

    def test_labels_and_pseudowires(self):
        frames = [ethernet(packet(1000), labels=labels)
                  for labels in ([16], [16, 17], [16], range(16, 26), range(16, 28))]
        frames += [ethernet(packet(1000), tags=[(0x8100, 5)], labels=[16]),
                   ethernet(pseudowire(packet(1000), tags=[(0x8100, 9)]), labels=[16, 17])]
        probe = self.start("-C", "0x1F7", *BLOCKS)
        self.sender.send(*frames)
        self.assert_flows(self.flows(probe), on(PROBED, predict(frames, 0x1F7)))

    def test_headers_fit_after_four_tags_and_ten_labels(self):
        tags = [(0x88A8, 1), (0x8100, 2), (0x8100, 3), (0x8100, 4)]
        frames = [ethernet(ipv4(tcp(1000, 80, SYN | ACK, bytes(900)), A, B), tags=tags,
                           labels=range(16, 26)),
                  ethernet(ipv6(tcp(1000, 80, SYN | ACK, bytes(900)), "::1", "::2"), tags=tags,
                           labels=range(16, 26))]
        lines = self.lines_of(frames)
        self.assertEqual([line[3:11] for line in lines],
                         [["1", "940", "4", "0", "6", "1000", "80", "18"],
                          ["1", "960", "6", "0", "6", "1000", "80", "18"]])

    def test_ipv6(self):
        lines = self.lines_of([ethernet(ipv6(udp(1000, 53, b"abcd"), "fd00::1", "fd00::2"),
                                        tags=tags) for tags in ([], [], [(0x8100, 7)])])
        self.assertEqual([line[3:10] for line in lines],
                         [["3", "156", "6", "0", "17", "1000", "53"]])
        self.assertEqual(lines[0][12], "010000000000000000000000000000fd"
                                       "020000000000000000000000000000fd")

    def lines_of(self, frames, *arguments, **options):
        """The flows as the plugin flow_lines writes them, as words, IPv4 first."""
        out = self.directory() / "flows"
        probe = self.probe("-X", os.environ["KESTREL_FLOW_LINES"], *arguments,
                           "-E", f"flow_lines:file={out}", source=words(**options))
        self.sender.send(*frames)
        self.stop_in_order(probe)
        return sorted((line.split() for line in out.read_text().splitlines()),
                      key=lambda line: line[5])

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_times_are_those_of_the_kernel_in_nanoseconds(self):
        lines = self.lines_of([ethernet(packet(1000 + number)) for number in range(50)])
        starts = [int(line[1]) for line in lines]
        self.assertEqual(len(starts), 50)
        self.assertTrue(any(start % 1000 for start in starts))
        self.assertLess(max(starts) - min(starts), 5_000_000_000)

    def test_short_frames_and_frames_of_no_flow(self):
        probe = self.start()
        self.sender.send(*[ethernet(packet(1000))] * 5, *[ethernet(arp_request())] * 3,
                         ethernet(packet(1000))[:14])
        found = self.sums(probe)
        self.assertEqual(found.total(RECEIVED), 9)
        self.assertEqual(found.reasons(DISCARDED), {"not_ip": 3, "truncated": 1})
        self.assert_flows(self.receiver.flows, {received(1000, 5): 1})

    def test_jumbo_frames(self):
        for end in (SENDER, PROBED):
            ip(f"link set {end} mtu 9000")
        probe = self.start()
        self.sender.send(*[ethernet(packet(1000, bytes(8972)))] * 7)
        found = self.sums(probe)
        self.assert_flows(self.receiver.flows, {
            Flow(A, B, 17, 1000, 53, 0, 0, 7, 63_000, index_of(PROBED), 0): 1})
        self.assertEqual(found.total("kestrelexp_capture_bytes_total"), 7 * 9014)
        self.assertEqual(found.total(JOINED), 0)

    def test_joined_segments_are_counted_and_named_once(self):
        probe = self.start()
        joiner = SegmentSender()
        self.addCleanup(joiner.close)
        for number in (1, 2):
            joiner.send(ethernet(ipv4(tcp(number, 80, ACK, bytes(5000)), A, B)), 1000)
        self.sender.send(ethernet(packet(1000, bytes(1472))),  # as long as the MTU allows
                         ethernet(packet(1000, bytes(1472)), tags=[(0x8100, 5)]))
        found = self.sums(probe)
        self.assertEqual(found.total(JOINED, 'device="kb"', 'input="af-packet"'), 2)
        said = [line for line in probe.lines if "ethtool" in line]
        self.assertEqual(said, [
            "VERBOSE: 0:Device kb: frames longer than its MTU of 1500 bytes. The host joins "
            "segments before they are captured, so that packets are counted too few. To have them "
            "as they are on the wire: ethtool -K kb gro off lro off gso off tso off"])
        index = index_of(PROBED)
        self.assert_flows(self.receiver.flows, {
            Flow(A, B, 6, 1, 80, ACK, 0, 1, 5040, index, 0): 1,
            Flow(A, B, 6, 2, 80, ACK, 0, 1, 5040, index, 0): 1,
            Flow(A, B, 17, 1000, 53, 0, 0, 2, 3000, index, 0): 1})

    # Not under the address sanitizer: nothing of it touches a frame.
    def test_frames_after_the_mtu_was_raised_are_not_joined(self):
        probe = self.start()
        for mtu in range(2000, 9001, 500):
            for end in (SENDER, PROBED):
                ip(f"link set {end} mtu {mtu}")
            self.sender.send(ethernet(packet(1000, bytes(mtu - 28))))
        found = self.sums(probe)
        self.assert_flows(self.receiver.flows, {
            Flow(A, B, 17, 1000, 53, 0, 0, 15, 82_500, index_of(PROBED), 0): 1})
        self.assertEqual(found.total(JOINED), 0)
        self.assertEqual([line for line in probe.lines if "ethtool" in line], [])


class Direction(AfPacketCase):
    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_what_is_sent_and_what_is_received_have_the_device_on_its_side(self):
        probe = self.start()
        self.sender.send(*[ethernet(packet(1000))] * 3)
        back = FrameSender(PROBED)
        self.addCleanup(back.close)
        back.send(*[ethernet(packet(2000))] * 4, *[ethernet(packet(2000), tags=[(0x8100, 5)])] * 2)
        self.assert_flows(self.flows(probe), {received(1000, 3): 1, sent(2000, 6): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_interface_numbers_of_the_export_override_them(self):
        probe = self.probe("-N", "7", *netflow_v5(self.receiver.port), source=words())
        self.sender.send(*[ethernet(packet(1000))] * 3)
        self.assert_flows(self.flows(probe), {received(1000, 3, index=7): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_several_devices(self):
        make_pair("kc", "kd")
        probe = self.start(device="kb#kd")
        self.send(1000, 3)
        self.send(2000, 4, sender="kc")
        self.send(3000, 5)
        self.assert_flows(self.flows(probe), {
            received(1000, 3): 1, received(2000, 4, "kd"): 1, received(3000, 5): 1})

    def test_loopback_has_every_frame_once(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            receiver.bind(("127.0.0.1", 0))
            sender.bind(("127.0.0.1", 0))
            ports = sender.getsockname()[1], receiver.getsockname()[1]
            probe = self.start(device="lo", options=f",filter=udp port {ports[1]}")
            for _ in range(3):
                sender.sendto(b"abcd", ("127.0.0.1", ports[1]))
            self.assert_flows(self.flows(probe), {
                Flow("127.0.0.1", "127.0.0.1", 17, *ports, 0, 0, 3, 96, 1, 0): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_the_interface_is_asked_for_the_frames_of_others_unless_that_is_not_wanted(self):
        for options, expected in (("", "promiscuity 1 "), (",promiscuous=1", "promiscuity 1 "),
                                  (",promiscuous=0", "promiscuity 0 ")):
            with self.subTest(options=options):
                probe = self.start_plain(options=options)
                shown = subprocess.run(["ip", "-details", "link", "show", PROBED], check=True,
                                       capture_output=True, text=True).stdout
                self.assertIn(expected, shown)
                self.stop_in_order(probe)


class Expressions(AfPacketCase):
    def flows_of(self, expression, frames, options=""):
        probe = self.start(options=f"{options},filter={expression}")
        self.sender.send(*frames)
        return self.flows(probe)

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_an_expression_chooses_frames(self):
        frames = [ethernet(packet(port)) for port in (1000, 2000, 3000, 2000)]
        self.assert_flows(self.flows_of("udp src port 2000 or src port 3000", frames),
                          {received(2000, 2): 1, received(3000, 1): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_all_that_follows_belongs_to_the_expression(self):
        frames = [ethernet(packet(port)) for port in (1000, 2000)]
        frames += [ethernet(ipv6(udp(1000, 53), "::1", "::2"))]
        self.assert_flows(
            self.flows_of("ip6 host ::5 or (udp[0:2]=2000 and ip[8]=64)", frames),
            {received(2000, 1): 1})

    def test_a_tag_is_seen_as_a_live_capture_sees_it(self):
        # The kernel has taken it out: "ip" is true of frames with a tag as well.
        frames = [ethernet(packet(1000), tags=tags)
                  for tags in ([], [(0x8100, 5)], [(0x8100, 5)], [(0x8100, 6)], [(0x88A8, 5)])]
        self.assert_flows(self.flows_of("ip", frames), {received(1000, 5): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_tags_can_be_asked_for(self):
        frames = [ethernet(packet(1000), tags=tags)
                  for tags in ([], [(0x8100, 5)], [(0x8100, 5)], [(0x8100, 6)])]
        self.assert_flows(self.flows_of("vlan 5 and udp port 53", frames), {received(1000, 2): 1})

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_what_comes_with_sampling_is_one_frame_in_so_many(self):
        receiver = self.collector(sampling=0x4000 | 4)
        probe = self.probe(*netflow_v5(receiver.port),
                           source=words(options=",sampling=4,filter=src port 1000"))
        self.sender.send(*[ethernet(packet(1000)), ethernet(packet(2000))] * 20_000)
        self.stop_in_order(probe, receiver)
        flows = [record.flow for record in receiver.records]
        self.assertEqual({flow.source_port for flow in flows}, {1000})
        # 5000 are expected; 61 is the deviation of as many throws of a die with four sides.
        self.assertAlmostEqual(sum(flow.packets for flow in flows), 5000, delta=6 * 61)


class Tunnels(AfPacketCase):
    PACKETS = [packet(1000), ipv4(tcp(2000, 80, SYN), A, B), ipv4(icmp(8, 0), A, B), packet(1000)]

    def flows_of(self, options="", **tunnel_options):
        tunnel = Tunnel("kt", **tunnel_options)
        self.addCleanup(tunnel.close)
        probe = self.start("-C", "0x1FF", *BLOCKS, device="kt", options=options)
        tunnel.send(*self.PACKETS)
        return self.flows(probe)

    def expected(self):
        index = index_of("kt")
        return {Flow(A, B, 17, 1000, 53, 0, 0, 2, 64, index, 0): 1,
                Flow(A, B, 6, 2000, 80, SYN, 0, 1, 40, index, 0): 1,
                Flow(A, B, 1, 0, 0x0800, 0, 0, 1, 36, index, 0): 1}

    def test_a_tunnel_has_bare_packets(self):
        self.assert_flows(self.flows_of(), self.expected())

    def test_a_ppp_device_has_bare_packets(self):
        self.assert_flows(self.flows_of(hardware=PPP_DEVICE), self.expected())

    # Not under the address sanitizer: it is the kernel that chooses and tells.
    def test_an_expression_knows_them(self):
        self.assert_flows(self.flows_of(",filter=udp or icmp or tcp[13]=2"), self.expected())


class Losses(AfPacketCase):
    def test_a_ring_that_is_too_small_loses_packets_and_counts_every_one(self):
        probe = self.start(options=",ring=1")
        probe.signal(19)  # SIGSTOP
        wait_until(lambda: status_field(probe.pid, "State")[0] == "T", "standstill")
        self.sender.send(*[ethernet(packet(1000))] * 50_000)
        probe.signal(18)  # SIGCONT
        found = self.sums(probe)
        lost = found.total("kestrelexp_capture_dropped_packets_total", 'stage="ring"')
        self.assertGreater(lost, 10_000)
        self.assertGreater(found.total(RECEIVED), 1000)
        self.assertEqual(lost + found.total(RECEIVED), 50_000)
        self.assertEqual(found.total("kestrelexp_capture_device_dropped_packets_total",
                                     'device="kb"', 'lane="0"', 'stage="ring"'), lost)
        self.assertEqual(found.total("kestrelexp_capture_unread_packets"), 0)
