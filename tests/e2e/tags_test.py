"""VLAN tags, MPLS label stacks and Ethernet inside MPLS, with and without their blocks."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from testbed.case import E2eCase
from testbed.flow_model import Flow, predict
from testbed.frames import ethernet, ipv4, ipv6, pseudowire, udp
from testbed.probe import netflow_v5

A, B = "10.0.0.1", "10.0.0.2"
BLOCKS = ("-e", "vlan", "-e", "mpls", "-e", "mac")


def inside(port=1000):
    return ipv4(udp(port, 53), A, B)


def one_flow(packets, port=1000):
    return Flow(A, B, 17, port, 53, 0, 0, packets, 28 * packets)


TAGGED = [
    ethernet(inside()),
    ethernet(inside(), tags=[(0x8100, 1)]),
    ethernet(inside(), tags=[(0x9100, 2)]),
    ethernet(inside(), tags=[(0x9200, 3)]),
    ethernet(inside(), tags=[(0x8100, 4), (0x8100, 5)]),
    ethernet(inside(), tags=[(0x9100, 1), (0x8100, 2), (0x8100, 3), (0x8100, 4), (0x8100, 5)]),
    ethernet(inside(), labels=[16]),
    ethernet(inside(), labels=[16, 17, 18]),
    ethernet(inside(), labels=range(16, 28)),
    ethernet(inside(), tags=[(0x8100, 1)], labels=[16]),
    ethernet(pseudowire(inside(), tags=[(0x8100, 9)]), labels=[16, 17]),
    ethernet(ipv6(udp(1000, 53), "::1", "::2"), tags=[(0x8100, 1)], labels=[16]),
]


class Tags(E2eCase):
    def run_frames(self, frames, *options):
        collector = self.collector()
        probe = self.probe(*options, *netflow_v5(collector.port))
        self.sender.send(*frames)
        self.stop_in_order(probe, collector)
        return collector.flows

    def test_a_flow_is_one_whatever_its_tags(self):
        self.assert_flows(self.run_frames(TAGGED), {one_flow(11): 1})

    def test_the_blocks_change_no_flow(self):
        self.assert_flows(self.run_frames(TAGGED, *BLOCKS), {one_flow(11): 1})

    def test_vlan_ids_in_the_key_split_flows(self):
        frames = [ethernet(inside(), tags=[(0x8100, vid)]) for vid in (1, 2, 1, 1, 4095)]
        for blocks in ((), BLOCKS):
            with self.subTest(blocks=blocks):
                self.assert_flows(self.run_frames(frames, *blocks, "-C", "0x00F7"),
                                  {one_flow(3): 1, one_flow(1): 2})

    def test_priority_bits_are_no_part_of_a_vlan_id(self):
        frames = [ethernet(inside(), tags=[(0x9100, 7 | priority << 13)]) for priority in (0, 5)]
        self.assert_flows(self.run_frames(frames, "-C", "0xF7"), {one_flow(2): 1})

    def test_the_fifth_tag_still_splits_flows(self):
        stack = [(0x9100, vid) for vid in (1, 2, 3, 4)]
        frames = [ethernet(inside(), tags=stack + [(0x9100, vid)]) for vid in (5, 6)]
        self.assert_flows(self.run_frames(frames, "-e", "vlan", "-C", "247"), {one_flow(1): 2})

    def test_labels_in_the_key_split_flows(self):
        frames = [ethernet(inside(), labels=labels)
                  for labels in ([16], [17], [16, 17], [16], range(16, 28), [*range(16, 27), 99])]
        for blocks in ((), BLOCKS):
            with self.subTest(blocks=blocks):
                self.assert_flows(self.run_frames(frames, *blocks, "-C", "0x0177"),
                                  {one_flow(2): 1, one_flow(1): 4})

    def test_every_mask_bit_at_once_equals_the_model(self):
        frames = TAGGED + TAGGED[:4]
        self.assert_flows(self.run_frames(frames, *BLOCKS, "-C", "0x1FF"), predict(frames, 0x1FF))
