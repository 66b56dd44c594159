"""The frame of the tests with a real Kafka: its cluster, the probes, the sum of both."""

import ipaddress
import json
import os
import threading
import time
from collections import Counter

from real_broker import Cluster
from testbed.accounts import LOST, SENT, Sum
from testbed.case import E2eCase
from testbed.frames import ethernet, ipv4, udp
from testbed.kafka_messages import read_flow
from testbed.network import PROBED, FrameSender, received_frames
from testbed.process import wait_until

PLUGIN = os.environ.get("KESTREL_KAFKA", "kafka.so")
ONE = 'export="kafka-0"'
# A flow leaves the cache when others come, or a second after its last frame.
SHORT = ("-q", "10", "-t", "600:1")
PORTS = 50000  # of one address
BETWEEN_LOOKS = 1  # seconds; each reads the whole topic
ARRIVED = 90  # seconds that a message may take to where it can be read


def source(number):
    """Address and port of the flow with that number."""
    return f"10.1.0.{number // PORTS}", 1 + number % PORTS


def frame(number):
    address, port = source(number)
    return ethernet(ipv4(udp(port, 53), address, "10.0.0.2"))


def sources(count):
    return {source(number) for number in range(count)}


def of_protobuf(message):
    """(sampler, (address, port)) of a flow."""
    flow = read_flow(message)
    return text_of(flow["sampler_address"]), (text_of(flow["src_addr"]), flow["src_port"])


def of_json(message):
    flow = json.loads(message)
    return flow["sampler_address"], (flow["src_addr"], flow["src_port"])


def text_of(address):
    return str(ipaddress.ip_address(address))


class Traffic:
    """A frame of each flow in turn, so many a second, until it ends."""

    PAUSE = 0.02

    def __init__(self, rate):
        self.count = 0
        self._step = round(rate * self.PAUSE)
        self._is_over = threading.Event()
        self._sender = FrameSender()
        self._thread = threading.Thread(target=self._send)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._is_over.set()
        self._thread.join()
        self._sender.close()

    def _send(self):
        while not self._is_over.wait(self.PAUSE):
            self._sender.send(*[frame(self.count + n) for n in range(self._step)])
            self.count += self._step


class RealKafkaCase(E2eCase):
    def cluster(self, count=1, settings=""):
        return Cluster(self, count, settings)

    def properties(self, *lines):
        """The parameter that names a file with these lines."""
        file = self.directory() / "properties"
        file.write_text("\n".join(lines) + "\n", encoding="ascii")
        return f",config={file}"

    def start(self, brokers, parameters):
        """brokers: as clients take them."""
        return self.probe("-X", PLUGIN, "-E",
                          f"kafka:brokers={brokers.replace(',', '#')},{parameters}",
                          source=(*SHORT, "-I", f"pcap:device={PROBED}"))

    def wait_for(self, cluster, topic, read, samplers, count):
        """Until a topic has the first so many flows of each of these probes, but one: the first
        slot of a cache is never found idle."""
        wanted = {(sampler, flow) for sampler in samplers for flow in sources(count)}

        def are_there():
            time.sleep(BETWEEN_LOOKS)
            found = {message.flow for message in cluster.messages(topic, read)}
            return len(wanted - found) <= len(samplers)
        wait_until(are_there, f"{count} flows of each probe in {topic}", ARRIVED)

    def sum_of(self, probe, frames):
        """What the probe counted of so many frames."""
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(received_frames(), frames)
        self.assertEqual(found.kept_from(ONE) + found.total(SENT, ONE), frames)
        return found

    def check_account(self, probe, messages, sampler, frames):
        """Of so many frames, each of a flow of its own: what was acknowledged is in the topic
        exactly once, and the rest is counted. Returns what was lost, by reason."""
        found = self.sum_of(probe, frames)
        times = Counter(flow for owner, flow in (one.flow for one in messages) if owner == sampler)
        self.assertEqual({flow: count for flow, count in times.items() if count != 1}, {})
        self.assertLessEqual(set(times), sources(frames))
        lost = found.reasons(LOST, ONE)
        # Of those without an answer nobody knows; all others in the topic are acknowledged ones.
        surplus = len(times) - found.total(SENT, ONE)
        self.assertTrue(0 <= surplus <= lost.get("unacknowledged", 0), (surplus, lost))
        if found.kept_from(ONE) == 0:
            self.assertEqual(set(times), sources(frames))
        return lost
