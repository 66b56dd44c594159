"""A second, slow model of what the probe does with frames: which flows leave, with which sums.

Written for clarity: one pass per frame over its bytes, a dictionary of flows, no timeouts, no
bucket limits. Bytes after the end of a frame read as zero, like the probe's own view of them.
"""

import ipaddress
from collections import Counter
from dataclasses import dataclass, field

from testbed.frames import ICMP, ICMPV6, SCTP, TCP, UDP

MASK_IP, MASK_PORTS, MASK_ICMP, MASK_MAC, MASK_L3_ID = 0x01, 0x02, 0x04, 0x08, 0x10
MASK_L4_ID, MASK_INTERFACE, MASK_VLAN_ID, MASK_MPLS_ID = 0x20, 0x40, 0x80, 0x100
MASK_DEFAULT = 0x77

VLAN_TYPES = (0x8100, 0x9100, 0x9200)


@dataclass(frozen=True)
class Flow:
    """One IPv4 flow as a NetFlow v5 record shows it, without its times."""

    source: str
    destination: str
    protocol: int
    source_port: int
    destination_port: int
    tcp_flags: int
    tos: int
    packets: int
    octets: int
    input: int = 0
    output: int = 0


@dataclass
class Packet:
    """One parsed frame."""

    version: int = 0
    source: bytes = b""
    destination: bytes = b""
    tos: int = 0
    protocol: int = 0
    octets: int = 0
    fragment: bool = False
    ports: tuple = (0, 0)
    tcp_flags: int = 0
    icmp: int = 0
    macs: bytes = b""
    vlans: list = field(default_factory=list)
    labels: list = field(default_factory=list)

    def key(self, mask):
        """The values that tell two flows apart under a flow mask."""
        has_ports = self.protocol in (TCP, UDP, SCTP) and not self.fragment
        has_icmp = self.protocol in (ICMP, ICMPV6) and not self.fragment
        return (
            self.macs if mask & MASK_MAC else None,
            tuple(self.vlans) if mask & MASK_VLAN_ID else None,
            tuple(self.labels) if mask & MASK_MPLS_ID else None,
            (self.source, self.destination) if mask & MASK_IP else None,
            self.ports if mask & MASK_PORTS and has_ports else None,
            self.icmp if mask & MASK_ICMP and has_icmp else None,
            self.version if mask & MASK_L3_ID else None,
            self.protocol if mask & MASK_L4_ID else None,
        )


def parse(frame):
    """The packet in a frame, or None when the frame belongs to no flow."""
    packet = Packet(macs=frame[:12])
    start = _network_start(frame, packet)
    if start is None:
        return None
    view = frame[start:] + bytes(80)
    packet.version = view[0] >> 4
    if packet.version == 4:
        packet.source, packet.destination = view[12:16], view[16:20]
        packet.tos, packet.protocol = view[1], view[9]
        packet.octets = int.from_bytes(view[2:4], "big")
        packet.fragment = int.from_bytes(view[6:8], "big") & 0x3FFF != 0
        if not packet.fragment:
            _read_transport(view[4 * (view[0] & 15):], packet)
        return packet
    if packet.version == 6:
        packet.source, packet.destination = view[8:24], view[24:40]
        packet.protocol = view[6]
        packet.octets = int.from_bytes(view[4:6], "big") + 40
        _read_transport(view[40:], packet)
        return packet
    return None


def predict(frames, mask=MASK_DEFAULT):
    """The IPv4 flows that leave the probe, as a multiset, when nothing times out in between."""
    flows = {}
    for frame in frames:
        packet = parse(frame)
        if packet is not None:
            flows.setdefault(packet.key(mask), []).append(packet)
    return Counter(_flow(packets) for packets in flows.values() if packets[0].version == 4)


def packets_and_octets(flows):
    """Sums over a multiset of flows."""
    return (sum(flow.packets * count for flow, count in flows.items()),
            sum(flow.octets * count for flow, count in flows.items()))


def _flow(packets):
    first = packets[0]
    flags = 0
    for packet in packets:
        flags |= packet.tcp_flags
    has_ports = first.protocol in (TCP, UDP, SCTP)
    destination_port = first.ports[1] if has_ports else 0
    if first.protocol == ICMP:
        destination_port = first.icmp
    return Flow(
        source=str(ipaddress.IPv4Address(first.source)),
        destination=str(ipaddress.IPv4Address(first.destination)),
        protocol=first.protocol,
        source_port=first.ports[0] if has_ports else 0,
        destination_port=destination_port,
        tcp_flags=flags if first.protocol == TCP else 0,
        tos=first.tos,
        packets=len(packets),
        octets=sum(packet.octets for packet in packets) & 0xFFFFFFFF,
    )


def _network_start(frame, packet):
    """Walks tags and label stacks; None at an unknown type or when the walk leaves the frame."""
    position = 12
    while position + 2 <= len(frame):
        ethertype = int.from_bytes(frame[position:position + 2], "big")
        position += 2
        if ethertype in (0x0800, 0x86DD):
            return position
        if ethertype in VLAN_TYPES:
            if position + 2 > len(frame):
                return None
            packet.vlans.append(int.from_bytes(frame[position:position + 2], "big") & 0xFFF)
            position += 2
        elif ethertype == 0x8847:
            position = _label_stack_end(frame, position, packet)
            if position is None or position >= len(frame):
                return None
            if 0x45 <= frame[position] <= 0x4F or 0x60 <= frame[position] <= 0x6F:
                return position
            position += 12
        else:
            return None
    return None


def _label_stack_end(frame, position, packet):
    while position + 4 <= len(frame):
        entry = int.from_bytes(frame[position:position + 4], "big")
        packet.labels.append(entry >> 8)
        position += 4
        if entry & 0x100:
            return position
    return None


def _read_transport(view, packet):
    """The last layer; extension headers only matter to IPv6, which this model does not export."""
    view = view + bytes(16)
    if packet.protocol in (ICMP, ICMPV6):
        packet.icmp = int.from_bytes(view[0:2], "big")
    packet.ports = (int.from_bytes(view[0:2], "big"), int.from_bytes(view[2:4], "big"))
    if packet.protocol == TCP:
        packet.tcp_flags = view[13]
