"""Clients of the metrics plugin: requests, raw connections, and the text format as numbers."""

import http.client
import json
import os
import re
import socket
import subprocess

from testbed.case import E2eCase
from testbed.process import SLOWNESS, wait_until

PLUGIN = os.environ.get("KESTREL_METRICS", "metrics.so")
DOWN = os.environ.get("KESTREL_METRICS_DOWN", "metrics_down.so")
PORT = 9101
SAMPLE = re.compile(r'([a-zA-Z_:][\w:]*)(?:\{(.*)\})? (\S+)')


def ask(path, method="GET", port=PORT, address="127.0.0.1", headers=None, body=None):
    """Status, headers and body of one request."""
    connection = http.client.HTTPConnection(address, port, timeout=20 * SLOWNESS)
    try:
        connection.request(method, path, body=body, headers=headers or {})
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()
    finally:
        connection.close()


def summary(port=PORT, query=""):
    return json.loads(ask(f"/api/summary{query}", port=port)[2])


def scrape(port=PORT):
    """The samples of /metrics: {'name{labels}' or 'name': number}."""
    found = {}
    for line in ask("/metrics", port=port)[2].decode().splitlines():
        if not line.startswith("#"):
            name, labels, number = SAMPLE.fullmatch(line).groups()
            found[f"{name}{{{labels}}}" if labels else name] = float(number)
    return found


def raw_connection(port=PORT):
    return socket.create_connection(("127.0.0.1", port), timeout=20 * SLOWNESS)


def raw(data, port=PORT):
    """What the server answers to these bytes until it closes the connection."""
    received = b""
    with raw_connection(port) as client:
        try:
            client.sendall(data)
            client.shutdown(socket.SHUT_WR)
        except OSError:  # it has closed the connection before the end
            pass
        try:
            while piece := client.recv(65536):
                received += piece
        except ConnectionResetError:  # it closed with bytes of ours unread
            pass
    return received


def run(*command, **options):
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=60 * SLOWNESS, check=False, **options)


class MetricsCase(E2eCase):
    """A probe on a veth pair of its own, with the plugin."""

    def watched_probe(self, *exports, parameters="", options=(), **rest):
        return self.probe("-X", PLUGIN, *options, *exports, "-E", f"metrics:{parameters}",
                          source=rest.pop("source", None), **rest)

    def wait_for_packets(self, count, port=PORT):
        wait_until(lambda: scrape(port)['kestrelexp_capture_packets_total{input="pcap"}'] >= count,
                   f"{count} packets")
