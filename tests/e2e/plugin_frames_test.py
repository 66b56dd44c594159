"""Process plugins that look at the frame of each packet, on every input."""

import os
import time

from testbed.case import E2eCase
from testbed.frames import ACK, SYN, arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.process import SLOWNESS
from testbed.capture import pcap
from testbed.network import PROBED, SENDER, ip
from testbed.rawnetcap import with_capture_module, write_pcap

A, B = "10.0.0.1", "10.0.0.2"
LONG = ("-t", "600:300")
SECOND = 1_000_000_000


def lines_of(frames):
    """What the plugin notes of a list of (frame, header length, flow)."""
    noted, seen = [], set()
    for frame, header_length, flow in frames:
        event = "update" if flow in seen else "create"
        seen.add(flow)
        noted.append(f"{event} {len(frame)} {header_length} {frame.hex().upper()}")
    return noted


def mixed(count, longest=1200):
    """Frames of many lengths in 50 flows, each with its number in its payload, with some ARP frames
    in between; and what is to be noted of them."""
    frames, noted = [], []
    for number in range(count):
        payload = number.to_bytes(4, "big") + bytes(number * 37 % longest)
        flow = number % 50
        if flow % 3 == 0:
            frame, header_length = ethernet(ipv4(udp(1000 + flow, 53, payload), A, B)), 42
        elif flow % 3 == 1:
            frame = ethernet(ipv4(tcp(1000 + flow, 80, ACK, payload), A, B))
            header_length = 54
        else:
            frame = ethernet(ipv6(udp(1000 + flow, 53, payload), "2001:db8::1", "2001:db8::2"))
            header_length = 62
        frames.append(frame)
        noted.append((frame, header_length, flow))
        if number % 11 == 0:
            frames.append(ethernet(arp_request()))
    return frames, lines_of(noted)


class PluginFrames(E2eCase):
    def setUp(self):
        super().setUp()
        self.log = self.directory() / "frames"
        self.plugin = ("-X", os.environ["KESTREL_FRAME_LOG"], "-P", f"frame_log:{self.log}")

    def start(self, *arguments, **options):
        return self.probe(*LONG, *self.plugin, *arguments, "-E", "null", **options)

    def replay(self, path, *arguments):
        probe = self.probe(
            *arguments, *self.plugin, "-E", "null", ready=False,
            source=("-X", os.environ["KESTREL_CAPTURE_FILE"], "-I", f"capture-file:file={path}"))
        self.assertEqual(probe.wait(), 0, probe.describe())

    def noted(self):
        return self.log.read_text().splitlines()

    def wait_for_packets(self, count, seconds=30):
        deadline = time.monotonic() + seconds * SLOWNESS
        while len(self.noted()) < count and time.monotonic() < deadline:
            time.sleep(0.05)

    def check(self, probe, expected):
        """The packets noted are these, in order, and every flow ends without a frame in hand."""
        self.wait_for_packets(len(expected))
        self.stop_in_order(probe)
        noted = self.noted()
        self.assertEqual(noted[:len(expected)], expected)
        flows = sum(line.startswith("create") for line in expected)
        self.assertEqual(noted[len(expected):], ["release 0 0 -"] * flows)

    # Not under the thread sanitizer: the threads are those of the bursts.
    def test_one_packet_at_a_time_shows_its_own_frame(self):
        frames, expected = mixed(6)
        probe = self.start()
        noted = 0
        for frame in frames:
            self.sender.send(frame)
            noted += frame != ethernet(arp_request())
            self.wait_for_packets(noted)
        self.check(probe, expected)

    def test_bursts_show_every_frame_once_and_in_order(self):
        frames, expected = mixed(3000)
        probe = self.start()
        for first in range(0, len(frames), 300):
            self.sender.send(*frames[first:first + 300])
            self.wait_for_packets(min(first * 10 // 11, len(expected)))
        self.check(probe, expected)

    # Not under the address sanitizer: the frames are those of the bursts.
    def test_a_slow_plugin_holds_the_reader_up_and_mixes_nothing(self):
        # The exchange ring of this cache has eight slots.
        frames, expected = mixed(400)
        probe = self.start("-q", "6", env={**os.environ, "FRAME_LOG_PAUSE_US": "2000"})
        self.sender.send(*frames)
        self.wait_for_packets(len(expected))
        self.stop_in_order(probe)
        shown = [line for line in self.noted() if not line.startswith("release")]
        # A small cache evicts flows, so an update may be a create: the frames count.
        self.assertEqual([line.split(" ", 1)[1] for line in shown],
                         [line.split(" ", 1)[1] for line in expected])

    # Not under the thread sanitizer: the threads are those of the bursts.
    def test_jumbo_frames_are_shown_whole(self):
        for end in (SENDER, PROBED):
            ip(f"link set {end} mtu 9000")
        frames, expected = mixed(600, longest=8900)
        probe = self.start()
        for first in range(0, len(frames), 50):  # libpcap's ring holds a few hundred of them
            self.sender.send(*frames[first:first + 50])
            self.wait_for_packets(min(first * 10 // 11, len(expected)))
        self.check(probe, expected)

    # Not under the thread sanitizer: the threads are those of the bursts.
    def test_frames_of_the_capture_module(self):
        frames, expected = mixed(300)
        path = self.directory() / "frames.pcap"
        write_pcap(path, frames)
        probe = self.start(source=("-I", "rawnetcap:device=eth0"),
                           env=with_capture_module(FRAMES=path, RING=1024))
        self.check(probe, expected)

    def test_frames_of_a_capture_file(self):
        frames, expected = mixed(300)
        path = self.directory() / "frames.pcap"
        write_pcap(path, frames)
        self.replay(path, *LONG)
        noted = self.noted()
        self.assertEqual(noted[:len(expected)], expected)
        self.assertEqual(noted[len(expected):], ["release 0 0 -"] * 50)

    # Not under the thread sanitizer: one thread, seen in replay.ends.
    def test_flows_that_age_in_a_replay_are_released_without_a_frame(self):
        path = self.directory() / "frames.pcap"
        first = ethernet(ipv4(udp(1, 2), A, B))
        last = ethernet(ipv4(tcp(3, 4, SYN), A, B))
        path.write_bytes(pcap([(100 * SECOND, first), (200 * SECOND, last)]))
        self.replay(path, "-t", "60:10")
        self.assertEqual(self.noted(), [
            f"create {len(first)} 42 {first.hex().upper()}", "release 0 0 -",
            f"create {len(last)} 54 {last.hex().upper()}", "release 0 0 -"])
