"""What the metrics plugin tells: metrics, the summary, readiness."""

import json
import signal
import subprocess
import time
import unittest

from web import DOWN, PLUGIN, MetricsCase, ask, scrape, summary
from testbed.accounts import Sum
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.network import PROBED, SENDER, free_udp_port, ip
from testbed.probe import ipfix, netflow_v5
from testbed.process import wait_until

A, B, C, D = "10.0.0.1", "10.0.0.2", "2001:db8::1", "2001:db8::2"
LABEL = 'export="netflow-v5-0"'


def v4(port, source=A, size=100):
    """size: bytes of the IP packet."""
    return ethernet(ipv4(udp(port, 53, bytes(size - 28)), source, B))


class Numbers(MetricsCase):
    def test_known_traffic_is_counted_to_the_packet(self):
        collector = self.collector()
        probe = self.watched_probe(*netflow_v5(collector.port), options=("-t", "180:1"))
        frames = [*[v4(1000 + n % 30) for n in range(300)], *[ethernet(arp_request())] * 7,
                  *[ethernet(ipv6(tcp(n, 443), C, D)) for n in range(40)]]
        self.sender.send(*frames)
        wait_until(lambda: scrape().get("kestrelexp_handed_packets_total") == 340, "flows to age")
        wait_until(lambda: scrape().get("kestrelexp_cache_flows") == 0, "an empty cache")
        found = scrape()
        self.assertEqual(found['kestrelexp_capture_packets_total{input="pcap"}'], 347)
        self.assertEqual(found['kestrelexp_capture_bytes_total{input="pcap"}'],
                         sum(map(len, frames)))
        self.assertEqual(found['kestrelexp_parser_discarded_packets_total{reason="not_ip"}'], 7)
        self.assertEqual(found["kestrelexp_handed_records_total"], 70)
        self.assertEqual(found['kestrelexp_export_lost_packets_total{' + LABEL
                               + ',reason="ip_version"}'], 40)
        self.assertEqual(found['kestrelexp_export_packets_total{export="metrics-1"}'], 340)
        self.assertEqual(found["kestrelexp_cache_slots"], 2**19)
        probe.stop()
        Sum(probe.lines).check(self)

    def test_the_summary_says_the_same_in_other_words(self):
        self.watched_probe("-E", "null", options=("-t", "180:1"))
        self.sender.send(*[v4(1000, size=500)] * 10, *[v4(2000, "10.0.0.9")] * 3,
                         *[ethernet(arp_request())] * 2,
                         ethernet(ipv6(tcp(50000, 443, payload=bytes(1000)), C, D)))
        wait_until(lambda: summary()["top"]["records"] == 3, "flows to age")
        found = summary()
        # An IPv6 header has 40 bytes, one of TCP 20.
        self.assertEqual(found["top"]["bytes"], 5000 + 300 + 1060)
        self.assertEqual(found["top"]["talkers"], {"error_bytes": 0, "entries": [
            {"address": A, "bytes": 5000}, {"address": C, "bytes": 1060},
            {"address": "10.0.0.9", "bytes": 300}]})
        self.assertEqual(found["top"]["ports"]["entries"], [
            {"protocol": 17, "port": 53, "bytes": 5300},
            {"protocol": 6, "port": 443, "bytes": 1060}])
        self.assertEqual(found["top"]["protocols"]["entries"], [
            {"protocol": 17, "bytes": 5300}, {"protocol": 6, "bytes": 1060}])
        self.assertEqual([(box["name"], box["packets"]) for box in found["road"]], [
            ("capture", 16), ("parser", 14), ("cache", 14), ("records", 14)])
        self.assertEqual(found["road"][1]["left_out"], [{"reason": "not_ip", "packets": 2}])
        self.assertEqual([box["lost"] for box in found["road"]], [[], [], [], []])
        self.assertEqual([(one["name"], one["packets"], one["is_this"])
                          for one in found["exports"]],
                         [("null-0", 14, False), ("metrics-1", 14, True)])
        self.assertEqual({one["reason"]: one["flows"] for one in found["removed"]},
                         {"active": 0, "inactive": 3, "collision": 0, "forced": 0, "other": 0})

    def test_losses_are_told_from_what_was_asked_for(self):
        collector = self.collector()
        self.watched_probe("-S", "2", *netflow_v5(collector.port), options=("-t", "180:1"))
        self.sender.send(*[ethernet(ipv6(udp(1000 + n, 53), C, D)) for n in range(10)])
        wait_until(lambda: scrape().get("kestrelexp_handed_packets_total") == 10, "flows to age")
        export = summary()["exports"][0]
        self.assertEqual(export["lost"], [{"reason": "ip_version", "packets": 5}])
        self.assertEqual(export["left_out"], [{"reason": "sampling", "packets": 5}])
        self.assertEqual(summary()["totals"]["lost_packets"], 5)

    # Not under the address sanitizer: it waits for samples.
    def test_the_history_goes_on_from_the_time_that_is_asked_for(self):
        self.watched_probe()
        self.sender.send(*[v4(1000)] * 50)
        wait_until(lambda: sum(summary()["history"]["packets"]) > 0, "a sample")
        wait_until(lambda: len(summary()["history"]["time"]) >= 3, "three samples")
        past = summary()["history"]
        # One sample a second: all packets of a run this short are in them.
        self.assertAlmostEqual(sum(past["packets"]), 50, delta=5)
        self.assertTrue(all(later - time_ > 0.5 for time_, later in
                            zip(past["time"], past["time"][1:])), past["time"])
        rest = summary(query=f"?since={past['time'][1]}")["history"]
        self.assertEqual(rest["time"][0], past["time"][2])
        self.assertEqual({len(column) for column in rest.values()}, {len(rest["time"])})
        self.assertEqual(summary(query="?since=99999999999")["history"]["time"], [])

    # Not under the address sanitizer: nothing passes.
    # Not under the thread sanitizer: nothing passes.
    def test_a_probe_without_traffic_has_zeros(self):
        self.watched_probe()
        wait_until(lambda: len(summary()["history"]["time"]) >= 2, "two samples")
        found = summary()
        self.assertEqual(found["history"]["packets"][:2], [0, 0])
        self.assertEqual(found["totals"],
                         {"packets": 0, "bytes": 0, "flows": 0, "lost_packets": 0})
        self.assertEqual(found["top"]["talkers"]["entries"], [])

    # Not under the address sanitizer: it looks at the kernel's numbers.
    # Not under the thread sanitizer: it looks at the kernel's numbers.
    def test_the_process_is_described_as_prometheus_does(self):
        probe = self.watched_probe()
        found = scrape()
        with open(f"/proc/{probe.pid}/statm", encoding="ascii") as statm:
            size, resident = map(int, statm.read().split()[:2])
        self.assertAlmostEqual(found["process_virtual_memory_bytes"], size * 4096,
                               delta=64 << 20)
        self.assertAlmostEqual(found["process_resident_memory_bytes"], resident * 4096,
                               delta=64 << 20)
        self.assertAlmostEqual(found["process_start_time_seconds"], time.time(), delta=60)
        self.assertGreater(found["process_cpu_seconds_total"], 0)
        self.assertGreater(found["process_max_fds"], found["process_open_fds"])

    # Not under the address sanitizer: it looks at a text.
    # Not under the thread sanitizer: it looks at a text.
    def test_promtool_has_nothing_to_say(self):
        self.watched_probe(*netflow_v5(free_udp_port()))
        self.sender.send(*[v4(1000)] * 3)
        self.wait_for_packets(3)
        _, headers, text = ask("/metrics")
        self.assertEqual(headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        done = subprocess.run(["promtool", "check", "metrics"], input=text, check=False,
                              capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))

    def test_flows_by_the_thousand_keep_the_probe_and_the_summary_going(self):
        probe = self.watched_probe(options=("-t", "180:1"))
        frames = [ethernet(ipv4(udp(n % 60000 + 1, 53, bytes(4)), f"10.1.{n % 200}.{n // 200}", B))
                  for n in range(20_000)]
        heavy = [v4(7, "10.9.9.9", 1500)] * 400
        for first in range(0, len(frames), 500):  # no faster than the capture buffer is emptied
            self.sender.send(*frames[first:first + 500], *heavy[first // 50:first // 50 + 10])
            time.sleep(0.02)
        # The flow in the first slot of the cache, if there is one, stays there.
        wait_until(lambda: scrape().get("kestrelexp_handed_records_total", 0) >= 20_000,
                   "flows to age")
        wait_until(lambda: summary()["top"]["records"]
                   == scrape()["kestrelexp_handed_records_total"], "a sample")
        top = summary()["top"]
        first = top["talkers"]["entries"][0]
        self.assertEqual(first["address"], "10.9.9.9")
        self.assertLessEqual(first["bytes"], 600_000)
        self.assertGreaterEqual(first["bytes"] + top["talkers"]["error_bytes"], 600_000)
        self.assertGreater(top["talkers"]["error_bytes"], 0)
        self.assertLessEqual(top["talkers"]["error_bytes"], top["bytes"] / 256)
        probe.stop()
        Sum(probe.lines).check(self)


class Readiness(MetricsCase):
    def test_a_probe_that_works_is_ready(self):
        self.watched_probe()
        status, _, body = ask("/readyz")
        self.assertEqual((status, json.loads(body)), (200, {"ready": True, "not_ready": []}))
        self.assertEqual(ask("/healthz")[2], b"ok\n")

    def test_a_probe_that_starts_is_not_ready(self):
        ip(f"addr add 192.0.2.1/24 dev {SENDER}")  # nobody there answers
        probe = self.start_program("-v", "0", "-X", PLUGIN, "-I", f"pcap:device={PROBED}", "-E",
                                   "metrics:", *ipfix(4739, ",host=192.0.2.2,protocol=tcp"))
        probe.wait_for_line("Export: metrics OK")
        status, _, body = ask("/readyz")
        self.assertEqual((status, json.loads(body)), (503, {"ready": False, "not_ready": [
            {"kind": "program", "name": "kestrelexp", "reason": "it is starting"}]}))
        self.assertEqual(ask("/healthz")[0], 200)

    # Not under the address sanitizer: it waits for a drain.
    def test_a_probe_that_sends_its_last_flows_is_not_ready(self):
        probe = self.watched_probe(*ipfix(1, ",protocol=tcp,reconnect=background,drain=600"))
        self.sender.send(v4(1000))
        self.wait_for_packets(1)
        probe.signal(signal.SIGINT)
        wait_until(lambda: {"kind": "input", "name": "pcap", "reason": "no frames can be taken"}
                   in summary()["not_ready"], "an input that is closed")
        self.assertEqual(ask("/readyz")[0], 503)
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 42)

    def test_what_is_down_is_named(self):
        # An export of ours that says of itself that it is down, as those of the program do.
        self.watched_probe("-X", DOWN, "-E", "down")
        wait_until(lambda: summary()["exports"], "exports that the record loop has registered")
        status, headers, body = ask("/readyz")
        self.assertEqual((status, headers["Content-Type"]), (503, "application/json"))
        self.assertEqual(json.loads(body), {"ready": False, "not_ready": [
            {"kind": "export", "name": "down-0", "reason": "the export is not up"}]})
        self.assertIs(summary()["exports"][0]["up"], False)
        self.assertEqual(ask("/healthz")[0], 200)


if __name__ == "__main__":
    unittest.main()
