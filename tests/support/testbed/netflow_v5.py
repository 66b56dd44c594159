"""A NetFlow v5 collector that trusts nothing: every byte of every packet is checked or kept."""

import select
import socket
import struct
import time
from collections import Counter
from dataclasses import dataclass

from testbed.flow_model import Flow
from testbed.flow_sets import Message
from testbed.network import udp_receiver
from testbed.process import SLOWNESS

HEADER = struct.Struct(">HHIIIIBBH")
RECORD = struct.Struct(">4s4sIHHIIIIHHBBBBHHBBH")
MOST_RECORDS = 30
SAMPLING_MODE = 0x4000  # deterministic, beside the rate in sampling_interval


@dataclass
class Header:
    count: int
    uptime_ms: int
    seconds: int
    nanoseconds: int
    sequence: int
    engine_id: int
    sampling: int


@dataclass
class Record:
    flow: Flow
    first_ms: int
    last_ms: int


class Malformed(AssertionError):
    """An export packet that breaks the format."""


def decode(packet):
    """The header and records of one export packet; Malformed when a fixed byte is not in place."""
    _require(len(packet) >= HEADER.size, f"{len(packet)} bytes are no packet")
    version, count, uptime, seconds, nanoseconds, sequence, engine_type, engine_id, sampling = (
        HEADER.unpack_from(packet))
    _require(version == 5, f"version {version}")
    _require(1 <= count <= MOST_RECORDS, f"count {count}")
    _require(len(packet) == HEADER.size + count * RECORD.size,
             f"{len(packet)} bytes for {count} records")
    _require(engine_type == 0, f"engine_type {engine_type}")
    _require(nanoseconds < 1_000_000_000, f"unix_nsecs {nanoseconds}")
    header = Header(count, uptime, seconds, nanoseconds, sequence, engine_id, sampling)
    records = [_decode_record(fields) for fields in RECORD.iter_unpack(packet[HEADER.size:])]
    return header, records


class Collector:
    """Receives on a loopback port of its own and checks what can be known beforehand."""

    def __init__(self, engine_id=0, sampling=0):
        self._socket = udp_receiver()
        self.port = self._socket.getsockname()[1]
        self.engine_id = engine_id
        self.sampling = sampling
        self.headers = []
        self.records = []
        self._began_ns = time.time_ns()

    @property
    def flows(self):
        """All flows so far as a multiset."""
        return Counter(record.flow for record in self.records)

    def drain(self, wait_s=0.0):
        """Takes every packet that has arrived; waits up to wait_s for the first one."""
        while self._take(wait_s):
            wait_s = 0.0

    def wait_for_flows(self, count, timeout):
        """Returns once count flows are in, also while more of them come faster than they can be
        read; fails when they do not come."""
        deadline = time.monotonic() + timeout * SLOWNESS
        while len(self.records) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError(f"{len(self.records)} of {count} flows after {timeout} s")
            self._take(left)

    def close(self):
        self._socket.close()

    def _take(self, wait_s):
        """Takes one packet; whether there was one within wait_s."""
        readable = bool(select.select([self._socket], [], [], wait_s)[0])
        if readable:
            self._accept(self._socket.recv(65536, socket.MSG_DONTWAIT))
        return readable

    def _accept(self, packet):
        header, records = decode(packet)
        _require(header.sequence == len(self.records),
                 f"flow_sequence {header.sequence} after {len(self.records)} flows")
        _require(header.engine_id == self.engine_id, f"engine_id {header.engine_id}")
        _require(header.sampling == self.sampling, f"sampling_interval {header.sampling:#x}")
        self._check_times(header, records)
        self.headers.append(header)
        self.records += records

    def _check_times(self, header, records):
        sent_ns = header.seconds * 1_000_000_000 + header.nanoseconds
        _require(self._began_ns - 1000 <= sent_ns <= time.time_ns(), f"export time {sent_ns}")
        # The router's clock is the machine's own monotonic one.
        uptime_ns = sent_ns - boot_time_ns()
        _require(abs(uptime_ns // 1_000_000 - header.uptime_ms) <= 50,
                 f"sys_uptime {header.uptime_ms}, the machine says {uptime_ns // 1_000_000}")
        began_ms = (self._began_ns - boot_time_ns()) // 1_000_000
        for record in records:
            _require(began_ms - 50 <= record.first_ms <= record.last_ms <= header.uptime_ms + 1,
                     f"First {record.first_ms}, Last {record.last_ms} at {header.uptime_ms}")


def boot_time_ns():
    """Wall-clock time at which the monotonic clock was zero."""
    return time.time_ns() - time.monotonic_ns()


def _decode_record(fields):
    (source, destination, nexthop, input_if, output_if, packets, octets, first, last, source_port,
     destination_port, pad1, tcp_flags, protocol, tos, source_as, destination_as, source_mask,
     destination_mask, pad2) = fields
    fixed = (nexthop, pad1, source_as, destination_as, source_mask, destination_mask, pad2)
    _require(fixed == (0,) * 7, f"nexthop, pads, AS numbers and masks {fixed}")
    _require(packets > 0, "a flow of no packets")
    flow = Flow(socket.inet_ntoa(source), socket.inet_ntoa(destination), protocol, source_port,
                destination_port, tcp_flags, tos, packets, octets, input_if, output_if)
    return Record(flow, first, last)


def _require(condition, message):
    if not condition:
        raise Malformed(message)


class V5Reader:
    """Reads NetFlow v5 as flow_sets.Reader does the others."""

    def read(self, datagram):
        header, records = decode(datagram)
        packets = sum(record.flow.packets for record in records)
        return Message(5, 0, header.sequence, len(records), packets)
