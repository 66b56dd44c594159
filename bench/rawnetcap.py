#!/usr/bin/env python3
"""Frames per CPU second of the whole program with the null export: the rawnetcap input on an
emulated ring, beside the pcap input on the same frames.

The pcap input watches a veth pair, as in whole_program.py, which brings the sender.
The rawnetcap input meets the emulator of the tests (tests/support/rawnetcap), which repeats the
sender's frames, at the same rate and then as fast as they are taken. Inputs take turns, so that a
disturbance of the machine meets all of them. Needs root.

What is counted: user + system time of all threads of the program, from just before the first frame
to 0.3 s after the last one. The emulator fills the ring on the program's own reader thread; the
time that this takes is measured by it and subtracted. So what a kernel does to bring a frame into
the ring is charged to neither input. Two things favour the ring: a batch has just been written by
the processor that reads it, and poll and ioctl cost no system call of their own. One is against it:
the frames that the emulator repeats take room in the caches.
"""

import os
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import whole_program
from testbed.network import PROBED, enter_private_network
from whole_program import PRIORITY, SETTLE_S, Program, live_parser, take_processors

RING_KIB = 4096
BATCH_MS = 10  # of frames at the rate: what comes within the inputs' time-out
FULL_SPEED_FRAMES = 10_000_000


class RingProgram:
    """The program on the emulated ring, which holds its frames back until they are let go."""

    def __init__(self, options, scratch, frames, count, rate):
        self.log, self.gate = f"{scratch}/ring.log", f"{scratch}/gate"
        for path in (self.log, self.gate):
            if os.path.exists(path):
                os.unlink(path)
        batch = max(1, options.rate * BATCH_MS // 1000)
        settings = {"LOG": self.log, "GATE": self.gate, "FRAMES": frames, "COUNT": count,
                    "RATE": rate, "RING": RING_KIB, "BATCH": batch}
        environment = dict(os.environ,
                           LD_PRELOAD=f"{options.build}/tests/support/rawnetcap_emulator.so")
        environment.update((f"RAWNETCAP_{name}", str(value)) for name, value in settings.items())

        def prepare():
            os.setpriority(os.PRIO_PROCESS, 0, PRIORITY)
            if options.pin:
                os.sched_setaffinity(0, {1})

        self.process = subprocess.Popen(
            [*command(options), "rawnetcap:device=eth0", "-E", "null:"], env=environment,
            stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=prepare)
        self.wait_for("ioctl ff05 = 0")

    def wait_for(self, beginning):
        for _ in range(2000):
            time.sleep(0.05)
            if os.path.exists(self.log):
                with open(self.log) as log:
                    for line in log:
                        if line.startswith(beginning):
                            return line
            if self.process.poll() is not None:
                break
        raise RuntimeError(f"no line {beginning!r} in the emulator's log")

    def cpu_ns(self):
        return time.clock_gettime_ns((~self.process.pid << 3) | 2)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


def command(options):
    return [f"{os.path.abspath(options.build)}/kestrelexp", "-v", "0", "-I"]


def measure_ring(options, scratch, frames, count, rate):
    running = RingProgram(options, scratch, frames, count, rate)
    try:
        time.sleep(0.5)
        before = running.cpu_ns()
        open(running.gate, "w").close()
        drained = re.match(r"drained (\d+) frames, \d+ wraps, (\d+) ns",
                           running.wait_for("drained"))
        time.sleep(SETTLE_S)
        used_ns = running.cpu_ns() - before - int(drained[2])
        running.process.send_signal(signal.SIGINT)
        if running.process.wait(60) != 0:
            sys.exit("the program did not end in order")
    finally:
        running.kill()
    return used_ns / int(drained[1]), int(drained[2]) / int(drained[1]), 0


def measure_pcap(options, scratch, flows):
    with open(f"{scratch}/pcap.log", "w") as log:
        running = Program([*command(options), f"pcap:device={PROBED}", "-E", "null:"],
                          signal.SIGINT, log, 1 if options.pin else None)
        try:
            time.sleep(0.5)
            running.captured()
            before = running.cpu_ns()
            sent = whole_program.send(options, flows)
            time.sleep(SETTLE_S)
            used_ns = running.cpu_ns() - before
            seen, dropped = running.captured()
            running.stop()
        finally:
            if running.process.returncode is None:
                running.process.kill()
    received = seen - dropped
    return used_ns / received, 0, sent - received


def report(options, flows, results):
    print(f"\n{flows:,} flows, {options.rate:,} frames/s for {options.seconds:g} s, "
          f"{options.rounds} rounds; median ns of CPU per frame (lowest to highest)")
    print(f"{'input':<24} {'ns':>7} {'':<20} {'frames per CPU s':>17} {'x pcap':>7} "
          f"{'subtracted':>11} {'lost':>7}")
    pcap = statistics.median(ns for ns, *_ in results["pcap"])
    for name, rows in results.items():
        times = sorted(ns for ns, *_ in rows)
        median = statistics.median(times)
        extent = f"({times[0]:.1f} to {times[-1]:.1f})"
        print(f"{name:<24} {median:7.1f} {extent:<20} {1e9 / median:17,.0f} {pcap / median:7.2f} "
              f"{statistics.median(own for _, own, _ in rows):11.1f} "
              f"{sum(lost for *_, lost in rows):7,}")


def main():
    options = live_parser(__doc__, rounds=5).parse_args()
    take_processors(options)
    count = int(options.rate * options.seconds)
    enter_private_network()
    with tempfile.TemporaryDirectory(prefix="kxbench-") as scratch:
        for flows in options.flows:
            frames = f"{scratch}/{flows}.pcap"
            subprocess.run([f"{options.build}/bench/bench_sender", frames, str(flows)], check=True)
            results = {"pcap": [], "rawnetcap": [], "rawnetcap, full speed": []}
            for _ in range(options.rounds):
                results["pcap"].append(measure_pcap(options, scratch, flows))
                results["rawnetcap"].append(
                    measure_ring(options, scratch, frames, count, options.rate))
                results["rawnetcap, full speed"].append(
                    measure_ring(options, scratch, frames, FULL_SPEED_FRAMES, 0))
            report(options, flows, results)


if __name__ == "__main__":
    main()
