#!/usr/bin/env python3
"""Processor time per packet of whole programs that watch the same interface.

A sender puts 60-byte frames of many flows into one end of a veth pair; one program at a time
watches the other end: a bare libpcap loop, kestrelexp, softflowd, fprobe, nfpcapd. Programs take
turns (A B C D, A B C D, ...), so that a disturbance of the machine meets all of them. The pair is
in a network namespace of this script and its children, which goes with them (so: as root).

What is counted: user + system time of all threads of the program, by the process's own CPU clock.
    traffic  from just before the first frame to 0.3 s after the last one
    life     from the fork to the end, with start-up and the export of every flow at the end
Nothing is subtracted. The sender has one processor and the program under test another, so the
kernel's work for a frame on its way through the pair (softirq, filter, copy into the capture ring)
is charged to the sender, for every program alike; the program pays for its wake-ups and for what it
does with the ring. What the kernel does to deliver an exported datagram to the sink over loopback
is charged to the program that sends it.

Loss is looked for in three places: frames that the sender sent and the interface did not see, and
frames that the program's capture ring had no room for, both in "lost" (kestrelexp tells in the sum
at its end how many it received, the floor prints it; of the others the socket is asked with
PACKET_STATISTICS); and packets that did not come out as flows (the sum of the NetFlow v5 records),
in "not exported".
"""

import argparse
import ctypes
import os
import re
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../tests/support"))
from testbed.network import PROBED, SENDER, enter_private_network, udp_receiver  # noqa: E402

SINK_PORT = 29995
SETTLE_S = 0.3
PRIORITY = -10  # of sender and program alike: other work on the machine must not make them lose
SYS_PIDFD_OPEN, SYS_PIDFD_GETFD = 434, 438
SOL_PACKET, PACKET_STATISTICS = 263, 6

libc = ctypes.CDLL(None, use_errno=True)


class Sink(threading.Thread):
    """Takes NetFlow v5 datagrams at a port of loopback and adds up what they tell."""

    def __init__(self):
        super().__init__(daemon=True)
        self.datagrams, self.stopping = [], False
        self.socket = udp_receiver(port=SINK_PORT)
        self.socket.settimeout(0.2)
        self.start()

    def run(self):
        with self.socket as sink:
            while True:
                try:
                    self.datagrams.append(sink.recv(2048))
                except TimeoutError:
                    if self.stopping:
                        return

    def sums(self):
        """Flow records and packets, once nothing more comes."""
        self.stopping = True
        self.join()
        flows = packets = 0
        for datagram in self.datagrams:
            version, count = struct.unpack_from("!HH", datagram)
            if version != 5 or len(datagram) < 24 + 48 * count:
                sys.exit("the sink received something that is not NetFlow v5")
            flows += count
            for record in range(count):
                packets += struct.unpack_from("!I", datagram, 24 + 48 * record + 16)[0]
        return flows, packets


class Program:
    """One program under test, running on its own processor."""

    def __init__(self, command, ending, log, cpu):
        def prepare():
            os.setpriority(os.PRIO_PROCESS, 0, PRIORITY)
            if cpu is not None:
                os.sched_setaffinity(0, {cpu})

        self.ending = ending
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                        preexec_fn=prepare)
        self.pid = self.process.pid
        try:
            self.capture = self.capture_socket()
        except BaseException:
            self.process.kill()
            self.process.wait()
            raise

    def capture_socket(self):
        """A duplicate of the program's packet socket, once it has one."""
        for _ in range(600):  # making a big queue takes seconds
            time.sleep(0.05)
            if self.process.poll() is not None:
                raise RuntimeError(f"{self.process.args[0]} ended at once")
            descriptor = self.find_capture_descriptor()
            if descriptor is not None:
                pidfd = libc.syscall(SYS_PIDFD_OPEN, self.pid, 0)
                copy = libc.syscall(SYS_PIDFD_GETFD, pidfd, descriptor, 0)
                os.close(pidfd)
                if copy < 0:
                    raise OSError(ctypes.get_errno(), "pidfd_getfd")
                return socket.socket(fileno=copy)
        raise RuntimeError(f"{self.process.args[0]} does not capture")

    def find_capture_descriptor(self):
        with open(f"/proc/{self.pid}/net/packet") as table:
            inodes = {line.split()[-1] for line in table.readlines()[1:]}
        for descriptor in os.listdir(f"/proc/{self.pid}/fd"):
            try:
                target = os.readlink(f"/proc/{self.pid}/fd/{descriptor}")
            except FileNotFoundError:
                continue
            if target.startswith("socket:[") and target[8:-1] in inodes:
                return int(descriptor)
        return None

    def cpu_ns(self):
        return time.clock_gettime_ns((~self.pid << 3) | 2)  # the process's CPU clock

    def captured(self):
        """Frames that came to the socket since the last call, and those it had no room for."""
        return struct.unpack_from("II", self.capture.getsockopt(SOL_PACKET, PACKET_STATISTICS, 12))

    def stop(self):
        """Ends the program in its orderly way; returns what it used in its whole life."""
        self.capture.close()
        if isinstance(self.ending, signal.Signals):
            self.process.send_signal(self.ending)
        else:
            subprocess.run(self.ending, check=True, stdout=subprocess.DEVNULL)
        for _ in range(600):
            pid, status, usage = os.wait4(self.pid, os.WNOHANG)
            if pid:
                self.process.returncode = os.waitstatus_to_exitcode(status)
                return usage
            time.sleep(0.05)
        self.process.kill()
        raise RuntimeError(f"{self.process.args[0]} did not stop")


def programs(options, scratch):
    """Name, command, signal or command that ends it, whether it exports NetFlow v5."""
    build, most = options.build, str(2 * max(options.flows))
    kestrelexp = options.kestrelexp or f"{build}/kestrelexp"
    sink = f"127.0.0.1:{SINK_PORT}"
    queue = ["-q", options.queue] if options.queue else []
    pcap = [kestrelexp, "-v", "0", *queue, "-I", f"pcap:device={PROBED}", "-E"]
    lanes = [kestrelexp, "-v", "0", *queue, "-X", f"{build}/extras/af-packet.so", "-I"]
    ring = f"af-packet:device={PROBED}"
    null, v5 = ["-E", "null:"], ["-E", f"netflow-v5:host=127.0.0.1,port={SINK_PORT}"]
    return [
        ("floor", [f"{build}/bench/bench_floor", PROBED], signal.SIGINT, False),
        ("floor, gathers", [f"{build}/bench/bench_floor", "-g", PROBED], signal.SIGINT, False),
        ("floor, walk only", [f"{build}/bench/bench_floor", "-w", PROBED], signal.SIGINT, False),
        ("lane null", [*lanes, ring, *null], signal.SIGINT, False),
        ("lane v5", [*lanes, ring, *v5], signal.SIGINT, True),
        ("two lanes null", [*lanes, f"{ring},lanes=2", *null], signal.SIGINT, False),
        ("bare loop", [f"{build}/bench/bench_bare_pcap", PROBED], signal.SIGINT, False),
        ("kestrelexp null", [*pcap, "null:"], signal.SIGINT, False),
        ("kestrelexp v5", [*pcap, f"netflow-v5:host=127.0.0.1,port={SINK_PORT}"],
         signal.SIGINT, True),
        ("softflowd", ["softflowd", "-d", "-i", PROBED, "-n", sink, "-m", most,
                       "-p", f"{scratch}/softflowd.pid", "-c", f"{scratch}/softflowd.ctl"],
         ["softflowctl", "-c", f"{scratch}/softflowd.ctl", "shutdown"], True),  # -d: no signals
        # -l 2 logs to standard output and stays in the foreground; queue and buffer as its manual
        # recommends for heavy load.
        ("fprobe", ["fprobe", "-i", PROBED, "-f", "ip", "-q", "10000", "-B", "4096", "-l", "2",
                    sink], signal.SIGTERM, True),
        # Writes its flows to a file: it has no NetFlow v5.
        ("nfpcapd", ["nfpcapd", "-i", PROBED, "-s", "96", "-w", scratch], signal.SIGTERM, False),
    ]


def send(options, flows):
    """Runs the sender to its end; returns the frames that it sent."""
    def prepare():
        os.setpriority(os.PRIO_PROCESS, 0, PRIORITY)
        if options.pin:
            os.sched_setaffinity(0, {0})

    done = subprocess.run([f"{options.build}/bench/bench_sender", SENDER, str(flows),
                           str(options.rate), str(options.seconds)],
                          preexec_fn=prepare, check=True, capture_output=True, text=True)
    return int(done.stdout.split()[0])


def told_received(path):
    """Frames that a program of ours says it has received, at its end; None for others."""
    with open(path) as log:
        text = log.read()
    found = re.search(r"kestrelexp_capture_packets_total\S* (\d+)$|^(\d+) \d+$", text, re.M)
    return int(found[1] or found[2]) if found else None


def measure(options, scratch, program, flows):
    """One program, one number of flows, one time."""
    name, command, ending, exports = program
    sink = Sink()
    log_path = f"{scratch}/{name.replace(' ', '-')}.log"
    with open(log_path, "w") as log:
        running = Program(command, ending, log, 1 if options.pin else None)
        try:
            time.sleep(0.5)
            running.captured()  # from here on
            before = running.cpu_ns()
            sent = send(options, flows)
            time.sleep(SETTLE_S)
            traffic_ns = running.cpu_ns() - before
            seen, dropped = running.captured()
            usage = running.stop()
        finally:
            if running.process.returncode is None:
                running.process.kill()
    out_flows, out_packets = sink.sums()
    received = told_received(log_path) or seen - dropped
    if not received:
        sys.exit(f"{name} received nothing, see {scratch}")
    return {
        "traffic": traffic_ns / 1000 / received,
        "life": (usage.ru_utime + usage.ru_stime) * 1e6 / received,
        "memory": usage.ru_maxrss / 1024,
        "sent": sent,
        "lost": sent - received,
        "missing": received - out_packets if exports else 0,
        "flows": out_flows if exports else None,
    }


def report(options, flows, results):
    """The table of one number of flows: medians over the rounds, and ratios to kestrelexp."""
    print(f"\n{flows:,} flows, {options.rate:,} packets/s for {options.seconds:g} s, "
          f"{options.rounds} rounds; median us of CPU per packet (lowest to highest)")
    print(f"{'program':<16} {'traffic':>8} {'':<17} {'x bare':>6} {'life':>8} {'lost':>8} "
          f"{'not exported':>13} {'flows out':>10} {'MiB':>6}")
    bare = statistics.median(r["traffic"] for r in results["bare loop"])
    for name, rows in results.items():
        traffic = sorted(r["traffic"] for r in rows)
        median = statistics.median(traffic)
        flows_out = "-" if rows[0]["flows"] is None else \
            f"{int(statistics.median(r['flows'] for r in rows)):,}"
        missing = "-" if rows[0]["flows"] is None else f"{sum(r['missing'] for r in rows):,}"
        print(f"{name:<16} {median:8.3f} ({traffic[0]:.3f} to {traffic[-1]:.3f}) "
              f"{median / bare:6.1f} {statistics.median(r['life'] for r in rows):8.3f} "
              f"{sum(r['lost'] for r in rows):8,} {missing:>13} {flows_out:>10} "
              f"{max(r['memory'] for r in rows):6.0f}")
    print(f"sent to each: {sum(r['sent'] for r in rows):,} packets")


def live_parser(description, rounds):
    """The options of every measurement on live traffic."""
    parser = argparse.ArgumentParser(description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", help="build directory (Release)")
    parser.add_argument("--flows", type=int, nargs="+", default=[10_000, 200_000])
    parser.add_argument("--rate", type=int, default=250_000, help="packets per second")
    parser.add_argument("--seconds", type=float, default=6)
    parser.add_argument("--rounds", type=int, default=rounds)
    parser.add_argument("--no-pin", dest="pin", action="store_false",
                        help="leave the choice of processors to the kernel")
    return parser


def take_processors(options):
    """This script and its sink stay with the sender."""
    if os.geteuid() != 0:
        sys.exit("needs root: it makes a network namespace")
    if options.pin and len(os.sched_getaffinity(0)) < 2:
        sys.exit("needs two processors")
    if options.pin:
        os.sched_setaffinity(0, {0})


def arguments():
    parser = live_parser(__doc__, rounds=3)
    parser.add_argument("--kestrelexp", help="another program file")
    parser.add_argument("--queue", help="its -q, default its own default")
    parser.add_argument("--only", nargs="+", help="beginnings of the names of programs to run")
    return parser.parse_args()


def main():
    options = arguments()
    take_processors(options)
    enter_private_network()
    with tempfile.TemporaryDirectory(prefix="kxbench-") as scratch:
        chosen = []
        for program in programs(options, scratch):
            if options.only and not any(program[0].startswith(o) for o in options.only + ["bare"]):
                continue
            if not shutil.which(program[1][0]):
                print(f"{program[0]}: {program[1][0]} is not there, left out")
                continue
            chosen.append(program)
        for flows in options.flows:
            results = {name: [] for name, *_ in chosen}
            for _ in range(options.rounds):
                for program in chosen:
                    results[program[0]].append(measure(options, scratch, program, flows))
            report(options, flows, results)


if __name__ == "__main__":
    main()
