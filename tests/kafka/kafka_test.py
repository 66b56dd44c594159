"""The kafka plugin and a cluster of three brokers: what is in the topic is what was sent, and what
is not there was counted."""

# Not under the thread sanitizer: librdkafka, which has most of the threads, is not instrumented.

import ipaddress
import json
import os
import time

from broker import ONE, SAMPLER, KafkaCase
from testbed.accounts import LOST, SENT
from testbed.frames import ethernet, icmp, ipv4, ipv6, tcp, udp
from testbed.process import SLOWNESS, settle
from testbed.replay import CAPTURES

A, B, C, D = "10.0.0.1", "10.0.0.2", "2001:db8::1", "2001:db8::2"
SOME, MANY = 300, 3000
TOO_LARGE, NOT_LEADER = 10, 6  # error codes of Kafka
# Of the smallest queue, 256 KiB, a flow takes between 120 and 200 bytes.
IN_QUEUE = range(1300, 2200)


def flows(block, count=SOME):
    """Frames of as many flows; those of different blocks differ."""
    return [ethernet(ipv4(udp(1 + n, 53), f"10.1.0.{block}", B)) for n in range(count)]


def address(text):
    return ipaddress.ip_address(text).packed


def without_times(flow):
    return {name: value for name, value in flow.items()
            if not name.startswith("time_") and name != "sequence_num"}


def who(flow):
    return flow["src_addr"], flow["src_port"]


class Kafka(KafkaCase):
    def senders(self, block, count=SOME):
        return {(address(f"10.1.0.{block}"), 1 + n) for n in range(count)}

    def test_each_flow_is_a_message_of_goflow2(self):
        probe = self.start()
        before = time.time_ns()
        self.sender.send(*[ethernet(ipv4(tcp(40000, 443, 0x12), A, B, tos=8))] * 3,
                         ethernet(ipv6(udp(5000, 53), C, D)),
                         ethernet(ipv4(icmp(8, 1), A, B)))
        self.stop_in_order(probe)
        found = [message.flow for message in self.cluster.messages()]
        common = {"sampling_rate": 1, "sampler_address": address(SAMPLER)}
        for flow in found:
            self.assertLessEqual(before, flow["time_flow_start_ns"])
            self.assertLessEqual(flow["time_flow_start_ns"], flow["time_flow_end_ns"])
            self.assertLessEqual(flow["time_flow_end_ns"], flow["time_received_ns"])
            self.assertLessEqual(flow["time_received_ns"], time.time_ns())
        self.assertEqual(sorted(flow.get("sequence_num", 0) for flow in found), [0, 1, 2])
        self.assertCountEqual(map(without_times, found), [
            {**common, "src_addr": address(A), "dst_addr": address(B), "etype": 0x800, "proto": 6,
             "src_port": 40000, "dst_port": 443, "tcp_flags": 0x12, "ip_tos": 8, "packets": 3,
             "bytes": 120},
            {**common, "src_addr": address(C), "dst_addr": address(D), "etype": 0x86DD,
             "proto": 17, "src_port": 5000, "dst_port": 53, "packets": 1, "bytes": 48},
            {**common, "src_addr": address(A), "dst_addr": address(B), "etype": 0x800, "proto": 1,
             "icmp_type": 8, "icmp_code": 1, "packets": 1, "bytes": 36}])
        self.assertEqual(self.sum_of(probe, 5).total(SENT, ONE), 5)

    def test_each_flow_is_an_object_of_json(self):
        probe = self.start(style="format=json,style=goflow2")
        self.sender.send(*[ethernet(ipv4(tcp(40000, 443, 0x12), A, B, tos=8))] * 3, *flows(1, 3))
        self.stop_in_order(probe)
        found = [message.flow for message in self.cluster.messages(json.loads)]
        self.assertEqual(sorted(flow["sequence_num"] for flow in found), [0, 1, 2, 3])
        flow, = (flow for flow in found if flow["src_port"] == 40000)
        self.assertLessEqual({
            "sampler_address": SAMPLER, "src_addr": A, "dst_addr": B, "etype": "IPv4",
            "proto": "TCP", "src_port": 40000, "dst_port": 443, "tcp_flags": 0x12, "ip_tos": 8,
            "packets": 3, "bytes": 120, "sampling_rate": 1}.items(), flow.items())
        self.sum_of(probe, 6)

    def test_an_object_has_the_style_and_the_fields_that_are_asked_for(self):
        probe = self.start(style="style=ecs,fields=L3_IPV4_ADDR_SRC#L4_PORT_DST")
        self.sender.send(*flows(1, 2))
        self.stop_in_order(probe)
        self.assertEqual([message.flow for message in self.cluster.messages(json.loads)],
                         [{"source": {"ip": "10.1.0.1"}, "destination": {"port": 53}}] * 2)

    def test_the_key_of_a_flow_brings_both_directions_into_one_partition(self):
        probe = self.start(",key=flow")
        for port in range(101, 141):
            self.sender.send(ethernet(ipv4(udp(port, 53), A, B)),
                             ethernet(ipv4(udp(53, port), B, A)))
        self.stop_in_order(probe)
        found = self.cluster.messages()
        places = {}
        for message in found:
            port, = {message.flow["src_port"], message.flow["dst_port"]} - {53}
            places.setdefault(port, set()).add(message.partition)
            self.assertEqual(message.key, address(A) + port.to_bytes(2, "big") + address(B)
                             + bytes((0, 53, 17)))
        self.assertEqual({port: len(found) for port, found in places.items()},
                         {port: 1 for port in range(101, 141)})
        self.assertEqual({message.partition for message in found}, {0, 1, 2})

    def test_the_key_of_the_exporter_is_its_address(self):
        probe = self.start(",key=exporter")
        self.sender.send(*flows(1, 20))
        self.stop_in_order(probe)
        found = self.cluster.messages()
        self.assertEqual({message.key for message in found}, {SAMPLER.encode()})
        self.assertEqual((len(found), len({message.partition for message in found})), (20, 1))

    def test_without_a_key_a_message_has_none(self):
        probe = self.start(",key=none")
        self.sender.send(*flows(1, 20))
        self.stop_in_order(probe)
        self.assertEqual([message.key for message in self.cluster.messages()], [None] * 20)

    def test_without_a_broker_the_start_says_so_and_goes_on(self):
        self.cluster.down()
        probe = self.start()
        probe.wait_for_line("kafka: no broker (")
        self.sender.send(*flows(1))
        self.cluster.up()
        probe.wait_for_line("kafka: connected after ")
        self.stop_in_order(probe)
        self.assertEqual({who(message.flow) for message in self.cluster.messages()},
                         self.senders(1))
        self.assertEqual(self.sum_of(probe, SOME).total(SENT, ONE), SOME)

    def test_flows_of_an_outage_arrive_after_it(self):
        probe = self.start()
        self.sender.send(*flows(1))
        self.wait_for_messages(SOME - 100)
        self.cluster.down()
        probe.wait_for_line("kafka: no broker (")
        self.sender.send(*flows(2))
        self.cluster.up()
        probe.wait_for_line("kafka: connected after ")
        self.sender.send(*flows(3))
        self.stop_in_order(probe)
        self.assertEqual({who(message.flow) for message in self.cluster.messages()},
                         self.senders(1) | self.senders(2) | self.senders(3))
        found = self.sum_of(probe, 3 * SOME)
        self.assertEqual((found.total(SENT, ONE), found.reasons(LOST, ONE)), (3 * SOME, {}))

    def test_an_outage_in_a_replay_takes_the_time_of_the_machine(self):
        self.cluster.down()
        probe = self.start(source=("-X", os.environ["KESTREL_CAPTURE_FILE"], "-I",
                                   f"capture-file:file={CAPTURES}/ndpi-4in4tunnel.pcap"),
                           parameters=",drain=60", ready=False)
        probe.wait_for_line("kafka: no broker (")
        start = time.monotonic()
        time.sleep(2)
        self.cluster.up()
        line = probe.wait_for_line("kafka: connected after ")
        seconds = int(line.split()[-2])
        self.assertTrue(1 <= seconds <= time.monotonic() - start + 5 * SLOWNESS, line)

    def test_a_full_queue_drops_the_newest_and_counts_them(self):
        self.cluster.down()
        probe = self.start(",queue=256")
        probe.wait_for_line("kafka: no broker (")
        self.sender.send(*flows(1, MANY))
        settle()
        self.cluster.up()
        probe.wait_for_line("kafka: connected after ")
        self.stop_in_order(probe)
        found = self.sum_of(probe, MANY)
        sent = found.total(SENT, ONE)
        self.assertIn(sent, IN_QUEUE)
        self.assertEqual(found.reasons(LOST, ONE), {"queue_full": MANY - sent})
        numbers = {message.flow.get("sequence_num", 0) for message in self.cluster.messages()}
        self.assertEqual(len(numbers), sent)
        self.assertLessEqual(set(range(IN_QUEUE.start)), numbers)

    def test_the_end_waits_for_the_drain_and_no_longer(self):
        self.cluster.down()
        probe = self.start(",drain=1")
        probe.wait_for_line("kafka: no broker (")
        self.sender.send(*flows(1))
        start = time.monotonic()
        self.stop_in_order(probe)
        self.assertLess(time.monotonic() - start, 8 * SLOWNESS)
        found = self.sum_of(probe, SOME)
        self.assertEqual(found.reasons(LOST, ONE), {"not_drained": SOME})

    def test_the_end_does_not_wait_for_a_batch_to_grow(self):
        properties = self.directory() / "properties"
        properties.write_text("linger.ms=900000\n", encoding="ascii")
        probe = self.start(f",config={properties}")
        self.sender.send(*flows(1))
        self.stop_in_order(probe)
        found = self.sum_of(probe, SOME)
        self.assertEqual((found.total(SENT, ONE), found.reasons(LOST, ONE)), (SOME, {}))

    def test_what_brokers_cannot_take_now_is_sent_again(self):
        probe = self.start()
        self.cluster.order(f"fail {NOT_LEADER} 3")
        self.sender.send(*flows(1))
        self.stop_in_order(probe)
        self.assertEqual({who(message.flow) for message in self.cluster.messages()},
                         self.senders(1))
        self.assertEqual(self.sum_of(probe, SOME).reasons(LOST, ONE), {})

    def test_what_brokers_refuse_is_lost_and_said(self):
        probe = self.start()
        self.cluster.order(f"fail {TOO_LARGE} 1")
        self.sender.send(*flows(1))
        probe.wait_for_line("kafka: lost to flows: Broker: Message size too large (")
        self.stop_in_order(probe)
        messages = self.cluster.messages()
        found = self.sum_of(probe, SOME)
        lost = found.reasons(LOST, ONE)
        self.assertEqual(lost, {"send": SOME - len(messages)})
        self.assertGreater(lost["send"], 0)

    def test_a_producer_that_gives_up_is_replaced(self):
        properties = self.directory() / "properties"
        properties.write_text("enable.gapless.guarantee=true\n", encoding="ascii")
        probe = self.start(f",config={properties}")
        self.cluster.order(f"fail {TOO_LARGE} 1")
        self.sender.send(*flows(1))
        probe.wait_for_line("kafka: librdkafka has given up: ")
        self.sender.send(*flows(2))
        self.stop_in_order(probe)
        found = self.sum_of(probe, 2 * SOME)
        senders = {who(message.flow) for message in self.cluster.messages()}
        self.assertLessEqual(self.senders(2), senders)
        lost = found.reasons(LOST, ONE)
        self.assertLessEqual({"send"}, set(lost))
        self.assertLessEqual(set(lost), {"send", "unacknowledged"})
        # Where another request was on its way, nobody knows whether it arrived.
        surplus = len(senders) - found.total(SENT, ONE)
        self.assertTrue(0 <= surplus <= lost.get("unacknowledged", 0), (surplus, lost))

    def test_producers_that_give_up_again_and_again_have_pauses_in_between(self):
        properties = self.directory() / "properties"
        properties.write_text("enable.gapless.guarantee=true\nbatch.num.messages=1\n"
                              "max.in.flight=1\n", encoding="ascii")
        probe = self.start(f",drain=1,config={properties}")
        self.cluster.order(f"fail {TOO_LARGE} 100")
        self.sender.send(*flows(1))
        probe.wait_for_line("kafka: librdkafka has given up: ")
        settle(2)
        self.stop_in_order(probe)
        self.assertEqual(sum("has given up" in line for line in probe.lines), 1, probe.describe())
        lost = self.sum_of(probe, SOME).reasons(LOST, ONE)
        self.assertEqual(self.cluster.messages(), [])
        # Each takes one message a partition with it.
        self.assertLess(lost["send"], 30)

    def test_slow_brokers_hold_nothing_up(self):
        for broker in (1, 2, 3):
            self.cluster.order(f"slow {broker} 700")
        probe = self.start()
        self.sender.send(*flows(1))
        self.stop_in_order(probe)
        self.assertEqual({who(message.flow) for message in self.cluster.messages()},
                         self.senders(1))
        self.assertEqual(self.sum_of(probe, SOME).reasons(LOST, ONE), {})
