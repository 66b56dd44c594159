"""The page in Chromium: what it shows, to whom, and what it asks for."""

# Not under the address sanitizer: what it looks at runs in the browser
# Not under the thread sanitizer: what it looks at runs in the browser

import itertools
import math
import os
import random
import threading
import time
import unittest
from pathlib import Path

from browser import DESK, PHONE, Browser
from web import DOWN, PORT, MetricsCase, scrape, summary
from testbed.frames import ACK, arp_request, ethernet, ipv4, ipv6, tcp, udp
from testbed.network import FrameSender
from testbed.preload import preloaded
from testbed.probe import netflow_v5
from testbed.process import wait_until

RECEIVED = 'kestrelexp_capture_packets_total{input="pcap"}'
SENT = 'kestrelexp_export_packets_total{export="%s"}'
LOST = 'kestrelexp_export_lost_packets_total{export="%s",reason="%s"}'
# Where a picture of the page is to be written: tests leave the tree as it is unless they are asked.
PICTURE = os.environ.get("KESTREL_PAGE_PICTURE")


def frame(number, size=100):
    """An IPv4 packet of so many bytes, one of twenty flows."""
    return ethernet(ipv4(udp(1000 + number % 20, 53, bytes(size - 28)), "10.0.0.1", "10.0.0.2"))


class PageCase(MetricsCase):
    def setUp(self):
        super().setUp()
        self.browser = Browser(self.directory())
        self.addCleanup(self.browser.close)
        self.browser.set_size(DESK)

    def keep_sending(self, frames, pause):
        """Sends lists of frames again and again until the test is over."""
        is_over = threading.Event()

        def send():
            sender = FrameSender()
            while not is_over.wait(pause):
                sender.send(*next(frames))
            sender.close()
        thread = threading.Thread(target=send)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(is_over.set)

    def assert_nothing_foreign(self):
        self.assertEqual(self.browser.errors(), [])
        asked = self.browser.requested()
        self.assertGreater(len(asked), 5)
        own = f"http://127.0.0.1:{PORT}/"
        self.assertEqual([address for address in asked
                          if not address.startswith((own, "data:"))], [])


class Numbers(PageCase):
    def test_live_numbers_equal_those_of_the_metrics(self):
        collector = self.collector()
        self.watched_probe("-S", "3", *netflow_v5(collector.port), "-E", "null",
                           options=("-t", "180:1"))
        self.browser.open()
        self.assertEqual(self.browser.number("road-capture"), 0)
        self.sender.send(*[frame(n) for n in range(400)], *[ethernet(arp_request())] * 5, *[
            ethernet(ipv6(udp(n, 53), "2001:db8::1", "2001:db8::2")) for n in range(30)])
        wait_until(lambda: scrape().get("kestrelexp_handed_packets_total") == 430, "flows to age")
        wait_until(lambda: self.browser.number("road-records") == 430, "the page to show it")
        self.browser.wait_for_updates(1)
        found = scrape()
        self.assertEqual(self.browser.number("road-capture"), 435)
        self.assertEqual(self.browser.number("road-capture"), found[RECEIVED])
        self.assertEqual(self.browser.number("road-parser"), 430)
        self.assertEqual(self.browser.number("road-cache"), found["kestrelexp_cache_packets_total"])
        for name in ("netflow-v5-0", "null-1"):
            self.assertEqual(self.browser.number(f"road-{name}"), found[SENT % name])
            self.assertEqual(self.browser.number(f"packets-{name}"), found[SENT % name])
        lost = int(found[LOST % ("netflow-v5-0", "ip_version")])
        self.assertGreater(lost, 0)
        self.assertEqual(int(self.browser.run(
            "return document.getElementById('total-lost').dataset.value")), lost)
        road = self.browser.text("#road")
        self.assertIn("5 left out: not IP", road)
        self.assertIn(f"{lost} lost: IP version", road)
        self.assertEqual(self.browser.text("#road li.bad h3"), "Sent by netflow-v5-0")
        self.assertEqual(self.browser.text("#state"), "ready")

    def test_losses_are_red_and_nothing_else_is(self):
        collector = self.collector()
        self.watched_probe(*netflow_v5(collector.port), options=("-t", "180:1"))
        self.sender.send(ethernet(ipv6(udp(1, 53), "2001:db8::1", "2001:db8::2")),
                         ethernet(arp_request()))
        self.browser.open()
        wait_until(lambda: "1 lost" in self.browser.text("#road"), "the page to show it")
        colour = ("const [r, g, b] = getComputedStyle(document.querySelector(arguments[0]))"
                  ".color.match(/\\d+/g).map(Number); return [r, g, b]")
        for scheme in ("light", "dark"):
            self.browser.set_scheme(scheme)
            red, green, blue = self.browser.run(colour, "#road li.lost")
            self.assertGreater(red, 1.5 * max(green, blue), scheme)
            red, green, blue = self.browser.run(colour, "#road li.left-out")
            self.assertLess(red, 1.2 * max(green, blue), scheme)

    def test_the_top_of_the_minute_is_shown(self):
        self.watched_probe(options=("-t", "180:1"))
        self.sender.send(*[frame(1, 1000)] * 6, *[
            ethernet(ipv6(tcp(50000, 443, ACK, bytes(940)), "2001:db8::1", "2001:db8::2"))] * 4)
        self.browser.open()
        wait_until(lambda: len(self.browser.rows("#talkers")) == 2, "the page to show it")
        self.assertEqual(self.browser.rows("#talkers"), [["10.0.0.1", "6.00 kB", "60 %"],
                                                         ["2001:db8::1", "4.00 kB", "40 %"]])
        self.assertEqual(self.browser.rows("#ports"), [["53/UDP dns", "6.00 kB", "60 %"],
                                                       ["443/TCP https", "4.00 kB", "40 %"]])
        self.assertEqual(self.browser.rows("#protocols"), [["UDP", "6.00 kB", "60 %"],
                                                           ["TCP", "4.00 kB", "40 %"]])
        self.assertIn("2 flows", self.browser.text("#top-hint"))
        self.assertIn("exact", self.browser.text("#top-hint"))
        self.assertIn(["inactive timeout", "2", "10"], self.browser.rows("#removed"))

    def test_an_export_that_is_down_is_said(self):
        self.watched_probe("-X", DOWN, "-E", "down")
        self.browser.open()
        self.assertEqual(self.browser.text("#state"), "not ready")
        self.assertEqual(self.browser.text("#notice"), "export down-0: the export is not up")
        row, own = self.browser.rows("#exports")
        self.assertEqual((row[0], row[1], row[6]), ("down-0", "down", "3"))
        self.assertEqual(own[0], "metrics-1 this page")
        self.assertEqual(self.browser.rows("#brokers"), [["7 of down-0", "up", "12.3 ms"],
                                                         ["8 of down-0", "down", "–"]])

    def test_the_charts_go_on_when_the_clock_is_set_back(self):
        ahead = self.directory() / "ahead"
        ahead.touch()
        self.watched_probe(env=preloaded(os.environ["KESTREL_JUMPING_CLOCK"], JUMPING_CLOCK=ahead))
        self.browser.open()
        self.browser.wait_for_updates(2)
        self.assertEqual(self.browser.text("#now-packets"), "0")
        ahead.unlink()
        self.keep_sending(itertools.repeat([frame(n) for n in range(20)]), 0.1)
        wait_until(lambda: self.browser.text("#now-packets") not in ("0", "–"),
                   "the page to show samples from after that")
        times = summary()["history"]["time"]
        self.assertEqual(times, sorted(times))
        self.assertLess(times[-1], time.time() + 10)

    def test_a_probe_that_has_ended_is_said(self):
        probe = self.watched_probe()
        self.browser.open()
        probe.stop()
        wait_until(lambda: self.browser.text("#state") == "no answer", "the page to notice")
        self.assertIn("No answer from the probe", self.browser.text("#notice"))


class Looks(PageCase):
    def test_it_asks_nobody_but_the_probe(self):
        self.watched_probe()
        self.browser.open()
        self.sender.send(*[frame(n) for n in range(50)])
        self.browser.wait_for_updates(3)
        self.assert_nothing_foreign()

    def test_without_traffic_it_shows_zeros(self):
        self.watched_probe()
        self.browser.open()
        self.browser.wait_for_updates(2)
        self.assertEqual([self.browser.text(f"#now-{field}")
                          for field in ("packets", "bits", "flows")], ["0", "0", "0"])
        self.assertEqual(self.browser.rows("#talkers"), [["no flow has ended"]])
        self.assertEqual(self.browser.text("#cache-fill"), "0 %")
        self.assert_nothing_foreign()

    def test_with_ten_thousand_flows_a_second_it_stays_live(self):
        self.watched_probe("-E", "null", options=("-t", "180:1"))
        self.browser.open()
        # Each of 30,000 flows is silent for three seconds before it comes again.
        frames = [ethernet(ipv4(udp(n % 200 + 1, 53), f"10.1.{n // 200}.1", "10.0.0.2"))
                  for n in range(30_000)]
        lists = itertools.cycle([frames[n:n + 200] for n in range(0, len(frames), 200)])
        self.keep_sending(lists, 0.02)
        # They leave in bursts, a few a second of the time that they are silent.
        wait_until(lambda: max(summary()["history"]["flows"], default=0) > 10_000,
                   "ten thousand flows a second", 40)
        before = time.monotonic()
        self.browser.wait_for_updates(5)
        self.assertLess(time.monotonic() - before, 15)
        self.assertGreater(self.browser.number("road-records"), 8000)
        self.assertIn("k", self.browser.text("#chart-flows output"))
        self.assert_nothing_foreign()

    def test_it_fits_a_phone_and_a_desk_in_the_light_and_in_the_dark(self):
        self.watched_probe(*netflow_v5(self.collector().port), "-E", "null",
                           options=("-t", "180:1"))
        self.sender.send(*[frame(n) for n in range(50)], ethernet(ipv6(
            udp(1, 53), "2001:db8:1111:2222:3333:4444:5555:6666", "2001:db8::2")))
        self.browser.open()
        wait_until(lambda: len(self.browser.rows("#talkers")) == 2, "the page to show it")
        grounds = set()
        for size in (PHONE, DESK):
            for scheme in ("light", "dark"):
                self.browser.set_size(size)
                self.browser.set_scheme(scheme)
                self.browser.wait_for_updates(1)
                with self.subTest(size=size, scheme=scheme):
                    self.assertEqual(self.browser.run(
                        "return [document.documentElement.scrollWidth, innerWidth]"),
                        [size[0], size[0]])
                    self.assertEqual(self.hidden_texts(), [])
                grounds.add(self.browser.run(
                    "return getComputedStyle(document.body).backgroundColor"))
        self.assertEqual(len(grounds), 2)

    def hidden_texts(self):
        """Texts whose colour is less than 4.5 times as light or dark as what is under them."""
        return self.browser.run("""
            const light = ([r, g, b]) => {
                const linear = (byte) => {
                    const c = byte / 255;
                    return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4;
                };
                return 0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
            };
            const numbers = (text) => text.match(/[\\d.]+/g).map(Number);
            const ground = (node) => {
                for (; node; node = node.parentElement) {
                    const colour = numbers(getComputedStyle(node).backgroundColor);
                    if (colour.length < 4 || colour[3] > 0) return colour;
                }
                return [255, 255, 255];
            };
            const found = [];
            for (const node of document.querySelectorAll("body *")) {
                const own = [...node.childNodes].some((child) =>
                    child.nodeType === Node.TEXT_NODE && child.data.trim());
                if (!own || !node.getClientRects().length || node.closest("noscript")) continue;
                const pair = [light(numbers(getComputedStyle(node).color)), light(ground(node))];
                const ratio = (Math.max(...pair) + 0.05) / (Math.min(...pair) + 0.05);
                if (ratio < 4.5) found.push(`${node.textContent} ${ratio.toFixed(2)}`);
            }
            return found;""")

    def test_keys_walk_through_a_chart_and_say_what_it_shows(self):
        self.watched_probe()
        self.browser.open()
        wait_until(lambda: len(summary()["history"]["time"]) >= 4, "some samples")
        self.browser.wait_for_updates(1)
        self.browser.run("document.querySelector('#chart-packets .plot').focus()")
        for _ in range(3):
            self.press("ArrowLeft")
        words = self.browser.text("#chart-packets output")
        self.assertRegex(words, r"\A\d\d:\d\d:\d\d: \d+ packets/s\Z")
        label = self.browser.run("return document.querySelector('#chart-packets .plot')"
                                 ".getAttribute('aria-label')")
        self.assertEqual(label, f"Packets per second: {words}")
        self.browser.wait_for_updates(2)
        self.assertEqual(self.browser.text("#chart-packets output"), words)
        self.press("Escape")
        self.assertTrue(self.browser.text("#chart-packets output").startswith("now "))

    def press(self, key):
        for kind in ("keyDown", "keyUp"):
            self.browser.command("Input.dispatchKeyEvent", type=kind, key=key, code=key)

    def test_a_page_that_is_opened_late_shows_the_past(self):
        self.watched_probe()
        self.sender.send(*[frame(n) for n in range(60)])
        wait_until(lambda: len(summary()["history"]["time"]) >= 5, "five samples")
        self.browser.open()
        self.assertIn("highest 60", self.browser.text("#chart-packets output"))



    def test_a_picture_of_it_at_work(self):
        """With KESTREL_PAGE_PICTURE=FILE the picture stays; KESTREL_PAGE_SECONDS of traffic."""
        collector = self.collector()
        self.watched_probe(*netflow_v5(collector.port), options=("-t", "180:5", "-q", "16"))
        self.keep_sending(self.day_in_short(), 0.05)
        self.browser.set_size((1280, 1790))
        self.browser.set_scheme("light")
        self.browser.open()
        end = time.monotonic() + float(os.environ.get("KESTREL_PAGE_SECONDS", "8"))
        while time.monotonic() < end:
            time.sleep(1)
            collector.drain()
        self.browser.wait_for_updates(1)
        picture = Path(PICTURE or self.directory() / "page.png")
        self.browser.picture(picture)
        self.assertTrue(picture.read_bytes().startswith(b"\x89PNG\r\n\x1a\n"))
        self.assertGreater(self.painted_share("#chart-packets canvas"), 0.001)

    def painted_share(self, selector):
        """The share of the pixels of a canvas on which there is something."""
        return self.browser.run("""
            const canvas = document.querySelector(arguments[0]);
            const { data } = canvas.getContext("2d").getImageData(
                0, 0, canvas.width, canvas.height);
            let painted = 0;
            for (let n = 3; n < data.length; n += 4) painted += data[n] > 0;
            return painted / (data.length / 4);""", selector)

    @staticmethod
    def day_in_short():
        """Clients of a few servers, now more of them, now fewer; names are asked for in between."""
        chance = random.Random(7)
        servers = [("192.0.2.10", 443, 1300), ("192.0.2.11", 443, 900), ("192.0.2.20", 22, 300),
                   ("198.51.100.5", 80, 1200), ("203.0.113.9", 5432, 700)]
        while True:
            load = 25 + 15 * math.sin(time.monotonic() / 40) + chance.uniform(-6, 6)
            frames = []
            for _ in range(int(load)):
                address, port, size = chance.choices(servers, (9, 5, 1, 3, 2))[0]
                client, own = f"10.0.{chance.randrange(3)}.{chance.randrange(1, 40)}", \
                    chance.randrange(32768, 60000)
                frames.append(ethernet(ipv4(tcp(own, port, ACK, bytes(60)), client, address)))
                frames += [ethernet(ipv4(tcp(port, own, ACK, bytes(chance.randrange(size))),
                                         address, client))] * 2
                if chance.random() < 0.3:
                    frames.append(ethernet(ipv4(udp(own, 53, bytes(40)), client, "192.0.2.53")))
            if chance.random() < 0.1:
                frames.append(ethernet(arp_request()))
                frames.append(ethernet(ipv6(udp(5353, 5353, bytes(90)), "2001:db8::7",
                                            "2001:db8::fb")))
            yield frames


if __name__ == "__main__":
    unittest.main()
