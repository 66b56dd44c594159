"""The model against flows worked out by hand."""

import unittest
from collections import Counter

from testbed import flow_model
from testbed.flow_model import Flow, predict
from testbed.frames import (ACK, SYN, Network, arp_request, ethernet, icmp, ipv4, ipv6, other,
                            pseudowire, tcp, udp)

A, B = "10.0.0.1", "10.0.0.2"


class Prediction(unittest.TestCase):
    def test_packets_of_one_flow_are_summed_and_flags_joined(self):
        frames = [ethernet(ipv4(tcp(1000, 80, SYN), A, B)),
                  ethernet(ipv4(tcp(1000, 80, ACK, b"12345"), A, B))]
        self.assertEqual(predict(frames), Counter(
            [Flow(A, B, 6, 1000, 80, SYN | ACK, 0, packets=2, octets=85)]))

    def test_the_way_back_is_another_flow(self):
        frames = [ethernet(ipv4(udp(1, 2), A, B)), ethernet(ipv4(udp(2, 1), B, A))]
        self.assertEqual(predict(frames), Counter(
            [Flow(A, B, 17, 1, 2, 0, 0, 1, 28), Flow(B, A, 17, 2, 1, 0, 0, 1, 28)]))

    def test_icmp_type_and_code_stand_in_the_destination_port(self):
        self.assertEqual(predict([ethernet(ipv4(icmp(3, 1), A, B))]), Counter(
            [Flow(A, B, 1, 0, 3 * 256 + 1, 0, 0, 1, 36)]))

    def test_a_fragment_has_no_ports(self):
        frames = [ethernet(ipv4(udp(1, 2, b"x" * 8), A, B, more_fragments=True)),
                  ethernet(ipv4(other(17, b"y" * 8), A, B, fragment_offset=2))]
        self.assertEqual(predict(frames), Counter([Flow(A, B, 17, 0, 0, 0, 0, 2, 64)]))

    def test_ports_of_a_protocol_without_ports_are_zero(self):
        self.assertEqual(predict([ethernet(ipv4(other(47, b"12345678"), A, B))]), Counter(
            [Flow(A, B, 47, 0, 0, 0, 0, 1, 28)]))

    def test_ipv6_arp_and_unknown_types_leave_nothing(self):
        frames = [ethernet(ipv6(udp(1, 2), "::1", "::2")), ethernet(arp_request()),
                  ethernet(Network(0x88CC, bytes(20)))]
        self.assertEqual(predict(frames), Counter())

    def test_tags_labels_and_pseudowires_are_walked(self):
        inside = ipv4(udp(1, 2), A, B)
        frames = [ethernet(inside, tags=[(0x8100, 1), (0x9100, 2), (0x9200, 3)]),
                  ethernet(inside, labels=[1, 2, 3]),
                  ethernet(pseudowire(inside, tags=[(0x8100, 9)]), labels=[4])]
        self.assertEqual(predict(frames), Counter([Flow(A, B, 17, 1, 2, 0, 0, 3, 84)]))

    def test_tags_split_flows_only_under_their_mask_bit(self):
        frames = [ethernet(ipv4(udp(1, 2), A, B), tags=[(0x8100, vid)]) for vid in (1, 2)]
        mask = flow_model.MASK_DEFAULT | flow_model.MASK_VLAN_ID
        self.assertEqual(predict(frames, mask), Counter({Flow(A, B, 17, 1, 2, 0, 0, 1, 28): 2}))
        self.assertEqual(predict(frames), Counter([Flow(A, B, 17, 1, 2, 0, 0, 2, 56)]))

    def test_bytes_behind_the_frame_read_as_zero(self):
        frame = ethernet(ipv4(udp(0x1234, 0x5678), A, B))
        self.assertEqual(predict([frame[:14 + 20 + 3]]), Counter(
            [Flow(A, B, 17, 0x1234, 0x5600, 0, 0, 1, 28)]))

    def test_a_walk_that_leaves_the_frame_is_no_flow(self):
        tagged = ethernet(ipv4(udp(1, 2), A, B), tags=[(0x8100, 1)], labels=[1, 2])
        for length in (13, 14, 15, 17, 18, 21, 25, 26):
            with self.subTest(length=length):
                self.assertEqual(predict([tagged[:length]]), Counter())


if __name__ == "__main__":
    unittest.main()
