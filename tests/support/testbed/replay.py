"""Runs the probe over capture files, with collectors on loopback. Needs no root."""

import os
import re
import socket
import tempfile
import threading
import unittest
from pathlib import Path

from testbed.probe import FLUSHED, Probe
from testbed.process import wait_until

SO_RCVBUFFORCE = 33  # asm-generic/socket.h

ROOT = Path(__file__).resolve().parents[3]
CAPTURES = ROOT / "tests" / "data" / "captures"
TOTALS = re.compile(r"VERBOSE: 0:Input ended: (\d+) packets read, (\d+) in (\d+) flows, "
                    r"(\d+) no flow$")


def make_room(receiver, size):
    """A large buffer where that is allowed, else as large as everybody may have one."""
    try:
        receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, size)
    except PermissionError:
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)


class DatagramCollector:
    """Takes the datagrams of one UDP port of loopback, in their order, while the probe runs."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        make_room(self._socket, 32 << 20)
        self._socket.bind(("127.0.0.1", 0))
        self._socket.settimeout(0.1)
        self.port = self._socket.getsockname()[1]
        self._datagrams = []
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            try:
                self._datagrams.append(self._socket.recv(65536))
            except TimeoutError:
                if self._ended.is_set():
                    return

    def wait_for_one(self, seconds=20):
        """Returns once a datagram has come."""
        wait_until(lambda: self._datagrams, "a datagram", seconds)

    def finish(self):
        """All datagrams; to be called when the probe has ended. The port is closed."""
        self._ended.set()
        self._thread.join()
        self._socket.close()
        return self._datagrams


class ReplayCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="kestrel-replay-")
        self.addCleanup(holder.cleanup)
        self.directory = Path(holder.name)

    def file(self, content, name="made.pcap"):
        path = self.directory / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def collector(self):
        collector = DatagramCollector()
        self.addCleanup(collector.finish)
        return collector

    def start(self, path, *arguments, options="", **process_options):
        """Starts the probe on a capture file. arguments: what follows the input."""
        return self.start_words("-I", f"capture-file:file={path}{options}", *arguments,
                                **process_options)

    def start_words(self, *words, verbosity=("-v", "0"), **process_options):
        probe = Probe(*verbosity, "-X", os.environ["KESTREL_CAPTURE_FILE"],
                      "-X", os.environ["KESTREL_FLOW_LINES"], *words, **process_options)
        self.addCleanup(probe.kill)
        return probe

    def replay(self, path, *arguments, timeout=60, status=0, **options):
        """Runs to the end, which has to be an orderly one; returns the probe."""
        probe = self.start(path, *arguments, **options)
        self.assertEqual(probe.wait(timeout), status, probe.describe())
        self.assertEqual(probe.lines[-1], FLUSHED, probe.describe())
        return probe

    def refused(self, path, *arguments, **options):
        """The lines of a start that has to fail with status 255."""
        return self.lines_of_refusal(self.start(path, *(arguments or ("-E", "null")), **options))

    def refused_words(self, *words):
        return self.lines_of_refusal(self.start_words(*words))

    def lines_of_refusal(self, probe):
        self.assertEqual(probe.wait(), 255, probe.describe())
        return probe.lines

    def export(self, path, kind, *arguments, export_options="", **options):
        """The datagrams that one export of a kind sends."""
        collector = self.collector()
        self.replay(path, *arguments, *self.export_words(kind, collector, export_options),
                    **options)
        return collector.finish()

    def export_words(self, kind, collector, options=""):
        templates = {"ipfix": f",template_file={ROOT}/etc/ipfix-template.txt",
                     "netflow-v9": f",template-file={ROOT}/etc/nf9-template.txt"}
        return ("-E", f"{kind}:host=127.0.0.1,ip=4,port={collector.port}"
                      f"{templates.get(kind, '')}{options}")

    def totals(self, probe):
        """(packets read, packets in flows, flows, no flow) of the closing line."""
        found = [match for line in probe.lines if (match := TOTALS.match(line))]
        self.assertEqual(len(found), 1, probe.describe())
        return tuple(map(int, found[0].groups()))
