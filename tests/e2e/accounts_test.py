"""The sum at the end of live runs: what came in is what went out plus what was lost, and why."""

# Runs alone: it sends as fast as it can, and counts what arrives.

import threading

from testbed.accounts import DISCARDED, HANDED, LOST, RECEIVED, SENT, Sum
from testbed.case import E2eCase
from testbed.flow_model import packets_and_octets
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.network import PROBED, FrameSender
from testbed.probe import FLUSHED, netflow_v5

A, B = "10.0.0.1", "10.0.0.2"
C, D = "2001:db8::1", "2001:db8::2"


def v4(port):
    return ethernet(ipv4(udp(port, 53, b"abcd"), A, B))


class Accounts(E2eCase):
    def sum_of(self, probe):
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(probe.lines[-1], FLUSHED)
        return found

    def test_known_traffic_comes_out_to_the_packet(self):
        collector = self.collector()
        probe = self.probe(*netflow_v5(collector.port), "-E", "null")
        self.sender.send(*[v4(1000 + number % 300) for number in range(2000)],
                         *[ethernet(ipv6(tcp(number, 443), C, D)) for number in range(70)],
                         *[ethernet(arp_request())] * 9)
        self.stop_in_order(probe, collector)
        found = self.sum_of(probe)
        self.assertEqual(found.total(RECEIVED), 2079)
        self.assertEqual(found.total("kestrelexp_capture_bytes_total"), sum(map(len, [
            *[v4(1)] * 2000, *[ethernet(ipv6(tcp(1, 443), C, D))] * 70,
            *[ethernet(arp_request())] * 9])))
        self.assertEqual(found.reasons(DISCARDED), {"not_ip": 9})
        self.assertEqual(found.total(HANDED), 2070)
        self.assertEqual(found.reasons(LOST, 'export="netflow-v5-0"'), {"ip_version": 70})
        self.assertEqual(found.total(SENT, 'export="netflow-v5-0"'), 2000)
        self.assertEqual(packets_and_octets(collector.flows)[0], 2000)
        self.assertEqual(found.total(SENT, 'export="null-1"'), 2070)

    # Not under the address sanitizer: nothing passes.
    # Not under the thread sanitizer: nothing passes.
    def test_an_end_without_traffic_sums_up_nothing(self):
        probe = self.probe("-E", "null")
        self.stop_in_order(probe)
        self.assertEqual(self.sum_of(probe).total(RECEIVED), 0)

    def test_an_interrupt_in_the_middle_leaves_nothing_out(self):
        collector = self.collector()
        probe = self.probe(*netflow_v5(collector.port), source=(
            "-q", "6", "-I", f"pcap:device={PROBED}"))
        is_over = threading.Event()
        sent = []

        def blast():
            sender = FrameSender()
            frames = [v4(number) for number in range(1, 5000)]
            while not is_over.is_set():
                sender.send(*frames[:100])
                sent.append(100)
                frames = frames[100:] + frames[:100]
            sender.close()

        thread = threading.Thread(target=blast)
        thread.start()
        try:
            while sum(sent) < 20_000:
                is_over.wait(0.01)
            self.assertEqual(probe.stop(meanwhile=collector.drain), 0)
        finally:
            is_over.set()
            thread.join()
        collector.drain()
        found = self.sum_of(probe)
        self.assertGreater(found.total(SENT), 1000)
        self.assertLessEqual(found.total(RECEIVED), sum(sent))
        self.assertEqual(packets_and_octets(collector.flows)[0], found.total(SENT))
