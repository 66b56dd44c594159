"""What a real broker makes of the settings of the export kafka: topics, sizes, passwords, codecs,
partitions."""

import json
import zlib

from kafka_case import ONE, RealKafkaCase, of_protobuf, sources
from real_broker import PASSWORD_PORT
from testbed.accounts import LOST, SENT
from testbed.frames import ethernet, ipv4, ipv6, udp

SAMPLER = "192.0.2.1"
FLOWS = f"topic=flows,format=protobuf,sampler={SAMPLER}"
PATIENT = ",drain=60"
SOME = 300
A, B = "10.0.0.1", "10.0.0.2"
LONG = "2001:db8:1111:2222:3333:4444:5555:666"  # and a digit
ZSTD = 4  # of the attributes of a batch


def murmur2(data):
    """As Kafka's clients in Java choose partitions by."""
    mask, factor = 0xFFFFFFFF, 0x5BD1E995
    value = 0x9747B28C ^ len(data)
    whole = len(data) // 4 * 4
    for place in range(0, whole, 4):
        part = int.from_bytes(data[place:place + 4], "little") * factor & mask
        part = (part ^ part >> 24) * factor & mask
        value = value * factor & mask ^ part
    if whole < len(data):
        value = (value ^ int.from_bytes(data[whole:], "little")) * factor & mask
    value = (value ^ value >> 13) * factor & mask
    return value ^ value >> 15


class Settings(RealKafkaCase):
    def send(self, count=SOME):
        self.sender.send(*[ethernet(ipv4(udp(1 + n, 53), "10.1.0.0", B)) for n in range(count)])

    def test_a_topic_that_is_not_made_is_lost_and_said(self):
        cluster = self.cluster(settings="auto.create.topics.enable=false").start()
        probe = self.start(cluster.addresses, FLOWS + PATIENT + self.properties(
            "topic.metadata.propagation.max.ms=1000"))
        self.send()
        probe.wait_for_line("kafka: lost to flows: ", 60)
        self.stop_in_order(probe, timeout=60)
        self.assertEqual(self.sum_of(probe, SOME).reasons(LOST, ONE), {"send": SOME})

    def test_a_message_that_is_too_large_is_lost_alone(self):
        cluster = self.cluster(settings="message.max.bytes=150").start()
        probe = self.start(cluster.addresses, "topic=flows,format=json,fields=L3_IPV4_ADDR_SRC"
                           "#L3_IPV6_ADDR_SRC#L3_IPV6_ADDR_DST#L4_PORT_SRC" + PATIENT
                           + self.properties("batch.num.messages=1", "compression.codec=none"))
        self.send()
        self.sender.send(*[ethernet(ipv6(udp(1000 + n, 53), LONG + "1", LONG + "2"))
                           for n in range(5)])
        self.send()
        probe.wait_for_line("kafka: lost to flows: Broker: Message size too large (", 60)
        self.stop_in_order(probe, timeout=60)
        found = cluster.messages("flows", json.loads)
        self.assertEqual({(one.flow["src_addr"], one.flow["src_port"]) for one in found},
                         sources(SOME))
        account = self.sum_of(probe, 2 * SOME + 5)
        self.assertEqual(account.reasons(LOST, ONE), {"send": 5})
        self.assertEqual(account.total(SENT, ONE), 2 * SOME)

    def test_batches_that_are_small_enough_for_the_broker_arrive(self):
        cluster = self.cluster(settings="message.max.bytes=1500").start()
        probe = self.start(cluster.addresses, FLOWS + PATIENT + self.properties(
            "batch.size=1400", "compression.codec=none"))
        self.send()
        self.stop_in_order(probe, timeout=60)
        found = cluster.messages("flows", of_protobuf)
        self.assertEqual(self.check_account(probe, found, SAMPLER, SOME), {})

    def test_who_has_the_password_is_let_in_and_nobody_else(self):
        cluster = self.cluster(settings="sasl.enabled.mechanisms=PLAIN\n"
                               "listener.name.sasl_plaintext.plain.sasl.jaas.config="
                               "org.apache.kafka.common.security.plain.PlainLoginModule required "
                               'user_probe="right";').start()
        common = ("security.protocol=SASL_PLAINTEXT", "sasl.mechanism=PLAIN",
                  "sasl.username=probe")
        right, wrong = (self.start(f"127.0.0.1:{PASSWORD_PORT}", f"{FLOWS},drain={drain}"
                                   + self.properties(*common, f"sasl.password={password}"))
                        for password, drain in (("right", 60), ("wrong", 1)))
        line = wrong.wait_for_line("kafka: no broker (", 60)
        self.assertIn("Authentication failed: Invalid username or password", line)
        self.send()
        for probe in (right, wrong):
            self.stop_in_order(probe, timeout=60)
        found = cluster.messages("flows", of_protobuf)
        self.assertEqual(self.check_account(right, found, SAMPLER, SOME), {})
        self.assertEqual(self.sum_of(wrong, SOME).reasons(LOST, ONE), {"not_drained": SOME})

    def test_flows_are_where_clients_of_their_partitioner_look_for_them(self):
        cluster = self.cluster().start()
        probes = [
            self.start(cluster.addresses, f"topic=crc,format=protobuf,key=flow{PATIENT}"
                       + self.properties("compression.codec=zstd")),
            self.start(cluster.addresses, f"topic=java,format=protobuf,key=flow{PATIENT}"
                       + self.properties("partitioner=murmur2_random"))]
        for port in range(101, 141):
            self.sender.send(ethernet(ipv4(udp(port, 53), A, B)),
                             ethernet(ipv4(udp(53, port), B, A)))
        for probe in probes:
            self.stop_in_order(probe, timeout=60)
        # As Kafka's own tests have it.
        self.assertEqual(murmur2(b"foobar"), -790332482 & 0xFFFFFFFF)
        keys = {bytes((10, 0, 0, 1)) + port.to_bytes(2, "big") + bytes((10, 0, 0, 2, 0, 53, 17))
                for port in range(101, 141)}
        for topic, value in (("crc", zlib.crc32), ("java", lambda key: murmur2(key) & 0x7FFFFFFF)):
            found = cluster.messages(topic)
            self.assertEqual(len(found), 80)
            self.assertEqual({(one.key, one.partition) for one in found},
                             {(key, value(key) % 3) for key in keys})
        self.assertEqual(cluster.brokers[0].codecs("crc"), {ZSTD})
