"""Runts, truncated frames and noise: the probe lives, and counts what it can still read."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

import random

from testbed.case import E2eCase
from testbed.flow_model import Flow, predict
from testbed.frames import SYN, Network, arp_request, ethernet, ipv4, ipv6, other, tcp, udp
from testbed.probe import netflow_v5

A, B = "10.0.0.1", "10.0.0.2"
GOOD = ethernet(ipv4(udp(1000, 53), A, B))
EVERYTHING = ("-e", "vlan", "-e", "mpls", "-e", "mac", "-C", "0x1FF")


class BadFrames(E2eCase):
    def run_frames(self, frames, *options):
        collector = self.collector()
        probe = self.probe(*options, *netflow_v5(collector.port))
        self.sender.send(GOOD, *frames, GOOD)
        self.stop_in_order(probe, collector)
        return collector.flows

    def test_frames_of_other_types_are_no_flows(self):
        frames = [ethernet(arp_request()), ethernet(Network(0x88CC, bytes(40))),
                  ethernet(Network(0x0026, bytes(38))), ethernet(Network(0x8848, bytes(40))),
                  ethernet(Network(0x0800, b"\x55" + bytes(40))),
                  ethernet(Network(0x86DD, b"\x45" + bytes(40)))]
        # The last one carries version 4 under the type of IPv6: the version nibble decides.
        self.assert_flows(self.run_frames(frames), {
            Flow(A, B, 17, 1000, 53, 0, 0, 2, 56): 1,
            Flow("0.0.0.0", "0.0.0.0", 0, 0, 0, 0, 0, 1, 0): 1})

    def test_a_header_cut_anywhere_reads_on_as_zeros(self):
        whole = ethernet(ipv4(tcp(0x1234, 0x5678, SYN), "10.9.8.7", "10.6.5.4"))
        frames = [whole[:length] for length in range(14, len(whole))]
        self.assert_flows(self.run_frames(frames), predict([GOOD, *frames, GOOD]))

    def test_a_cut_tag_or_label_walk_is_no_flow(self):
        tagged = ethernet(ipv4(udp(1, 2), A, B), tags=[(0x9100, 1), (0x9100, 2)], labels=[1, 2])
        network_starts = 14 + 8 + 8
        frames = [tagged[:length] for length in range(14, network_starts + 1)]
        self.assert_flows(self.run_frames(frames, *EVERYTHING),
                          {Flow(A, B, 17, 1000, 53, 0, 0, 2, 56): 1})

    def test_lengths_that_lie_are_taken_as_written(self):
        frames = [ethernet(ipv4(udp(1, 2), A, B, total_length=65535)),
                  ethernet(ipv4(udp(3, 4), A, B, total_length=0)),
                  ethernet(Network(0x0800, b"\x40" + ipv4(udp(5, 6), A, B).data[1:])),
                  ethernet(ipv4(other(6, bytes(4)), A, B))]
        self.assert_flows(self.run_frames(frames), predict([GOOD, *frames, GOOD]))

    def test_ipv6_extension_headers_cut_or_endless_end(self):
        chain = [(number, b"\x01\x04\0\0\0\0") for number in (0, 60, 43, 44, 51)] * 3
        whole = ethernet(ipv6(udp(1, 2), "::1", "::2", extensions=chain))
        frames = [whole[:length] for length in range(14, len(whole), 3)]
        endless = bytearray(whole)
        for position in range(54, len(endless), 8):
            endless[position:position + 2] = b"\x00\x01"  # hop-by-hop after hop-by-hop
        frames += [bytes(endless), bytes(endless[:60]), bytes(endless[:55])]
        self.assert_flows(self.run_frames(frames, *EVERYTHING),
                          {Flow(A, B, 17, 1000, 53, 0, 0, 2, 56): 1})

    def test_noise_equals_the_model(self):
        chance = random.Random(20240229)
        frames = [noisy_frame(chance) for _ in range(3000)]
        self.assert_flows(self.run_frames(frames, "-C", "0x1F7", "-e", "mpls", "-e", "vlan"),
                          predict([GOOD, *frames, GOOD], 0x1F7))


def noisy_frame(chance):
    """A frame with tags and labels, of which some bytes are noise and the end may be missing."""
    addresses = f"10.0.0.{chance.randrange(4)}", f"10.0.1.{chance.randrange(4)}"
    transport = chance.choice((udp, tcp))(chance.randrange(4), chance.randrange(4))
    frame = bytearray(ethernet(
        ipv4(transport, *addresses),
        tags=[(chance.choice((0x9100, 0x9200)), chance.randrange(4))
              for _ in range(chance.randrange(3))],
        labels=[chance.randrange(4) for _ in range(chance.randrange(3))]))
    for _ in range(chance.randrange(3)):
        position = chance.randrange(12, len(frame))
        frame[position] = chance.randrange(256)
    # A tag that the kernel itself would take off and drop the frame for is not sent cut short.
    if chance.randrange(4) == 0:
        frame = frame[:chance.randrange(14, len(frame))]
    if frame[12:14] in (b"\x81\x00", b"\x88\xa8"):
        frame[12:14] = b"\x91\x00"
    return bytes(frame)
