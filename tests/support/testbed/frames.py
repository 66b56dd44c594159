"""Builds Ethernet frames byte by byte: tags, labels, IPv4, IPv6 and their transports.

Layers nest from the inside out: ethernet(ipv4(udp(1000, 53), "10.0.0.1", "10.0.0.2")). Lengths and
checksums are right unless a caller asks for wrong ones, so that a dissector has nothing to say.
"""

import ipaddress
import struct
from dataclasses import dataclass

IPV4, IPV6, ARP, VLAN, MPLS = 0x0800, 0x86DD, 0x0806, 0x8100, 0x8847
ICMP, TCP, UDP, ICMPV6, SCTP = 1, 6, 17, 58, 132
FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16

MAC_SOURCE = bytes.fromhex("020000000001")
MAC_DESTINATION = bytes.fromhex("020000000002")


@dataclass
class Transport:
    """A layer 4 packet; checksum_at is where its Internet checksum goes, None for none."""

    protocol: int
    data: bytes
    checksum_at: int | None = None
    pseudo_header: bool = True


@dataclass
class Network:
    """A layer 3 packet under its EtherType."""

    ethertype: int
    data: bytes


def ethernet(network, tags=(), labels=(), source=MAC_SOURCE, destination=MAC_DESTINATION):
    """tags: (TPID, VID) outermost first. labels: MPLS labels outermost first, after the tags."""
    ethertype, data = network.ethertype, network.data
    if labels:
        ethertype, data = MPLS, mpls_stack(labels) + data
    for tpid, vid in reversed(tags):
        ethertype, data = tpid, struct.pack(">HH", vid, ethertype) + data
    return destination + source + struct.pack(">H", ethertype) + data


def mpls_stack(labels, ttl=64):
    """RFC 3032 section 2.1: 20 bits of label, 3 of traffic class, bottom of stack, TTL."""
    last = len(labels) - 1
    return b"".join(
        struct.pack(">I", label << 12 | (0x100 if index == last else 0) | ttl)
        for index, label in enumerate(labels)
    )


def pseudowire(network, **options):
    """A whole Ethernet frame as the payload of a label stack, without control word."""
    return Network(0, ethernet(network, **options))


def ipv4(transport, source, destination, tos=0, ttl=64, options=b"", identification=0,
         fragment_offset=0, more_fragments=False, dont_fragment=False, total_length=None):
    """options are padded to whole words; fragment_offset counts units of 8 bytes."""
    source, destination = ipaddress.IPv4Address(source), ipaddress.IPv4Address(destination)
    options += bytes(-len(options) % 4)
    words = 5 + len(options) // 4
    pseudo = struct.pack(">4s4sHH", source.packed, destination.packed, transport.protocol,
                         len(transport.data))
    payload = _with_checksum(transport, pseudo)
    flags = dont_fragment << 14 | more_fragments << 13 | fragment_offset
    length = words * 4 + len(payload) if total_length is None else total_length
    header = struct.pack(">BBHHHBBH4s4s", 0x40 | words, tos, length, identification, flags, ttl,
                         transport.protocol, 0, source.packed, destination.packed) + options
    header = header[:10] + struct.pack(">H", internet_checksum(header)) + header[12:]
    return Network(IPV4, header + payload)


def ipv6(transport, source, destination, traffic_class=0, extensions=()):
    """extensions: (protocol number, bytes from the third byte on); padded to whole 8-byte units."""
    source, destination = ipaddress.IPv6Address(source), ipaddress.IPv6Address(destination)
    pseudo = struct.pack(">16s16sII", source.packed, destination.packed, len(transport.data),
                         transport.protocol)
    payload = _with_checksum(transport, pseudo)
    next_header = transport.protocol
    for number, body in reversed(extensions):
        body += bytes(-(len(body) + 2) % 8)
        payload = struct.pack(">BB", next_header, (len(body) + 2) // 8 - 1) + body + payload
        next_header = number
    header = struct.pack(">IHBB", 6 << 28 | traffic_class << 20, len(payload), next_header, 64)
    return Network(IPV6, header + source.packed + destination.packed + payload)


def udp(source_port, destination_port, payload=b""):
    header = struct.pack(">HHHH", source_port, destination_port, 8 + len(payload), 0)
    return Transport(UDP, header + payload, checksum_at=6)


def tcp(source_port, destination_port, flags=ACK, payload=b"", options=b"", sequence=0):
    options += bytes(-len(options) % 4)
    header = struct.pack(">HHIIBBHHH", source_port, destination_port, sequence, 0,
                         (5 + len(options) // 4) << 4, flags, 8192, 0, 0)
    return Transport(TCP, header + options + payload, checksum_at=16)


def sctp(source_port, destination_port, payload=b"hello"):
    """One DATA chunk (RFC 4960 section 3.3.1) under the common header with its CRC32c."""
    chunk = struct.pack(">BBHIHHI", 0, 3, 16 + len(payload), 1, 0, 0, 0) + payload
    chunk += bytes(-len(chunk) % 4)
    header = struct.pack(">HHI", source_port, destination_port, 1)
    checksum = struct.pack("<I", crc32c(header + bytes(4) + chunk))
    return Transport(SCTP, header + checksum + chunk)


def icmp(kind, code, payload=b"abcdefgh"):
    header = struct.pack(">BBHHH", kind, code, 0, 7, 1)
    return Transport(ICMP, header + payload, checksum_at=2, pseudo_header=False)


def icmpv6(kind, code, payload=b"abcdefgh"):
    header = struct.pack(">BBHHH", kind, code, 0, 7, 1)
    return Transport(ICMPV6, header + payload, checksum_at=2)


def other(protocol, payload):
    """Any other protocol, as bare bytes."""
    return Transport(protocol, payload)


def arp_request(source="10.0.0.1", target="10.0.0.2"):
    body = struct.pack(">HHBBH6s4s6s4s", 1, IPV4, 6, 4, 1, MAC_SOURCE,
                       ipaddress.IPv4Address(source).packed, bytes(6),
                       ipaddress.IPv4Address(target).packed)
    return Network(ARP, body)


def internet_checksum(data):
    """RFC 1071."""
    data += bytes(len(data) % 2)
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def crc32c(data):
    """CRC-32C (Castagnoli), reflected, as SCTP uses it (RFC 4960 appendix B)."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def _with_checksum(transport, pseudo):
    data, position = transport.data, transport.checksum_at
    if position is None:
        return data
    covered = pseudo + data if transport.pseudo_header else data
    checksum = internet_checksum(covered) or 0xFFFF
    return data[:position] + struct.pack(">H", checksum) + data[position + 2:]
