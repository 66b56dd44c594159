"""Runs the probe with its input af-packet on devices of the test's own namespace."""

import os
import socket
import struct

from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.flow_model import Flow
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, SENDER, FrameSender, wait_for_carrier
from testbed.probe import netflow_v5

A, B = "10.0.0.1", "10.0.0.2"
RECEIVED = "kestrelexp_capture_packets_total"
RING_DROPPED = ("kestrelexp_capture_dropped_packets_total", 'stage="ring"')

# linux/if_packet.h, linux/virtio_net.h
_SOL_PACKET, _PACKET_VNET_HDR = 263, 15
_NEEDS_CHECKSUM, _TCP_OVER_IPV4 = 1, 1


def words(device=PROBED, options=""):
    """The command line up to the input's parameters."""
    return ("-X", os.environ["KESTREL_AF_PACKET"], "-I", f"af-packet:device={device}{options}")


def index_of(device):
    return socket.if_nametoindex(device)


def packet(port, payload=b"abcd"):
    return ipv4(udp(port, 53, payload), A, B)


def received(port, packets, device=PROBED, index=None):
    """The flow of packets that came in on a device."""
    return Flow(A, B, 17, port, 53, 0, 0, packets, 32 * packets, index or index_of(device), 0)


def sent(port, packets, device=PROBED):
    """The flow of packets that went out of it."""
    return Flow(A, B, 17, port, 53, 0, 0, packets, 32 * packets, 0, index_of(device))


class SegmentSender:
    """Sends TCP segments over IPv4 joined into one frame, as a host does that leaves it to its
    card to cut them."""

    def __init__(self, device=SENDER):
        self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self._socket.setsockopt(_SOL_PACKET, _PACKET_VNET_HDR, 1)
        self._socket.bind((device, 0))

    def send(self, frame, segment_bytes):
        """Of a frame without tags and options: headers of 14, 20 and 20 bytes."""
        head = struct.pack("<BBHHHH", _NEEDS_CHECKSUM, _TCP_OVER_IPV4, 54, segment_bytes, 34, 16)
        assert self._socket.send(head + frame) == len(head) + len(frame)

    def close(self):
        self._socket.close()


class AfPacketCase(E2eCase):
    """A collector of NetFlow v5, and the probe on its end of the veth pair."""

    def setUp(self):
        super().setUp()
        self.receiver = self.collector()

    def start(self, *arguments, device=PROBED, options="", **probe_options):
        return self.probe(*arguments, *netflow_v5(self.receiver.port),
                          source=words(device, options), **probe_options)

    def start_plain(self, *arguments, device=PROBED, options="", **probe_options):
        """With the null export."""
        return self.probe(*arguments, "-E", "null", source=words(device, options), **probe_options)

    def send(self, port, count, sender=SENDER):
        wait_for_carrier(sender)
        link = FrameSender(sender)
        link.send(*[ethernet(packet(port))] * count)
        link.close()

    def sums(self, probe):
        """Ends the probe in order; returns its counters, which have to come out even."""
        self.stop_in_order(probe, self.receiver)
        found = Sum(probe.lines)
        found.check(self)
        return found

    def flows(self, probe):
        self.sums(probe)
        return self.receiver.flows
