"""A real Prometheus server scrapes the probe; promtool checks the alerts."""

# Not under the address sanitizer: what it looks at are Prometheus and its rules
# Not under the thread sanitizer: what it looks at are Prometheus and its rules

import json
import re
import unittest
import urllib.parse
from pathlib import Path

from web import PORT, MetricsCase, ask, run, scrape
from testbed.frames import ethernet, ipv4, udp
from testbed.network import free_udp_port
from testbed.process import WatchedProcess, wait_until

ROOT = Path(__file__).resolve().parents[2]
RULES = ROOT / "etc/prometheus/kestrelexp-alerts.yml"
CASES = ROOT / "tests/metrics/alerts.yml"
GUIDE = ROOT / "docs/monitoring.md"
SERVER_PORT = 9390
ALERT = re.compile(r"- alert: (\w+)")


class Prometheus(MetricsCase):
    def start_prometheus(self):
        """With the scrape configuration of the guide, but a look every second."""
        text, = re.findall(r"(?s)```yaml\n(.*?)```", GUIDE.read_text(encoding="utf-8"))
        text = text.replace("/etc/prometheus/kestrelexp-alerts.yml", str(RULES))
        directory = self.directory()
        configuration = directory / "prometheus.yml"
        configuration.write_text("global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
                                 + text, encoding="ascii")
        checked = run("promtool", "check", "config", str(configuration))
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        server = WatchedProcess(
            ["prometheus", f"--config.file={configuration}",
             f"--storage.tsdb.path={directory}/data", "--log.level=warn",
             f"--web.listen-address=127.0.0.1:{SERVER_PORT}"])
        self.addCleanup(server.kill)
        return server

    def answer(self, path):
        try:
            status, _, body = ask(path, port=SERVER_PORT)
        except OSError:
            return None
        return json.loads(body)["data"] if status == 200 else None

    def value(self, expression):
        found = self.answer("/api/v1/query?query=" + urllib.parse.quote(expression))
        return float(found["result"][0]["value"][1]) if found and found["result"] else None

    def test_it_scrapes_the_probe_and_answers_queries(self):
        self.watched_probe("-E", f"netflow-v5:host=127.0.0.1,port={free_udp_port()}")
        self.sender.send(*[ethernet(ipv4(udp(1000 + n, 53), "10.0.0.1", "10.0.0.2"))
                           for n in range(25)])
        server = self.start_prometheus()
        wait_until(lambda: self.value('sum(kestrelexp_capture_packets_total{input="pcap"})') == 25,
                   "the packets in an answer")
        self.assertEqual(self.value('up{job="kestrelexp"}'), 1)
        self.assertEqual(self.value("kestrelexp_cache_slots"), 2**19)
        self.assertGreater(self.value("process_resident_memory_bytes"), 1 << 20)
        target, = self.answer("/api/v1/targets")["activeTargets"]
        self.assertEqual((target["health"], target["lastError"]), ("up", ""))
        # Prometheus may add what it makes itself (scrape_...), and leaves nothing out.
        names = set(self.answer("/api/v1/label/__name__/values"))
        self.assertLessEqual({sample.partition("{")[0] for sample in scrape()}, names)
        rules = [rule["name"] for group in self.answer("/api/v1/rules")["groups"]
                 for rule in group["rules"]]
        self.assertEqual(rules, ALERT.findall(RULES.read_text(encoding="utf-8")))
        self.assertTrue(server.running)
        self.assertEqual(ask("/healthz", port=PORT)[0], 200)


class Alerts(unittest.TestCase):
    maxDiff = None

    def test_promtool_has_nothing_to_say_of_the_rules(self):
        done = run("promtool", "check", "rules", str(RULES))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"SUCCESS: \d+ rules found")

    def test_each_alert_fires_when_it_must_and_only_then(self):
        done = run("promtool", "test", "rules", str(CASES))
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_each_alert_has_both_cases_and_a_place_in_the_guide(self):
        alerts = ALERT.findall(RULES.read_text(encoding="utf-8"))
        self.assertGreater(len(alerts), 5)
        cases = re.findall(r"alertname: (\w+)\n +exp_alerts:( \[\])?",
                           CASES.read_text(encoding="utf-8"))
        headings = re.findall(r"(?m)^### (\w+)$", GUIDE.read_text(encoding="utf-8"))
        self.assertEqual(headings, alerts)
        for alert in alerts:
            self.assertEqual({is_silent for name, is_silent in cases if name == alert},
                             {"", " []"}, alert)


if __name__ == "__main__":
    unittest.main()
