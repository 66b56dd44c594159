"""A cluster of three brokers under a test's orders, and what is in its topics."""

import os
import subprocess
from dataclasses import dataclass

from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.network import PROBED, received_frames
from testbed.process import wait_until

PLUGIN = os.environ.get("KESTREL_KAFKA", "kafka.so")
SAMPLER = "192.0.2.254"
ONE = 'export="kafka-0"'
# So small a cache hands flows on as soon as others come.
SMALL = ("-q", "6", "-t", "600:300")
TOPIC, PARTITIONS = "flows", 3
# Of goflow2's message.
NAMES = {3: "sampling_rate", 4: "sequence_num", 6: "src_addr", 7: "dst_addr", 9: "bytes",
         10: "packets", 11: "sampler_address", 18: "in_if", 19: "out_if", 20: "proto",
         21: "src_port", 22: "dst_port", 23: "ip_tos", 26: "tcp_flags", 30: "etype",
         31: "icmp_type", 32: "icmp_code", 110: "time_received_ns", 111: "time_flow_start_ns",
         112: "time_flow_end_ns"}
VARINT, BYTES = 0, 2


@dataclass(frozen=True)
class Message:
    partition: int
    key: bytes | None
    flow: dict


def take_varint(data):
    value = shift = 0
    while True:
        byte, data = data[0], data[1:]
        value |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return value, data


def read_flow(message):
    """The fields of a message, which has its length before it and nothing after it."""
    length, data = take_varint(message)
    assert length == len(data), f"{len(data)} bytes, not {length}"
    flow = {}
    while data:
        tag, data = take_varint(data)
        value, data = take_varint(data)
        if tag & 7 == BYTES:
            value, data = data[:value], data[value:]
        else:
            assert tag & 7 == VARINT, tag
        assert NAMES[tag >> 3] not in flow, tag
        flow[NAMES[tag >> 3]] = value
    return flow


class Cluster:
    """See cluster.c."""

    def __init__(self):
        self._process = subprocess.Popen([os.environ["KESTREL_KAFKA_CLUSTER"]], text=True,
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.brokers = self._process.stdout.readline().strip().replace(",", "#")
        self.order(f"topic {TOPIC} {PARTITIONS}")

    def order(self, line):
        """Returns what it writes."""
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()
        return list(iter(lambda: self._line().strip(), "done"))

    def _line(self):
        line = self._process.stdout.readline()
        assert line, "the cluster is gone"
        return line

    def down(self):
        for broker in (1, 2, 3):
            self.order(f"down {broker}")

    def up(self):
        for broker in (1, 2, 3):
            self.order(f"up {broker}")

    def messages(self, read=read_flow):
        """read: makes a flow of the bytes of a message."""
        found = []
        for line in self.order(f"read {TOPIC} {PARTITIONS}"):
            partition, key, message = line.split()
            key = None if key == "none" else bytes.fromhex(key.strip("-"))
            found.append(Message(int(partition), key, read(bytes.fromhex(message))))
        return found

    def close(self):
        self._process.kill()
        self._process.wait()
        for end in (self._process.stdin, self._process.stdout):
            end.close()


class KafkaCase(E2eCase):
    def setUp(self):
        super().setUp()
        self.cluster = Cluster()
        self.addCleanup(self.cluster.close)

    def start(self, parameters="", style="format=protobuf", source=None, **options):
        source = source or (*SMALL, "-I", f"pcap:device={PROBED}")
        return self.probe("-X", PLUGIN, "-E", f"kafka:brokers={self.cluster.brokers},"
                          f"sampler={SAMPLER},{style}{parameters}",
                          source=source, **options)

    def wait_for_messages(self, count):
        wait_until(lambda: len(self.cluster.messages()) >= count, f"{count} messages")

    def sum_of(self, probe, frames):
        """What the probe counted of so many frames."""
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(received_frames(), frames)
        self.assertEqual(found.kept_from(ONE) + found.total("kestrelexp_export_packets_total", ONE),
                         frames)
        return found
