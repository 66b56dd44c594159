"""Frames from the ring of an emulated capture module: the flows are those that the model says, and
whatever is wrong with the device ends in a message."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

import os
import re
import struct
import unittest
from collections import Counter
from dataclasses import replace
from pathlib import Path

from testbed.case import E2eCase
from testbed.flow_model import packets_and_octets, predict
from testbed.frames import ACK, SYN, ethernet, icmp, ipv4, ipv6, tcp, udp
from testbed.probe import netflow_v5
from testbed.rawnetcap import ModuleLog, with_capture_module, write_pcap

CAPTURES = Path(__file__).resolve().parents[1] / "data" / "captures"
CAPTURED_FRAMES = 11572  # the packets of its SOURCES.md
SNAP_LENGTH = 128
PATIENT = ("-t", "600:300")
SETTINGS = ["open read-only", "ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = 0",
            "ioctl ff17 128 = 0", "ioctl ff02 = 128", "ioctl ff12 = 64"]


def mixed_frames(count):
    """Frames of many lengths, a flow each for the most part."""
    def frame(number):
        source, destination = f"10.0.{number >> 8}.{number & 255}", "198.51.100.1"
        payload = bytes(number * 7 % 400)
        network = (
            ipv4(udp(1000 + number, 53, payload), source, destination),
            ipv4(tcp(1000 + number, 443, ACK, payload), source, destination, tos=8),
            ipv4(tcp(2000, 80, SYN), "10.9.9.9", destination, options=b"\x01" * 8),
            ipv4(icmp(8, 0, payload), source, destination),
            ipv6(udp(1000, 53, payload), "2001:db8::1", "2001:db8::2"))[number % 5]
        return ethernet(network, tags=((0x8100, 5),) if number % 3 == 0 else ())
    return [frame(number) for number in range(count)]


def on_interface(number, flows):
    return Counter({replace(flow, input=number): count for flow, count in flows.items()})


def repeated(times, flows):
    """What becomes of flows whose every frame comes so many times."""
    return Counter({replace(flow, packets=flow.packets * times, octets=flow.octets * times): count
                    for flow, count in flows.items()})


def wraps(frames, ring_size):
    """How many times the ring begins anew, by the rules of the protocol."""
    offset = count = 0
    for frame in frames:
        offset += 16 + (min(len(frame), SNAP_LENGTH) + 7) // 8 * 8
        if offset + 16 + SNAP_LENGTH >= ring_size:
            offset, count = 0, count + 1
    return count


class RawnetcapCase(E2eCase):
    def setUp(self):
        super().setUp()
        directory = self.directory()
        self.frames_path, self.log = directory / "frames.pcap", ModuleLog(directory / "log")

    def module(self, frames=(), **settings):
        write_pcap(self.frames_path, frames)
        return with_capture_module(FRAMES=self.frames_path, LOG=self.log.path, **settings)

    def check_given_back(self, *last):
        """The log ends so, and the descriptor was closed at most there."""
        self.assertEqual(self.log.lines[-len(last):], list(last))
        self.assertEqual([line for line in self.log.lines if line.startswith("close")],
                         [line for line in last if line.startswith("close")])


class Rawnetcap(RawnetcapCase):
    def flows(self, frames, device="eth0", arguments=(), **settings):
        """What a collector holds when the module has no more frames and the probe has ended."""
        collector = self.collector()
        probe = self.probe(*PATIENT, *netflow_v5(collector.port), *arguments,
                           source=("-I", f"rawnetcap:device={device}"),
                           env=self.module(frames, **settings))
        self.log.wait_for("drained", timeout=60)
        self.stop_in_order(probe, collector, timeout=60, meanwhile=lambda: collector.drain(0.05))
        return collector.flows

    def test_400000_frames_become_the_flows_of_the_model(self):
        frames = mixed_frames(2000)
        flows = self.flows(frames, COUNT=400_000, BATCH=300)
        self.assert_flows(flows, on_interface(1, repeated(200, predict(frames))))
        ipv4_frames = [frame for number, frame in enumerate(frames) if number % 5 != 4]
        self.assertEqual(packets_and_octets(flows)[0], 200 * len(ipv4_frames))
        drained = self.log.wait_for("drained")
        self.assertTrue(drained.startswith(
            f"drained 400000 frames, {wraps(frames * 200, 65536)} wraps"), drained)
        self.assertGreater(wraps(frames * 200, 65536), 700)

    def test_a_ring_of_few_records_is_enough(self):
        frames = mixed_frames(1000)
        flows = self.flows(frames, COUNT=20_000, RING=4, BATCH=1000)
        self.assert_flows(flows, on_interface(1, repeated(20, predict(frames))))

    def test_records_that_take_a_whole_ring_each(self):
        frames = mixed_frames(100)
        # 4096 - 16 bytes: wherever a record ends, another of that length would not fit.
        flows = self.flows(frames, RING=4, LARGEST=4080)
        self.assert_flows(flows, on_interface(1, predict(frames)))
        self.assertTrue(self.log.wait_for("drained").startswith("drained 100 frames, 100 wraps"))

    def test_time_outs_in_between_lose_nothing(self):
        frames = mixed_frames(500)
        flows = self.flows(frames, BATCH=7, IDLE=3)
        self.assert_flows(flows, on_interface(1, predict(frames)))
        self.assertIn("poll 10 ms = 0", self.log.lines[:self.log.lines.index("ioctl ff42 = 7") + 9])

    def test_frames_of_two_devices_keep_their_interface(self):
        frames = mixed_frames(500)
        flows = self.flows(frames, device="eth0##eth1")
        self.assert_flows(flows, on_interface(1, predict(frames[0::2])) +
                          on_interface(2, predict(frames[1::2])))
        self.assertEqual([line for line in self.log.lines if line.startswith("ioctl ff00")],
                         ["ioctl ff00 eth0 = 0", "ioctl ff00 eth1 = 0"])

    def test_real_captures_become_the_flows_of_the_model(self):
        frames = [frame for path in sorted(CAPTURES.glob("*.pcap")) for frame in read_pcap(path)]
        self.assertEqual(len(frames), CAPTURED_FRAMES)
        flows = self.flows(frames)
        self.assert_flows(flows, on_interface(1, predict(
            [frame[:SNAP_LENGTH] for frame in frames])))

    def test_the_sampling_rate_reaches_the_collector(self):
        collector = self.collector(sampling=0x4000 | 250)
        probe = self.probe(
            *netflow_v5(collector.port), source=("-I", "rawnetcap:device=eth0,sampling=250"),
            env=self.module(mixed_frames(50)))
        self.log.wait_for("drained")
        self.stop_in_order(probe, collector)
        # The module samples: what it delivers is taken whole.
        self.assertEqual(packets_and_octets(collector.flows)[0], 40)
        self.assertIn("ioctl ff03 250 = 0", self.log.lines)

    def test_the_device_is_asked_in_order_and_kept_to_the_end(self):
        self.flows(mixed_frames(5))
        lines = self.log.lines
        self.assertEqual(lines[:11], [
            *SETTINGS, "mmap 65536 prot 1 flags 1 at 0", "ring of 16 pages, 16 touched",
            "ioctl ff05 = 0", "poll 10 ms = 1", "ioctl ff42 = 5"])
        self.assertTrue({"poll 10 ms = 0", "ioctl ff42 = 0"}.issuperset(
            line for line in lines[11:] if not line.startswith("drained")))


class Failures(RawnetcapCase):
    def refused(self, message, *last_calls, **settings):
        probe = self.probe("-E", "null", source=("-I", "rawnetcap:device=eth0"), ready=False,
                           env=self.module(**settings))
        self.assertEqual(probe.wait(), 255, probe.describe())
        said = [line for line in probe.lines if not line.startswith("VERBOSE")]
        self.assertEqual(said, [*message, "Unable to init plugin", "Driver initialization failed"])
        self.check_given_back(*last_calls)

    def test_a_busy_device_is_refused_silently(self):
        self.refused([], "open read-only", ANSWERS="open=-1")

    def test_other_module_versions_are_refused(self):
        self.refused(["RAWNETCAP: bad module version detected"],
                     "open read-only", "ioctl ff15 pointer = 262143", "close",
                     ANSWERS="ff15=0x3FFFF")

    def test_a_device_that_is_not_there_is_named(self):
        self.refused(["RAWNETCAP: Unable to add device: eth0"],
                     "ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = -1", "close",
                     DEVICES="eth1,eth00")

    def test_a_ring_of_no_size_is_refused(self):
        self.refused(["RAWNETCAP: bad ring size: 0 KiB"], "ioctl ff12 = 0", "close", RING=0)

    def test_a_largest_record_larger_than_the_ring_is_refused(self):
        self.refused(["RAWNETCAP: bad largest record: 4081 bytes in a ring of 4 KiB"],
                     "ioctl ff02 = 4081", "ioctl ff12 = 4", "close", RING=4, LARGEST=4081)

    def test_a_null_mapping_is_refused(self):
        self.refused(["RAWNETCAP: mmap failed"], *SETTINGS, "mmap 65536 prot 1 flags 1 at 0",
                     "close", ANSWERS="mmap=0")

    def test_a_failed_mapping_is_refused(self):
        self.refused(["RAWNETCAP: mmap failed"], *SETTINGS, "mmap 65536 prot 1 flags 1 at 0",
                     "close", ANSWERS="mmap=-1")

    def test_a_capture_that_does_not_start_is_given_back(self):
        self.refused(["RAWNETCAP: Unable to start rawnetcap capture process"],
                     "ioctl ff05 = -1", "munmap 65536", "close", ANSWERS="ff05=-1")

    def running(self, *message, frames=(), **settings):
        """What a collector holds, and how often the message was given, at the end in order."""
        collector = self.collector()
        probe = self.probe(*PATIENT, *netflow_v5(collector.port), ready=True,
                           source=("-I", "rawnetcap:device=eth0"),
                           env=self.module(frames, **settings))
        probe.wait_for_line(message[0])
        self.stop_in_order(probe, collector)
        self.assertEqual([line for line in probe.lines if "RAWNETCAP" in line], list(message))
        return collector.flows

    def test_a_record_that_runs_past_the_ring_ends_the_capture_alone(self):
        frames = mixed_frames(100)
        offset = sum(16 + (min(len(frame), SNAP_LENGTH) + 7) // 8 * 8 for frame in frames[:40])
        flows = self.running(
            f"RAWNETCAP: record at offset {offset} runs past the ring, capture ended",
            frames=frames, LIE="40:65535")
        self.assert_flows(flows, on_interface(1, predict(frames[:40])))
        self.check_given_back("munmap 65536", "close")

    def test_a_device_that_fails_is_told_of_once(self):
        flows = self.running("RAWNETCAP: Unable to get records", ANSWERS="ff42=-1,poll=8")
        self.assertEqual(flows, Counter())
        asked = len([line for line in self.log.lines if line == "ioctl ff42 = -1"])
        self.assertGreater(asked, 5)
        self.assertLess(asked, 5000)


def read_pcap(path):
    """The frames of a capture of Ethernet, none of another link layer."""
    data = path.read_bytes()
    order = {0xD4: "<", 0x4D: "<", 0xA1: ">"}[data[0]]
    link_type = struct.unpack_from(order + "I", data, 20)[0] & 0xFFFF
    position = 24
    while link_type == 1 and position + 16 <= len(data):
        captured = struct.unpack_from(order + "I", data, position + 8)[0]
        yield data[position + 16:position + 16 + captured]
        position += 16 + captured


if __name__ == "__main__":
    unittest.main()
