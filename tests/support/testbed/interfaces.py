"""Probes that follow a device, one for each input that does, all of them on the same device."""

import os

from testbed import af_packet
from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.flow_model import Flow
from testbed.frames import ethernet
from testbed.network import PROBED, SENDER, FrameSender, wait_for_carrier
from testbed.probe import FLUSHED, netflow_v5
from testbed.process import settle

DOWN, UP = "Device kb is down: waiting for it to come up", "Device kb is up: capturing again"
GONE, BACK = "Device kb is gone: trying every second", "Device kb is back: capturing again"
RENAMED = "Device kb is gone (it is called kc now): trying every second"
CHANGES = "kestrelexp_capture_interface_changes_total"

# The words of each input up to its device, what follows it, and whether it numbers interfaces.
PCAP = (("-I", "pcap:device="), "", False)
AF_PACKET = (("-X", os.environ.get("KESTREL_AF_PACKET", "af-packet.so"), "-I",
              "af-packet:device="), "", True)
LANES = (AF_PACKET[0], ",lanes=3", True)
ONE_LANE = (PCAP, AF_PACKET)
ALL = (PCAP, AF_PACKET, LANES)


def cpu_seconds(pid):
    """Processor time of a process so far."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Follower:
    """A probe with one of the inputs, and its collector."""

    def __init__(self, case, row, options, device):
        (*words, opening), parameters, self.has_numbers = row
        self.name = opening + parameters
        self.collector = case.collector()
        self.probe = case.probe(*options, *netflow_v5(self.collector.port),
                                source=(*words, f"{opening}{device}{parameters}"))

    def flow(self, port, packets, index):
        """The flow of packets that came in on the device of that index."""
        return Flow(af_packet.A, af_packet.B, 17, port, 53, 0, 0, packets, 32 * packets,
                    index if self.has_numbers else 0)


class FollowCase(E2eCase):
    """Each case has probes with all inputs, or those that it names, on the same device."""

    def follow(self, *options, device=PROBED, inputs=ALL):
        self.device = device
        self.followers = [Follower(self, row, options, device) for row in inputs]
        self.passed = []  # port, packets, index of the device

    def wait_for(self, line, **options):
        for follower in self.followers:
            follower.probe.wait_for_line(line, **options)

    def send_elsewhere(self, port, count, sender=SENDER):
        """Frames that no probe shall see."""
        wait_for_carrier(sender)
        link = FrameSender(sender)
        link.send(*[ethernet(af_packet.packet(port))] * count)
        link.close()

    def note(self, port, count):
        """So many frames are on their way; when this returns, the probes have taken them."""
        self.passed.append((port, count, af_packet.index_of(self.device)))
        settle(0.2)

    def send(self, port, count, sender=SENDER):
        self.send_elsewhere(port, count, sender)
        self.note(port, count)

    def assert_run(self, *said):
        """The probes end in order; they exported what passed and said this about their device."""
        settle(0.3)
        for follower in self.followers:
            with self.subTest(input=follower.name):
                probe = follower.probe
                self.assertEqual(probe.stop(), 0, probe.describe())
                self.assertIn(FLUSHED, probe.lines, probe.describe())
                follower.collector.drain()
                self.assert_flows(follower.collector.flows,
                                  {follower.flow(*passed): 1 for passed in self.passed})
                self.assertEqual([line for line in probe.lines if line.startswith("Device ")],
                                 list(said))
                found = Sum(probe.lines)
                found.check(self)
                self.assertEqual(found.total(CHANGES), len(said))
                self.assertEqual(found.total(af_packet.RECEIVED),
                                 sum(count for _, count, _ in self.passed))
