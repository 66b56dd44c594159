#!/usr/bin/env python3
"""Processor time per packet of whole programs that read the same capture file.

The files are made by bench_make_capture, 60-byte frames of TCP and UDP flows in a random order
that repeats: few flows, many flows, a mix with IPv6 and VLAN tags. Programs take turns (A B C, A B
C, ...): the floor (bench_floor: a walk over the mapped file with our parser and one look-up), a
bare libpcap loop, kestrelexp, softflowd, nfpcapd. The files are in the page cache.

What is counted: user + system time of all threads of the program from its fork to its end, divided
by the packets of the file; start-up, the export of every flow at the end and what the kernel does
to deliver datagrams to the sink over loopback are in it. Memory is the greatest resident size (the
fork of this script alone counts about 17 MiB).

With --split the parts of kestrelexp's time, as differences of runs (null export unless said):
    start    a file without packets
    read     a file of as many frames that are no flow, less start: libpcap, the plugin, one look
    parse    a file of as many packets of 64 flows, less that: parser, key, an update in the cache
    update   the file itself, less that: cache misses, new flows, flows put out and taken
    export   NetFlow v5 instead of null
"""

import argparse
import os
import re
import shutil
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
from dataclasses import dataclass

TOTALS = re.compile(r"Input ended: (\d+) packets read, (\d+) in (\d+) flows, (\d+) no flow")
FEW_FLOWS = 64
FLOOR = "floor"


@dataclass
class Workload:
    title: str
    packets: int
    flows: int
    kind: str
    queue: str  # -q of kestrelexp


WORKLOADS = [
    Workload("1 M packets of 10,000 flows", 1_000_000, 10_000, "plain", "15"),
    Workload("4 M packets of 1,000,000 flows", 4_000_000, 1_000_000, "plain", "21"),
    Workload("2 M packets of 100,000 flows, a third IPv6, a third tagged", 2_000_000, 100_000,
             "mixed", "18"),
]


class Sink(threading.Thread):
    """Takes NetFlow v5 datagrams; the last one's sequence number tells how many flows were sent."""

    def __init__(self):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.flows = 0
        self.start()

    def run(self):
        while True:
            datagram = self.socket.recv(2048)
            self.flows = struct.unpack_from("!I", datagram, 16)[0] + datagram[3]


class Run:
    """One run to its end: processor time in us, memory in MiB, what it said."""

    def __init__(self, command, log):
        with open(log, "wb") as output:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=output)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
        with open(log, encoding="latin-1") as output:
            self.said = output.read()
        if process.returncode != 0:
            sys.exit(f"{' '.join(command)}\nended with status {process.returncode}:\n{self.said}")
        self.cpu_us = (usage.ru_utime + usage.ru_stime) * 1e6
        self.memory = usage.ru_maxrss / 1024


class Bench:
    def __init__(self, options, scratch):
        self.options, self.scratch, self.sink = options, scratch, Sink()
        self.log = f"{scratch}/log"

    def make(self, name, packets, flows, kind):
        path = f"{self.scratch}/{name}.pcap"
        subprocess.run([f"{self.options.build}/bench/bench_make_capture", path, str(packets),
                        str(flows), kind], check=True)
        return path

    def kestrelexp(self, path, queue, *export):
        build = self.options.build
        return [f"{build}/kestrelexp", "-v", "0", "-q", queue, "-X",
                f"{build}/extras/capture-file.so", "-I", f"capture-file:file={path}", "-E", *export]

    def netflow_v5(self):
        return f"netflow-v5:host=127.0.0.1,ip=4,port={self.sink.port}"

    def programs(self, path, work):
        """Name and command."""
        softflowd = ["softflowd", "-d", "-r", path, "-c", "none", "-6", "-m", str(2 * work.flows),
                     "-p", f"{self.scratch}/softflowd.pid"]
        found = [
            (FLOOR, [f"{self.options.build}/bench/bench_floor", "-r", path]),
            ("bare loop", [f"{self.options.build}/bench/bench_bare_pcap", "-r", path]),
            ("kestrelexp null", self.kestrelexp(path, work.queue, "null:")),
            ("kestrelexp v5", self.kestrelexp(path, work.queue, self.netflow_v5())),
            ("softflowd", softflowd),
            ("softflowd v5", [*softflowd, "-v", "5", "-n", f"127.0.0.1:{self.sink.port}"]),
            ("nfpcapd", ["nfpcapd", "-r", path, "-w", f"{self.scratch}/nfpcapd"]),
        ]
        return [(name, command) for name, command in found if shutil.which(command[0])]

    def measure(self, name, command):
        flows_dir = f"{self.scratch}/nfpcapd"
        shutil.rmtree(flows_dir, ignore_errors=True)
        os.mkdir(flows_dir)
        self.sink.flows = 0
        run = Run(command, self.log)
        if totals := TOTALS.search(run.said):
            run.flows = int(totals[3])
            if int(totals[1]) != int(totals[2]) + int(totals[4]):
                sys.exit(f"packets are missing: {totals[0]}")
        elif name == "nfpcapd":
            told = subprocess.run(["nfdump", "-R", flows_dir, "-I"], check=True,
                                  capture_output=True, text=True).stdout
            run.flows = sum(int(line.split()[1]) for line in told.splitlines()
                            if line.startswith("Flows:"))
        else:
            run.flows = self.sink.flows if name.endswith("v5") else None
        return run

    def compare(self, work):
        path = self.make("work", work.packets, work.flows, work.kind)
        programs = self.programs(path, work)
        runs = {name: [] for name, _ in programs}
        for _ in range(self.options.rounds):
            for name, command in programs:
                runs[name].append(self.measure(name, command))
        print(f"\n{work.title}, -q {work.queue}, {self.options.rounds} rounds; "
              "median us of CPU per packet (lowest to highest)")
        print(f"{'program':<16} {'CPU':>8} {'':<17} {'x floor':>8} {'x kestrelexp null':>17} "
              f"{'MiB':>6} {'flows out':>10}")
        floor, base = (statistics.median(run.cpu_us for run in runs[name]) / work.packets
                       for name in (FLOOR, "kestrelexp null"))
        for name, rows in runs.items():
            times = sorted(run.cpu_us / work.packets for run in rows)
            median = statistics.median(times)
            flows = "-" if rows[0].flows is None else f"{rows[0].flows:,}"
            print(f"{name:<16} {median:8.3f} ({times[0]:.3f} to {times[-1]:.3f}) "
                  f"{median / floor:8.2f} {median / base:17.2f} "
                  f"{max(run.memory for run in rows):6.0f} {flows:>10}", flush=True)

    def split(self, work):
        files = [self.make("empty", 1, 1, "other"),
                 self.make("other", work.packets, work.flows, "other"),
                 self.make("few", work.packets, FEW_FLOWS, work.kind),
                 self.make("work", work.packets, work.flows, work.kind)]
        commands = [self.kestrelexp(path, work.queue, "null:") for path in files]
        commands.append(self.kestrelexp(files[-1], work.queue, self.netflow_v5()))
        times = [[] for _ in commands]
        for _ in range(self.options.rounds):
            for command, kept in zip(commands, times):
                kept.append(Run(command, self.log).cpu_us / work.packets)
        medians = [0, *map(statistics.median, times)]
        parts = [after - before for before, after in zip(medians, medians[1:])]
        print(f"\n{work.title}: where kestrelexp's time goes, us per packet")
        print(" ".join(f"{name:>8}" for name in ("start", "read", "parse", "update", "export")))
        print(" ".join(f"{part:8.3f}" for part in parts), flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", help="build directory (Release)")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", type=int, nargs="+", help="numbers of workloads, from 1")
    parser.add_argument("--split", action="store_true", help="the parts of kestrelexp's time")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kxbench-") as scratch:
        bench = Bench(options, scratch)
        for number, work in enumerate(WORKLOADS, 1):
            if options.only is None or number in options.only:
                (bench.split if options.split else bench.compare)(work)


if __name__ == "__main__":
    main()
