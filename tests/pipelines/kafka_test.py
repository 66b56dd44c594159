"""The export kafka while real brokers go and come: what they acknowledged is in the topic exactly
once, and the rest is counted."""

# Runs alone: three brokers and three probes keep all processors busy.

from kafka_case import ARRIVED, RealKafkaCase, Traffic, of_json, of_protobuf
from testbed.process import wait_until

FLOWS, LINES = "flows", "lines"
# Of each probe: its topic, how that is read, what else the export is told.
PROBES = {
    "192.0.2.1": (FLOWS, of_protobuf, "format=protobuf,key=flow"),
    "192.0.2.2": (FLOWS, of_protobuf, "format=protobuf,key=exporter"),
    "192.0.2.3": (LINES, of_json, "format=json,key=none"),
}
RATE = 250  # flows a second


class Outages(RealKafkaCase):
    def test_what_is_acknowledged_is_there_once_though_a_broker_of_three_is_killed(self):
        cluster = self.cluster(3).start()
        probes = {sampler: self.start(cluster.addresses,
                                      f"topic={topic},{parameters},sampler={sampler},drain=60")
                  for sampler, (topic, _, parameters) in PROBES.items()}
        with Traffic(RATE) as traffic:
            self.wait_for_all(cluster, 1000)
            cluster.brokers[0].kill()
            self.wait_for_all(cluster, traffic.count + 1000)
            cluster.brokers[0].start()
            self.wait_for_all(cluster, traffic.count + 1000)
        for probe in probes.values():
            self.stop_in_order(probe, timeout=90)
        found = {FLOWS: cluster.messages(FLOWS, of_protobuf),
                 LINES: cluster.messages(LINES, of_json)}
        for sampler, (topic, _, _) in PROBES.items():
            with self.subTest(sampler):
                lost = self.check_account(probes[sampler], found[topic], sampler, traffic.count)
                self.assertLessEqual(set(lost), {"unacknowledged"})
                places = {one.partition for one in found[topic] if one.flow[0] == sampler}
                self.assertEqual(len(places), 1 if sampler == "192.0.2.2" else 3)

    def wait_for_all(self, cluster, count):
        self.wait_for(cluster, FLOWS, of_protobuf, ("192.0.2.1", "192.0.2.2"), count)
        self.wait_for(cluster, LINES, of_json, ("192.0.2.3",), count)

    def test_flows_wait_while_the_only_broker_is_away_and_arrive_once(self):
        cluster = self.cluster()
        broker, = cluster.brokers
        probe = self.start(cluster.addresses,
                           "topic=flows,format=protobuf,sampler=192.0.2.1,drain=60")
        with Traffic(RATE) as traffic:
            self.wait_for_lines(probe, "kafka: no broker (", 1)
            broker.start()
            self.wait_for_lines(probe, "kafka: connected after ", 1)
            self.wait_for(cluster, FLOWS, of_protobuf, ("192.0.2.1",), traffic.count)
            broker.kill()
            self.wait_for_lines(probe, "kafka: no broker (", 2)
            during = traffic.count + 500
            wait_until(lambda: traffic.count >= during, "flows of the outage")
            broker.start()
            self.wait_for_lines(probe, "kafka: connected after ", 2)
            self.wait_for(cluster, FLOWS, of_protobuf, ("192.0.2.1",), traffic.count + 500)
        self.stop_in_order(probe, timeout=90)
        lost = self.check_account(probe, cluster.messages(FLOWS, of_protobuf), "192.0.2.1",
                                  traffic.count)
        self.assertEqual(lost, {})

    @staticmethod
    def wait_for_lines(probe, text, count):
        wait_until(lambda: sum(text in line for line in probe.lines) >= count, text, ARRIVED)
