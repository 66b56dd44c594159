"""Frames of many kinds become the flows that the model says, sums and fields exact."""

# Not under the address sanitizer: units, models and abi run this code.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from testbed.case import E2eCase
from testbed.flow_model import (MASK_DEFAULT, MASK_ICMP, MASK_IP, MASK_L3_ID, MASK_L4_ID, MASK_MAC,
                                MASK_PORTS, Flow, predict)
from testbed.frames import (ACK, FIN, PSH, SYN, ethernet, icmp, icmpv6, ipv4, ipv6, other, sctp,
                            tcp, udp)
from testbed.probe import netflow_v5

A, B = "192.0.2.1", "198.51.100.200"


class Aggregation(E2eCase):
    def run_frames(self, frames, *options):
        """What a collector holds when the probe has seen the frames and ended in order."""
        collector = self.collector()
        probe = self.probe(*options, *netflow_v5(collector.port))
        self.sender.send(*frames)
        self.stop_in_order(probe, collector)
        return collector.flows

    def test_tcp_packets_are_summed_and_their_flags_joined(self):
        flows = self.run_frames([
            ethernet(ipv4(tcp(40000, 443, SYN), A, B, tos=0xB8)),
            ethernet(ipv4(tcp(40000, 443, ACK), A, B)),
            ethernet(ipv4(tcp(40000, 443, ACK | PSH, b"x" * 100), A, B)),
            ethernet(ipv4(tcp(40000, 443, FIN | ACK), A, B)),
        ])
        self.assert_flows(flows, {Flow(A, B, 6, 40000, 443, 0x1B, 0xB8, 4, 260): 1})

    def test_icmp_type_and_code_tell_flows_apart(self):
        flows = self.run_frames([
            ethernet(ipv4(icmp(8, 0), A, B)),
            ethernet(ipv4(icmp(8, 0), A, B)),
            ethernet(ipv4(icmp(0, 0), B, A)),
            ethernet(ipv4(icmp(3, 13), A, B)),
        ])
        self.assert_flows(flows, {Flow(A, B, 1, 0, 0x0800, 0, 0, 2, 72): 1,
                                  Flow(B, A, 1, 0, 0x0000, 0, 0, 1, 36): 1,
                                  Flow(A, B, 1, 0, 0x030D, 0, 0, 1, 36): 1})

    def test_protocols_without_ports_show_none(self):
        flows = self.run_frames([
            ethernet(ipv4(other(47, bytes.fromhex("0000080045000000")), A, B)),
            ethernet(ipv4(other(89, bytes.fromhex("0201002c0a000001")), A, B)),
            ethernet(ipv4(icmpv6(128, 0), A, B)),
        ])
        self.assert_flows(flows, {Flow(A, B, 47, 0, 0, 0, 0, 1, 28): 1,
                                  Flow(A, B, 89, 0, 0, 0, 0, 1, 28): 1,
                                  Flow(A, B, 58, 0, 0, 0, 0, 1, 36): 1})

    def test_fragments_are_one_flow_without_ports(self):
        flows = self.run_frames([
            ethernet(ipv4(udp(1000, 53, b"x" * 16), A, B, identification=1, more_fragments=True)),
            ethernet(ipv4(other(17, b"y" * 24), A, B, identification=1, fragment_offset=3,
                          more_fragments=True)),
            ethernet(ipv4(other(17, b"z" * 5), A, B, identification=1, fragment_offset=6)),
            ethernet(ipv4(udp(1000, 53, b"whole"), A, B, dont_fragment=True)),
            ethernet(ipv4(tcp(1000, 53, SYN), A, B, more_fragments=True)),
        ])
        self.assert_flows(flows, {Flow(A, B, 17, 0, 0, 0, 0, 3, 44 + 44 + 25): 1,
                                  Flow(A, B, 17, 1000, 53, 0, 0, 1, 33): 1,
                                  Flow(A, B, 6, 0, 0, 0, 0, 1, 40): 1})

    def test_ip_options_are_stepped_over(self):
        flows = self.run_frames([
            ethernet(ipv4(tcp(1000, 80, SYN), A, B, options=b"\x94\x04\x00\x00")),
            ethernet(ipv4(tcp(1000, 80, ACK), A, B, options=b"\x01" * 32)),
        ])
        self.assert_flows(flows, {Flow(A, B, 6, 1000, 80, SYN | ACK, 0, 2, 44 + 72): 1})

    def test_ipv6_flows_do_not_disturb_the_others(self):
        flows = self.run_frames([
            ethernet(ipv6(udp(1000, 53), "2001:db8::1", "2001:db8::2")),
            ethernet(ipv4(udp(1000, 53), A, B)),
            ethernet(ipv6(icmpv6(128, 0), "2001:db8::1", "2001:db8::2")),
            ethernet(ipv6(tcp(1000, 80, SYN), "2001:db8::1", "2001:db8::2",
                          extensions=[(0, b"\x01\x04\0\0\0\0"), (60, b"\x01\x04\0\0\0\0")])),
            ethernet(ipv4(udp(1000, 53), A, B)),
        ])
        self.assert_flows(flows, {Flow(A, B, 17, 1000, 53, 0, 0, 2, 56): 1})

    def test_a_mix_of_protocols_equals_the_model(self):
        frames = mixed_frames()
        expected = predict(frames)
        self.assertEqual(len(expected), 140)
        self.assert_flows(self.run_frames(frames), expected)

    def test_the_flow_mask_chooses_what_tells_flows_apart(self):
        frames = mixed_frames()
        for mask in (MASK_IP | MASK_L3_ID | MASK_L4_ID, MASK_DEFAULT & ~MASK_ICMP,
                     MASK_PORTS | MASK_L3_ID, MASK_IP | MASK_MAC | MASK_L3_ID):
            with self.subTest(mask=hex(mask)):
                self.assert_flows(self.run_frames(frames, "-C", hex(mask)), predict(frames, mask))


def mixed_frames():
    """35 hosts, each 3 rounds of one TCP, UDP, SCTP and ICMP packet, in turns."""
    frames = []
    for turn in range(3):
        for host in range(35):
            source = f"10.1.{host % 3}.{host}"
            transports = (
                tcp(1024 + host, 80, (SYN, ACK, FIN | ACK)[turn], b"t" * (turn * host)),
                udp(1024 + host, 53, b"u" * host),
                sctp(1024 + host, 2905, b"s" * (turn + 1)),
                icmp(8, 0, b"i" * (host + turn)),
            )
            frames += [ethernet(ipv4(transport, source, B, tos=host)) for transport in transports]
            frames.append(ethernet(ipv6(udp(1024 + host, 53), f"2001:db8::{host}", "2001:db8::")))
    return frames
