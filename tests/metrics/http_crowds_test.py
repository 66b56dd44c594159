"""The metrics plugin under too many clients and slow ones."""

import socket
import time
import unittest

from web import PORT, MetricsCase, ask, raw_connection, run
from testbed.process import SLOWNESS, wait_until


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
        surplus.close()  # or it would be the next to have a place
        clients[0].close()
        wait_until(is_answered, "a free place")

    # Not under the address sanitizer: it waits for the library's clock.
    # Not under the thread sanitizer: it waits for the library's clock.
    def test_who_says_nothing_is_cut_off(self):
        self.watched_probe()
        with raw_connection() as client:
            client.sendall(b"GET /metr")
            began = time.monotonic()
            self.assertLess(len(client.recv(65536)), 600)  # at most an error
            self.assertGreater(time.monotonic() - began, 5)
        self.assertEqual(ask("/healthz")[0], 200)

    # Not under the address sanitizer: it waits for the library's clock.
    # Not under the thread sanitizer: it waits for the library's clock.
    def test_who_reads_nothing_is_cut_off(self):
        self.watched_probe()
        with socket.socket() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            client.connect(("127.0.0.1", PORT))
            client.sendall(b"GET /dygraph.js HTTP/1.1\r\nHost: a\r\n\r\n" * 100)
            wait_until(lambda: server_connections() == 0, "the end of the connection", 25)
        self.assertEqual(ask("/healthz")[0], 200)

    # Not under the address sanitizer: it waits for the library's clock.
    # Not under the thread sanitizer: it waits for the library's clock.
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


if __name__ == "__main__":
    unittest.main()
