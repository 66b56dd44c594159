"""The metrics plugin under HTTP clients, polite ones and others."""

import json
import re
import socket
import subprocess
import time
import unittest

from web import DOWN, PLUGIN, PORT, MetricsCase, ask, raw, raw_connection, run, scrape, summary
from testbed.accounts import Sum
from testbed.case import Case
from testbed.frames import arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.network import enter_quiet_network, free_udp_port
from testbed.probe import netflow_v5, run_to_its_end
from testbed.process import SLOWNESS, wait_until

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

    def test_a_probe_without_traffic_has_zeros(self):
        self.watched_probe()
        wait_until(lambda: len(summary()["history"]["time"]) >= 2, "two samples")
        found = summary()
        self.assertEqual(found["history"]["packets"][:2], [0, 0])
        self.assertEqual(found["totals"],
                         {"packets": 0, "bytes": 0, "flows": 0, "lost_packets": 0})
        self.assertEqual(found["top"]["talkers"]["entries"], [])

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


class Requests(MetricsCase):
    def setUp(self):
        super().setUp()
        self.running = self.watched_probe()

    def test_each_path_is_answered(self):
        for path, kind in (("/", "text/html"), ("/page.css", "text/css"),
                           ("/page.js", "text/javascript"), ("/charts.js", "text/javascript"),
                           ("/dygraph.js", "text/javascript"), ("/dygraph.css", "text/css"),
                           ("/icon.svg", "image/svg+xml"), ("/metrics", "text/plain"),
                           ("/healthz", "text/plain"), ("/readyz", "application/json"),
                           ("/api/summary", "application/json")):
            with self.subTest(path=path):
                status, headers, body = ask(path)
                self.assertEqual(status, 200)
                self.assertTrue(headers["Content-Type"].startswith(kind))
                self.assertEqual(int(headers["Content-Length"]), len(body))
                self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
                status, headers, body = ask(path, "HEAD")
                self.assertEqual((status, body), (200, b""))

    def test_other_paths_are_not_found(self):
        for path in ("/none", "/metrics/", "//", "/../../etc/passwd", "/%2e%2e/etc/passwd",
                     "/page.js%00", "/index.html", "/METRICS"):
            with self.subTest(path=path):
                self.assertEqual(ask(path)[0], 404)
                self.assertEqual(ask(path, "POST", body=b"a" * 5000)[0], 404)

    def test_other_methods_are_refused(self):
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "TRACE", "PATCH", "BREW"):
            with self.subTest(method=method):
                status, headers, _ = ask("/metrics", method)
                self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD"))

    def test_a_request_with_a_body_is_refused(self):
        self.assertEqual(ask("/metrics", body=b"a" * 100)[0], 413)
        self.assertTrue(raw(b"GET /metrics HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n"
                            b"\r\n5\r\nhello\r\n0\r\n\r\n").startswith(b"HTTP/1.1 413 "))

    def test_a_time_that_is_none_is_refused(self):
        for text in ("x", "-1", "nan", "", "1e999"):
            self.assertEqual(ask(f"/api/summary?since={text}")[0], 400, text)

    def test_long_requests_are_refused(self):
        answer = raw(b"GET /" + b"a" * 100_000 + b" HTTP/1.1\r\nHost: a\r\n\r\n")
        self.assertRegex(answer, rb"\A(HTTP/1.1 (414|431|400) |\Z)")
        headers = b"".join(b"X-%d: %s\r\n" % (n, b"y" * 100) for n in range(1000))
        answer = raw(b"GET /metrics HTTP/1.1\r\nHost: a\r\n" + headers + b"\r\n")
        self.assertRegex(answer, rb"\A(HTTP/1.1 (431|413|400) |\Z)")
        self.assertEqual(ask("/healthz")[0], 200)

    def test_malformed_requests_are_refused(self):
        for data in (b"\r\n\r\n\r\n\r\n", b"\0\0\0\0\r\n\r\n", b"GET\r\n\r\n",
                     b"GET /metrics\r\n\r\n", b"GET /metrics HTTP/9.9\r\n\r\n",
                     b"GET /metrics HTTP/1.1\r\n\r\n",  # without a host
                     b"GET /metrics HTTP/1.1\r\nHost\r\n\r\n",
                     b"GET /metrics HTTP/1.1\r\nHost: a\r\nContent-Length: -5\r\n\r\n",
                     b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" * 50,  # TLS
                     bytes(range(256)) * 10):
            with self.subTest(data=data[:40]):
                self.assertNotIn(b" 200 OK", raw(data)[:20])
        self.assertEqual(ask("/healthz")[0], 200)
        self.assertTrue(self.running.running)

    def test_one_connection_takes_many_requests(self):
        with raw_connection() as client:
            for _ in range(5):
                client.sendall(b"GET /healthz HTTP/1.1\r\nHost: a\r\n\r\n")
                answer = client.recv(65536)
                self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"), answer)
                self.assertTrue(answer.endswith(b"\r\n\r\nok\n"), answer)

    def test_no_signal_is_left_to_the_plugins_threads(self):
        blocked = {}
        for task in run("sh", "-c", f"cd /proc/{self.running.pid}/task && grep -H "
                        "'Name:\\|SigBlk:' */status").stdout.splitlines():
            thread, key, value = re.match(r"(\d+)/status:(\w+):\s*(\S+)", task).groups()
            blocked.setdefault(thread, {})[key] = value
        interrupt = 1 << 1  # SIGINT is number 2
        names = {thread["Name"] for thread in blocked.values()
                 if int(thread["SigBlk"], 16) & interrupt}
        self.assertIn("metrics-sampler", names)
        self.assertIn("MHD-single", names)


class Readiness(MetricsCase):
    def test_a_probe_that_works_is_ready(self):
        self.watched_probe()
        status, _, body = ask("/readyz")
        self.assertEqual((status, json.loads(body)), (200, {"ready": True, "not_ready": []}))
        self.assertEqual(ask("/healthz")[2], b"ok\n")

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


class Crowds(MetricsCase):
    def test_more_than_64_connections_wait(self):
        self.watched_probe()
        clients = [raw_connection() for _ in range(64)]
        for client in clients:
            self.addCleanup(client.close)
            client.sendall(b"GET /healthz HTTP/1.1\r\nHost: a\r\n\r\n")
            self.assertTrue(client.recv(65536).startswith(b"HTTP/1.1 200 OK"))
        surplus = raw_connection()
        self.addCleanup(surplus.close)
        surplus.settimeout(1)
        surplus.sendall(b"GET /healthz HTTP/1.1\r\nHost: a\r\n\r\n")
        try:
            self.assertEqual(surplus.recv(65536), b"")
        except (TimeoutError, ConnectionResetError):
            pass
        clients[0].close()
        wait_until(is_answered, "a free place")

    def test_who_says_nothing_is_cut_off(self):
        self.watched_probe()
        with raw_connection() as client:
            client.sendall(b"GET /metr")
            began = time.monotonic()
            self.assertLess(len(client.recv(65536)), 600)  # at most an error
            self.assertGreater(time.monotonic() - began, 5)
        self.assertEqual(ask("/healthz")[0], 200)

    def test_who_reads_nothing_is_cut_off(self):
        self.watched_probe()
        with socket.socket() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            client.connect(("127.0.0.1", PORT))
            client.sendall(b"GET /dygraph.js HTTP/1.1\r\nHost: a\r\n\r\n" * 100)
            wait_until(lambda: server_connections() == 0, "the end of the connection", 25)
        self.assertEqual(ask("/healthz")[0], 200)

    def test_who_sends_a_byte_now_and_then_is_cut_off(self):
        self.watched_probe()
        with raw_connection() as client:
            began = time.monotonic()
            with self.assertRaises((BrokenPipeError, ConnectionResetError)):
                while time.monotonic() - began < 60 * SLOWNESS:
                    client.sendall(b"G")
                    time.sleep(0.5)
            self.assertGreater(time.monotonic() - began, 25)


def is_answered():
    try:
        return ask("/healthz")[0] == 200
    except OSError:
        return False


def server_connections():
    """Connections of the server that are open and have not been closed by the client."""
    shown = run("ss", "-Htn", "state", "established", "sport", "=", f":{PORT}").stdout
    return len(shown.splitlines())


class Start(Case):
    def setUp(self):
        enter_quiet_network()

    def refused(self, parameters):
        status, _, messages = run_to_its_end("-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                             f"metrics:{parameters}")
        self.assertEqual((status, messages[1:]), (255, ["Export: metrics ERROR"]))
        return messages[0]

    def test_a_port_in_use_ends_the_start(self):
        with socket.create_server(("127.0.0.1", PORT)):
            self.assertEqual(
                self.refused(""),
                "metrics: cannot listen on 127.0.0.1:9101: Address already in use. Choose another "
                "port=, or end the program that has it (ss -ltnp shows which)")

    def test_an_address_of_another_machine_ends_the_start(self):
        self.assertEqual(
            self.refused("address=192.0.2.77,port=9200"),
            "metrics: cannot listen on 192.0.2.77:9200: Cannot assign requested address. Choose "
            "an address= of this machine (ip address shows them)")

    def test_a_bad_port_or_address_ends_the_start(self):
        for port in ("0", "65536", "-1", "x", "80x"):
            self.assertEqual(self.refused(f"port={port}"), f"metrics: port={port} is no port. "
                             "Choose a number from 1 to 65535")
        self.assertEqual(self.refused("address=localhost"),
                         "metrics: address=localhost is no IPv4 or IPv6 address. Name one of this "
                         "machine in digits, such as 127.0.0.1 or ::1")

    def test_ipv6_addresses_are_taken(self):
        probe = self.start_program("-v", "0", "-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                   "metrics:address=::1,port=9300")
        probe.wait_for_line("metrics: http://[::1]:9300/")
        self.assertEqual(ask("/healthz", port=9300, address="::1")[0], 200)
        self.assertEqual(probe.stop(), 0)

    def test_two_probes_live_side_by_side(self):
        probes = [self.start_program("-v", "0", "-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                     f"metrics:port={port}") for port in (9301, 9302)]
        for probe, port in zip(probes, (9301, 9302)):
            probe.wait_for_line("Kestrel OK")
            self.assertEqual(ask("/readyz", port=port)[0], 200)
        self.assertEqual(probes[0].stop(), 0)
        self.assertEqual(ask("/readyz", port=9302)[0], 200)
        self.assertEqual(probes[1].stop(), 0)


if __name__ == "__main__":
    unittest.main()
