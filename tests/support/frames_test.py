"""Frames against bytes written by hand, and against a dissector that knows every checksum."""

import subprocess
import tempfile
import unittest

from testbed import frames
from testbed.capture import pcap


class FrameBytes(unittest.TestCase):
    def test_udp_frame_has_the_bytes_of_the_standards(self):
        frame = frames.ethernet(
            frames.ipv4(frames.udp(1000, 53, b"hi"), "10.0.0.1", "10.0.0.2", tos=0xB8))
        self.assertEqual(frame.hex(" "), (
            "02 00 00 00 00 02 02 00 00 00 00 01 08 00 "
            "45 b8 00 1e 00 00 00 00 40 11 66 15 0a 00 00 01 0a 00 00 02 "
            "03 e8 00 35 00 0a 7f 51 68 69"))

    def test_tags_and_labels_stand_outermost_first(self):
        inner = frames.Network(0x0800, b"\x45")
        frame = frames.ethernet(inner, tags=[(0x9100, 5), (0x8100, 6)], labels=[16, 17])
        self.assertEqual(frame[12:].hex(" "),
                         "91 00 00 05 81 00 00 06 88 47 00 01 00 40 00 01 11 40 45")

    def test_fragment_and_option_fields_are_in_place(self):
        packet = frames.ipv4(frames.other(6, b"x" * 8), "10.0.0.1", "10.0.0.2",
                             options=b"\x94\x04\x00\x00", fragment_offset=3, more_fragments=True)
        self.assertEqual(packet.data[:8].hex(" "), "46 00 00 20 00 00 20 03")

    def test_ipv6_extension_names_what_follows(self):
        packet = frames.ipv6(frames.udp(1, 2), "2001:db8::1", "2001:db8::2",
                             extensions=[(0, b"\x01\x04\x00\x00\x00\x00")])
        self.assertEqual(packet.data[:8].hex(" "), "60 00 00 00 00 10 00 40")
        self.assertEqual(packet.data[40:48].hex(" "), "11 00 01 04 00 00 00 00")

    def test_crc32c_of_the_check_string(self):
        self.assertEqual(frames.crc32c(b"123456789"), 0xE3069283)


class FramesUnderADissector(unittest.TestCase):
    def test_no_frame_gives_a_complaint(self):
        batch = [frames.ethernet(network, **options) for network, options in (
            (frames.ipv4(frames.udp(1000, 2000, b"odd"), "10.0.0.1", "10.0.0.2"), {}),
            (frames.ipv4(frames.tcp(1000, 2000, frames.ACK, b"abc"), "10.0.0.1", "10.0.0.2",
                         options=b"\x01\x01\x01"), {}),
            (frames.ipv4(frames.sctp(1000, 2000), "10.0.0.1", "10.0.0.2"), {}),
            (frames.ipv4(frames.icmp(8, 0), "10.0.0.1", "10.0.0.2"), {}),
            (frames.ipv6(frames.icmpv6(128, 0), "2001:db8::1", "2001:db8::2"), {}),
            (frames.ipv6(frames.udp(1000, 2000, b"odd"), "2001:db8::1", "2001:db8::2",
                         extensions=[(60, b"\x01\x04\x00\x00\x00\x00")]), {}),
            (frames.ipv4(frames.udp(1000, 2000), "10.0.0.1", "10.0.0.2"),
             {"tags": [(0x8100, 7)], "labels": [100, 200]}),
            (frames.arp_request(), {}),
        )]
        with tempfile.NamedTemporaryFile(suffix=".pcap") as capture:
            capture.write(pcap((0, frame) for frame in batch))
            capture.flush()
            checks = [f"{layer}:TRUE" for layer in (
                "ip.check_checksum", "udp.check_checksum", "tcp.check_checksum")]
            options = [word for check in checks for word in ("-o", check)]
            listing = subprocess.run(
                ["tshark", "-n", "-r", capture.name, *options, "-o", "sctp.checksum:TRUE",
                 "-T", "fields", "-e", "frame.protocols", "-e", "_ws.expert.message",
                 "-E", "separator=|"],
                check=True, capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout
        self.assertEqual(listing.splitlines(), [
            "eth:ethertype:ip:udp:data|",
            "eth:ethertype:ip:tcp:data|",
            "eth:ethertype:ip:sctp:data|",
            "eth:ethertype:ip:icmp:data|",
            "eth:ethertype:ipv6:icmpv6:data|",
            "eth:ethertype:ipv6:ipv6.dstopts:udp:data|",
            "eth:ethertype:vlan:ethertype:mpls:ip:udp|",
            "eth:ethertype:arp|",
        ])


if __name__ == "__main__":
    unittest.main()
