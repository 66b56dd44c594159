"""What the page and the metrics tell of brokers."""

# Not under the thread sanitizer: librdkafka, which has most of the threads, is not instrumented.

import json
import os
import urllib.request

from broker import ONE, PLUGIN, SAMPLER, KafkaCase
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED
from testbed.process import SLOWNESS, wait_until


def ask(path):
    with urllib.request.urlopen(f"http://127.0.0.1:9101{path}", timeout=20 * SLOWNESS) as answer:
        return answer.read().decode()


def metrics():
    return dict(line.rsplit(" ", 1) for line in ask("/metrics").splitlines() if line[0] != "#")


def brokers():
    """By name: whether it is up, and its round trip in seconds."""
    return {one["name"]: (one["up"], one["round_trip_seconds"])
            for one in json.loads(ask("/api/summary"))["exports"][0]["brokers"]}


def is_slow(trip):
    # librdkafka takes the time after it has sent a request: what held it up there is missing.
    return trip is not None and 0.15 <= trip < 0.3 + 5 * SLOWNESS


class Metrics(KafkaCase):
    def send_some(self):
        self.sender.send(*[ethernet(ipv4(udp(1 + n, 53), "10.0.0.1", "10.0.0.2"))
                           for n in range(100)])

    def are_all_slow(self):
        """By the page and by the metrics, while requests go on: each second has its own mean."""
        self.send_some()
        told, found = brokers(), metrics()
        return (sorted(told) == ["1", "2", "3"]
                and all(up and is_slow(trip) for up, trip in told.values())
                and found[f"kestrelexp_export_up{{{ONE}}}"] == "1"
                and all(self.is_slow_in(found, f'{{{ONE},broker="{broker}"}}') for broker in told))

    @staticmethod
    def is_slow_in(found, labels):
        trip = float(found[f"kestrelexp_kafka_broker_round_trip_seconds{labels}"])
        return found[f"kestrelexp_kafka_broker_up{labels}"] == "1" and is_slow(trip)

    def test_the_state_and_the_round_trip_of_each_broker_are_shown(self):
        for broker in (1, 2, 3):
            self.cluster.order(f"slow {broker} 300")
        plugins = f"{PLUGIN},{os.environ['KESTREL_METRICS']}"
        self.probe("-q", "6", "-t", "600:1", "-X", plugins, "-E",
                   f"kafka:brokers={self.cluster.brokers},sampler={SAMPLER},key=flow", "-E",
                   "metrics:", source=("-I", f"pcap:device={PROBED}"))
        wait_until(self.are_all_slow, "slow brokers")
        self.cluster.down()
        wait_until(lambda: metrics()[f"kestrelexp_export_up{{{ONE}}}"] == "0", "no broker")
        wait_until(lambda: [up for up, _ in brokers().values()] == [False] * 3, "no brokers")
