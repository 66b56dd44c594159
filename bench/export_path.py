#!/usr/bin/env python3
"""Processor time per record of the whole export path.

A capture file of flows of one packet each (TCP and UDP, two thirds IPv4, one third IPv6) is
replayed; each export sends the flows to a UDP socket of this script that reads and counts. Exports
take turns, so that a disturbance of the machine meets all of them. What is counted is user + system
time of all threads of the program; the null export's, which pays for the input, the queue, the ring
and the record loop, is subtracted, and the rest divided by the records that the export carries:
NetFlow v5 carries IPv4 alone. With the shipped template files.
"""

import argparse
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading

SO_RCVBUFFORCE = 33


class Sink(threading.Thread):
    """Reads datagrams until it is told to stop; counts them."""

    def __init__(self):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        except PermissionError:
            pass  # what does not fit is lost, which changes nothing for the sender
        self.socket.bind(("127.0.0.1", 0))
        self.socket.settimeout(0.2)
        self.port = self.socket.getsockname()[1]
        self.datagrams, self.stopping = 0, False

    def run(self):
        while not self.stopping:
            try:
                self.socket.recv(2048)
                self.datagrams += 1
            except TimeoutError:
                pass


def exports(port, etc):
    """Name, export argument, part of the flows that it carries."""
    to = f"host=127.0.0.1,port={port}"
    return [
        ("null", "null:", 1),
        ("netflow-v5", f"netflow-v5:{to}", 2 / 3),
        ("netflow-v9", f"netflow-v9:{to},template-file={etc}/nf9-template.txt", 1),
        ("ipfix", f"ipfix:{to},template_file={etc}/ipfix-template.txt", 1),
    ]


def make_capture(options, scratch):
    path = f"{scratch}/flows.pcap"
    count = str(options.records)
    subprocess.run([f"{options.build}/bench/bench_make_capture", path, count, count, "mixed"],
                   check=True)
    return path


def measure(options, capture, argument):
    """Processor seconds of one run, with start-up and end."""
    process = subprocess.Popen(
        [f"{options.build}/kestrelexp", "-X", f"{options.build}/extras/capture-file.so",
         "-q", str(options.queue), "-I", f"capture-file:file={capture}", "-E", argument],
        stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"kestrelexp ended with status {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", help="build directory (Release)")
    parser.add_argument("--records", type=int, default=2_000_000)
    parser.add_argument("--queue", type=int, default=16, help="-q: small enough to stay in a cache")
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    sink = Sink()
    sink.start()
    etc = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../etc")
    rows = exports(sink.port, etc)
    seconds = {name: [] for name, *_ in rows}
    with tempfile.TemporaryDirectory(prefix="kxbench-") as scratch:
        capture = make_capture(options, scratch)
        for _ in range(options.rounds):
            for name, argument, _ in rows:
                seconds[name].append(measure(options, capture, argument))
    null = statistics.median(seconds["null"])
    print(f"{options.records:,} flows, {options.rounds} rounds; medians")
    print(f"{'export':<12} {'whole, ns/flow':>14} {'export, ns/record':>18} "
          f"{'records per CPU second':>23}")
    for name, _, part in rows:
        whole = statistics.median(seconds[name])
        records = options.records * part
        alone = (whole - null) / records
        rate = "-" if name == "null" else f"{1 / alone:,.0f}"
        print(f"{name:<12} {whole / options.records * 1e9:14.0f} {alone * 1e9:18.0f} {rate:>23}")
    sink.stopping = True
    sink.join()


if __name__ == "__main__":
    main()
