"""A cluster of three brokers under a test's orders, and what is in its topics."""

import os
import subprocess

from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.kafka_messages import read_flow, read_messages
from testbed.network import PROBED, received_frames
from testbed.process import wait_until

PLUGIN = os.environ.get("KESTREL_KAFKA", "kafka.so")
SAMPLER = "192.0.2.254"
ONE = 'export="kafka-0"'
# So small a cache hands flows on as soon as others come.
SMALL = ("-q", "6", "-t", "600:300")
TOPIC, PARTITIONS = "flows", 3


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
        return read_messages(self.order(f"read {TOPIC} {PARTITIONS}"), read)

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
