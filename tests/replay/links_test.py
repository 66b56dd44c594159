"""Capture files of frames that are not Ethernet, their headers written by hand."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

from testbed.capture import NS, pcap, pcapng
from testbed.frames import arp_request, ethernet, ipv4, ipv6, udp
from testbed.replay import ReplayCase

T = 1_600_000_000

# As files number them (www.tcpdump.org/linktypes.html); some differ from libpcap's own numbers.
NULL, PPP, PPP_HDLC, RAW, LOOP, SLL, IPV4, IPV6, SLL2 = 0, 9, 50, 101, 108, 113, 228, 229, 276
RADIOTAP, NO_LINK_TYPE = 127, 0xFFF0

FOUR = ipv4(udp(1000, 53, b"abcd"), "10.0.0.1", "10.0.0.2").data
SIX = ipv6(udp(2000, 53, b"abcd"), "fd00::1", "fd00::2").data

# IP version, protocol, ports, bytes, addresses as the record has them.
FLOW_FOUR = "4 17 1000 53 32 0100000a0200000a"
FLOW_SIX = ("6 17 2000 53 52 010000000000000000000000000000fd"
            "020000000000000000000000000000fd")

SLL_HEAD = bytes.fromhex("0000 0001 0006 0211223344550000")
SLL2_TAIL = bytes.fromhex("0000 00000002 0001 00 06 0211223344550000")

# Link type: headers in front of IPv4, headers in front of IPv6, frames that are no IP.
LINKS = {
    NULL: (["02000000", "00000002"],
           ["0a000000", "18000000", "1c000000", "1e000000", "0000001e"],
           [bytes.fromhex("07000000") + FOUR, b"", b"\x02\0\0"]),
    LOOP: (["00000002"], ["0000000a", "00000018", "0000001c", "0000001e"],
           [bytes.fromhex("00000010") + FOUR, b"", b"\0\0\0"]),
    PPP: (["0021", "21", "ff030021", "ff0321"], ["0057", "57", "ff030057"],
          [bytes.fromhex("c021 01010004"), bytes.fromhex("ff03c021 01010004"), b"", b"\xff\x03",
           b"\xff\x03\0"]),
    PPP_HDLC: (["ff030021"], ["ff030057"], [bytes.fromhex("ff03c021 01010004"), b"", b"\0"]),
    RAW: ([""], [""], [b"\x35" + FOUR[1:], b"\0", b""]),
    IPV4: ([""], [], [b"\x55" + FOUR[1:], b""]),
    IPV6: ([], [""], [b""]),
    SLL: ([SLL_HEAD.hex() + "0800", SLL_HEAD.hex() + "8100000a0800"],
          [SLL_HEAD.hex() + "86dd"],
          [SLL_HEAD + bytes.fromhex("0806") + arp_request().data,
           SLL_HEAD + bytes.fromhex("0004") + FOUR, SLL_HEAD + b"\x08", b""]),
    SLL2: (["0800" + SLL2_TAIL.hex(), "8100" + SLL2_TAIL.hex() + "000a0800",
            "8847" + SLL2_TAIL.hex() + "00010140"],
           ["86dd" + SLL2_TAIL.hex()],
           [bytes.fromhex("0806") + SLL2_TAIL + arp_request().data,
            bytes.fromhex("0800") + SLL2_TAIL[:-1], b""]),
}


def timed(frames):
    """The frames as a file has them, a millisecond apart."""
    return [(T * NS + number * 1_000_000, frame) for number, frame in enumerate(frames)]


class Links(ReplayCase):
    def flows(self, content, *arguments, **options):
        """What is told of each flow, with its packets, in order; and the totals."""
        out = self.directory / "flows.txt"
        probe = self.replay(self.file(content), *arguments, "-E", f"flow_lines:file={out}",
                            **options)
        rows = []
        for line in out.read_text().splitlines():
            (_, _, _, packets, octets, version, _, protocol, source, destination, _, _,
             addresses) = line.split()
            rows.append((f"{version} {protocol} {source} {destination} "
                         f"{int(octets) // int(packets)} {addresses}", int(packets)))
        return sorted(rows), self.totals(probe)

    def test_every_link_type_gives_the_flows_of_its_packets(self):
        for link, (heads4, heads6, others) in LINKS.items():
            frames = [bytes.fromhex(head) + FOUR for head in heads4]
            frames += [bytes.fromhex(head) + SIX for head in heads6]
            expected = [(flow, len(heads)) for flow, heads in ((FLOW_FOUR, heads4),
                                                               (FLOW_SIX, heads6)) if heads]
            packets = len(frames)
            frames += others
            for write in (pcap, pcapng):
                with self.subTest(link=link, write=write.__name__):
                    flows, totals = self.flows(write(timed(frames), link=link))
                    self.assertEqual(flows, expected)
                    self.assertEqual(totals, (len(frames), packets, len(expected), len(others)))

    def test_a_header_cut_anywhere_is_no_flow(self):
        for link, head in ((SLL, SLL_HEAD + b"\x08\0"), (SLL2, b"\x08\0" + SLL2_TAIL),
                           (NULL, b"\x02\0\0\0"), (PPP, b"\xff\x03\0\x21")):
            with self.subTest(link=link):
                frames = [head[:size] for size in range(len(head) + 1)]
                flows, totals = self.flows(pcap(timed(frames), link=link))
                self.assertEqual((flows, totals), ([], (len(frames), 0, 0, len(frames))))

    def test_the_source_address_of_cooked_frames_is_kept(self):
        # With the addresses in the key; one of four bytes is none.
        def cooked(length, address):
            return (bytes.fromhex("0000 0001") + bytes((0, length)) +
                    bytes.fromhex(address + "0000 0800") + FOUR)
        frames = [cooked(6, "021122334455"), cooked(6, "021122334466"), cooked(6, "021122334455"),
                  cooked(4, "021122334455"), cooked(4, "021122334466"), cooked(0, "021122334455"),
                  cooked(6, "000000000000")]
        flows, _ = self.flows(pcap(timed(frames), link=SLL), "-C", "0x7F")
        self.assertEqual(flows, [(FLOW_FOUR, 1), (FLOW_FOUR, 2), (FLOW_FOUR, 4)])

    def test_tags_of_cooked_frames_split_flows(self):
        frames = [SLL_HEAD + bytes.fromhex(f"8100 {vid} 0800") + FOUR
                  for vid in ("0001", "0002", "0001")]
        flows, _ = self.flows(pcap(timed(frames), link=SLL), "-C", "0xF7")
        self.assertEqual(flows, [(FLOW_FOUR, 1), (FLOW_FOUR, 2)])

    def test_tags_of_providers_are_tags(self):
        four = ipv4(udp(1000, 53, b"abcd"), "10.0.0.1", "10.0.0.2")
        tags = ([(0x88A8, 1)], [(0x8100, 1)], [(0x88A8, 1), (0x8100, 2)],
                [(0x88A8, 1), (0x88A8, 2)], [(0x8100, 1), (0x88A8, 2)], [(0x88A8, 2)])
        content = pcap(timed([ethernet(four, tags=stack) for stack in tags]))
        self.assertEqual(self.flows(content, "-C", "0xF7")[0],
                         [(FLOW_FOUR, 1), (FLOW_FOUR, 2), (FLOW_FOUR, 3)])
        self.assertEqual(self.flows(content)[0], [(FLOW_FOUR, 6)])

    def test_tags_of_providers_in_cooked_frames_are_tags(self):
        frames = [SLL_HEAD + bytes.fromhex(f"{kind} {vid} 0800") + FOUR
                  for kind, vid in (("88a8", "0001"), ("8100", "0001"), ("88a8", "0002"))]
        self.assertEqual(self.flows(pcap(timed(frames), link=SLL), "-C", "0xF7")[0],
                         [(FLOW_FOUR, 1), (FLOW_FOUR, 2)])

    def test_a_frame_cut_within_the_tags_of_a_provider_is_no_flow(self):
        tagged = ethernet(ipv4(udp(1000, 53), "10.0.0.1", "10.0.0.2"), tags=[(0x88A8, 1)] * 2)
        frames = [tagged[:size] for size in range(23)]
        self.assertEqual(self.flows(pcap(timed(frames))), ([], (23, 0, 0, 23)))

    def test_frames_of_any_length_are_read(self):
        # The longest that IP has, and a file that does not say how much of each frame it holds.
        long = ipv4(udp(1000, 53, bytes(65507)), "10.0.0.1", "10.0.0.2").data
        flows, _ = self.flows(pcap(timed([long]), link=RAW, snap=0))
        self.assertEqual(flows, [("4 17 1000 53 65535 0100000a0200000a", 1)])

    def test_frames_longer_than_the_file_says_are_cut(self):
        tagged = SLL_HEAD + bytes.fromhex("8100 0001 0800") + FOUR
        flows, _ = self.flows(pcap(timed([tagged]), link=SLL, snap=len(tagged) - 12))
        self.assertEqual(flows, [("4 17 0 0 32 0100000a0200000a", 1)])

    def test_a_filter_and_sampling_choose_frames(self):
        frames = [SLL_HEAD + bytes.fromhex(protocol) + packet
                  for protocol, packet in (("0800", FOUR), ("86dd", SIX)) * 3]
        content = pcap(timed(frames), link=SLL)
        chosen = self.file("ip6", "filter.txt")
        self.assertEqual(self.flows(content, options=f",filter-file={chosen}"),
                         ([(FLOW_SIX, 3)], (3, 3, 1, 0)))
        self.assertEqual(self.flows(content, options=",sampling=3")[0],
                         [(FLOW_FOUR, 1), (FLOW_SIX, 1)])

    def test_other_link_types_are_refused_by_name(self):
        for link, name in ((RADIOTAP, "IEEE802_11_RADIO"),
                           (NO_LINK_TYPE, "of an unknown link type")):
            for content in (pcap([], link=link), pcapng([], link=link)):
                path = self.file(content)
                self.assertEqual(self.refused(path)[-3:], [
                    f"Capture file {path}: its frames are not Ethernet but {name}, which cannot "
                    "be translated. Capture on an Ethernet, tunnel or PPP device, or on \"any\"",
                    "Unable to init plugin", "Driver initialization failed"])

    def test_ethernet_is_read_as_ever(self):
        frames = [ethernet(ipv4(udp(1000, 53, b"abcd"), "10.0.0.1", "10.0.0.2"))] * 2
        self.assertEqual(self.flows(pcap(timed(frames)))[0], [(FLOW_FOUR, 2)])
