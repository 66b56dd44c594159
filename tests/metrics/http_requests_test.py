"""The metrics plugin under requests, well-formed ones and others."""

# Not under the thread sanitizer: each is answered on one thread; http_test looks at the others.

import re
import unittest

from testbed.process import wait_until
from web import MetricsCase, ask, raw, raw_connection, run


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

    def threads_without_interrupt(self):
        """Names of the probe's threads that block SIGINT."""
        threads = {}
        for task in run("sh", "-c", f"cd /proc/{self.running.pid}/task && grep -H "
                        "'Name:\\|SigBlk:' */status").stdout.splitlines():
            thread, key, value = re.match(r"(\d+)/status:(\w+):\s*(\S+)", task).groups()
            threads.setdefault(thread, {})[key] = value
        interrupt = 1 << 1  # SIGINT is number 2
        return {thread["Name"] for thread in threads.values()
                if int(thread["SigBlk"], 16) & interrupt}

    def test_no_signal_is_left_to_the_plugins_threads(self):
        # A thread answers before it has taken its name.
        wait_until(lambda: {"metrics-sampler", "MHD-single"} <= self.threads_without_interrupt(),
                   "both threads of the plugin with SIGINT blocked")


if __name__ == "__main__":
    unittest.main()
