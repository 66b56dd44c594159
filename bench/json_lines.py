#!/usr/bin/env python3
"""Processor time per record of JSON: the export json beside pmacctd's and nfdump's.

A capture file of flows of one packet each (TCP and UDP, two thirds IPv4, one third IPv6) is read by
each program, which writes a line of JSON for each flow to /dev/null; nfdump reads what nfpcapd has
made of the same file. They take turns, so that a disturbance of the machine meets all of them. What
is counted is user + system time of all threads and processes of a program, "whole". "json" is the
difference to a run that does all but that: the null export, nfdump's output "null"; pmacctd has no
such run. Programs that are not installed are left out.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

PMACCTD = """\
pcap_savefile: {capture}
pcap_savefile_wait: false
daemonize: false
plugins: print
aggregate: src_host,dst_host,src_port,dst_port,proto,tos,tcpflags,timestamp_start,timestamp_end
print_output: json
print_output_file: /dev/null
print_refresh_time: 3600
print_cache_entries: {cache}
plugin_buffer_size: 102400
plugin_pipe_size: 102400000
"""


def cpu_seconds(command):
    """Processor seconds of one run, its children included, with start-up and end."""
    before = os.times()
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, check=False)
    after = os.times()
    if done.returncode != 0:
        sys.exit(f"{command[0]} ended with status {done.returncode}")
    return (after.children_user - before.children_user +
            after.children_system - before.children_system)


def kestrelexp(options, capture, argument):
    return [f"{options.build}/kestrelexp", "-X", f"{options.build}/extras/capture-file.so", "-X",
            f"{options.build}/extras/json.so", "-q", str(options.queue), "-I",
            f"capture-file:file={capture}", "-E", argument]


def rows(options, capture, scratch):
    """Name, command, and the name of the run that does all but JSON."""
    found = [("null", kestrelexp(options, capture, "null:"), None)]
    for name, words in (("goflow2", ""), ("ecs", ",style=ecs")):
        found.append((f"json {name}", kestrelexp(
            options, capture, f"json:file=/dev/null{words}"), "null"))
    if shutil.which("nfpcapd") and shutil.which("nfdump"):
        flows = Path(scratch) / "nfdump"
        flows.mkdir()
        subprocess.run(["nfpcapd", "-r", capture, "-w", flows], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        found += [(f"nfdump {form}", ["nfdump", "-R", flows, "-q", "-o", form], other)
                  for form, other in (("null", None), ("json", "nfdump null"))]
    if shutil.which("pmacctd"):
        configuration = Path(scratch) / "pmacctd.conf"
        configuration.write_text(PMACCTD.format(capture=capture, cache=2 * options.records + 1),
                                 encoding="ascii")
        found.append(("pmacctd json", ["pmacctd", "-f", configuration], None))
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", help="build directory (Release)")
    parser.add_argument("--records", type=int, default=500_000)
    parser.add_argument("--queue", type=int, default=16, help="-q: small enough to stay in a cache")
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kxbench-") as scratch:
        capture = f"{scratch}/flows.pcap"
        count = str(options.records)
        subprocess.run([f"{options.build}/bench/bench_make_capture", capture, count, count,
                        "mixed"], check=True)
        measured = rows(options, capture, scratch)
        seconds = {name: [] for name, *_ in measured}
        for _ in range(options.rounds):
            for name, command, _ in measured:
                seconds[name].append(cpu_seconds(command))
    print(f"{options.records:,} flows, {options.rounds} rounds; medians")
    print(f"{'':<14} {'whole, ns/flow':>14} {'json, ns/flow':>14}")
    for name, _, other in measured:
        whole = statistics.median(seconds[name])
        alone = whole - statistics.median(seconds[other]) if other else None
        print(f"{name:<14} {whole / options.records * 1e9:14.0f} "
              f"{'-' if alone is None else f'{alone / options.records * 1e9:.0f}':>14}")


if __name__ == "__main__":
    main()
