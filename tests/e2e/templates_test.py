"""IPFIX and NetFlow v9 with the shipped templates, as other programs of the field read them."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

import os
import re
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

from testbed.case import E2eCase
from testbed.frames import (ACK, SYN, ethernet, icmp, icmpv6, ipv4, ipv6, other, sctp, tcp, udp)
from testbed.network import free_udp_port
from testbed.process import SLOWNESS, WatchedProcess

TEMPLATES = Path(__file__).resolve().parents[2] / "etc"
A, B = "10.2.0.1", "198.51.100.7"
C, D = "2001:db8::1", "2001:db8:0:1::2"

# One flow for each of the eight templates, and how nfdump shows it:
# source, destination, protocol, ports (ICMP: type.code), tos, flags, packets, bytes, interfaces.
FLOWS = [
    ([ipv4(tcp(2001, 443, SYN), A, B, tos=8), ipv4(tcp(2001, 443, ACK, b"x" * 60), A, B, tos=8)],
     [A, B, "6", "2001", "443", "8", "...A..S.", "2", "140", "5", "6"]),
    ([ipv4(udp(2002, 53, b"y" * 9), A, B)],
     [A, B, "17", "2002", "53", "0", "........", "1", "37", "5", "6"]),
    ([ipv4(sctp(2003, 2905), A, B)],
     [A, B, "132", "2003", "2905", "0", "........", "1", "56", "5", "6"]),
    ([ipv4(icmp(3, 1), A, B)],
     [A, B, "1", "0", "3.1", "0", "........", "1", "36", "5", "6"]),
    ([ipv4(other(47, b"z" * 30), A, B, tos=4)],
     [A, B, "47", "0", "0", "4", "........", "1", "50", "5", "6"]),
    ([ipv6(tcp(2004, 443, SYN), C, D)],
     [C, D, "6", "2004", "443", "0", "......S.", "1", "60", "5", "6"]),
    ([ipv6(udp(2005, 53, b"y" * 9), C, D)],
     [C, D, "17", "2005", "53", "0", "........", "1", "57", "5", "6"]),
    ([ipv6(icmpv6(128, 0), C, D)],
     [C, D, "58", "0", "128.0", "0", "........", "1", "56", "5", "6"]),
    ([ipv6(other(47, b"z" * 30), C, D)],
     [C, D, "47", "0", "0", "0", "........", "1", "70", "5", "6"]),
]
FRAMES = [ethernet(packet) for packets, _ in FLOWS for packet in packets]
COLUMNS = "%sa|%da|%pr|%sp|%dp|%tos|%flg|%pkt|%byt|%in|%out"


def ipfix(port, options=""):
    return ("-N", "5", "-n", "6", "-E", f"ipfix:host=127.0.0.1,port={port},ip=4,"
            f"template_file={TEMPLATES}/ipfix-template.txt{options}")


def netflow_v9(port):
    return ("-N", "5", "-n", "6", "-E", f"netflow-v9:host=127.0.0.1,port={port},ip=4,"
            f"template-file={TEMPLATES}/nf9-template.txt")


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True,
                          text=True, stdin=subprocess.DEVNULL).stdout


class Templates(E2eCase):
    def watched(self, *command, line):
        process = WatchedProcess(command)
        self.addCleanup(process.kill)
        process.wait_for_line(line)
        return process

    def export(self, *arguments):
        probe = self.probe(*arguments)
        self.sender.send(*FRAMES)
        self.stop_in_order(probe)

    def check_nfdump(self, export):
        directory, port = self.directory(), free_udp_port()
        nfcapd = self.watched("nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", port,
                              "-t", "600", line="Startup")
        self.export(*export(port))
        nfcapd.signal(signal.SIGTERM)
        nfcapd.wait()
        totals = [[int(number) for number in re.findall(r": (\d+)", line)]
                  for line in nfcapd.lines if line.startswith("Ident: 'none'")]
        # Flows, packets, bytes, sequence errors, bad packets.
        self.assertEqual([sum(column) for column in zip(*totals)], [9, 10, 562, 0, 0])
        shown = run("nfdump", "-N", "-q", "-6", "-R", directory, "-o", f"fmt:{COLUMNS}|%ts|%te")
        rows = [[cell.strip() for cell in line.split("|")] for line in shown.splitlines()]
        self.assertEqual(sorted(row[:-2] for row in rows), sorted(row for _, row in FLOWS))
        for row in rows:
            for shown_time in row[-2:]:
                seconds = time.mktime(time.strptime(shown_time[:19], "%Y-%m-%d %H:%M:%S"))
                self.assertLess(abs(time.time() - seconds), 60 * SLOWNESS)

    def test_nfdump_shows_ipfix_flows(self):
        self.check_nfdump(ipfix)

    def test_nfdump_shows_netflow_v9_flows(self):
        self.check_nfdump(netflow_v9)

    def check_dissector(self, export, version):
        collector = self.collector_socket(socket.SOCK_DGRAM)
        port = collector.getsockname()[1]
        trace = self.directory() / "exports.pcap"
        dumpcap = self.watched("dumpcap", "-q", "-i", "lo", "-f", f"udp port {port}", "-w", trace,
                               line="File:")
        self.export(*export(port))
        packet = collector.recv(65536)
        deadline = time.monotonic() + 10
        while trace.stat().st_size < len(packet):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        dumpcap.signal(signal.SIGINT)
        dumpcap.wait()

        def tshark(*options):
            return run("tshark", "-n", "-r", trace, "-d", f"udp.port=={port},cflow",
                       *options).splitlines()

        self.assertEqual(tshark("-Y", "_ws.expert || _ws.malformed || !cflow"), [])
        fields = tshark("-T", "fields", "-e", "cflow.version", "-e", "cflow.template_field_count",
                        "-e", "cflow.octets", "-E", "aggregator=,")
        self.assertEqual(len(fields), 1)
        seen_version, field_counts, octets = fields[0].split("\t")
        self.assertEqual(seen_version, str(version))
        self.assertEqual(field_counts, "16,15,15,14,14,13,13,12")
        self.assertEqual(sorted(octets.split(",")), sorted(row[8] for _, row in FLOWS))

    def test_a_dissector_has_no_complaint_about_ipfix(self):
        self.check_dissector(ipfix, 10)

    def test_a_dissector_has_no_complaint_about_netflow_v9(self):
        self.check_dissector(netflow_v9, 9)

    def collector_socket(self, kind):
        collector = socket.socket(socket.AF_INET, kind)
        self.addCleanup(collector.close)
        collector.bind(("127.0.0.1", 0))
        return collector

    def test_ipfix_over_tcp_is_a_stream_of_messages(self):
        listener = self.collector_socket(socket.SOCK_STREAM)
        listener.listen()
        # Each record leaves in a message of its own: the estimate is never small enough for two.
        templates = self.directory() / "wide"
        templates.write_text("BEGIN-TEMPLATE\n" + "IPV6_SRC_ADDR=ZERO\n" * 70, encoding="ascii")
        self.export(*ipfix(listener.getsockname()[1], f",protocol=tcp,template_file={templates}"))
        connection, _ = listener.accept()
        stream = b""
        while part := connection.recv(65536):
            stream += part
        connection.close()
        seen = []
        while stream:
            version, length, _, sequence, domain = struct.unpack_from(">HHIII", stream)
            self.assertEqual((version, domain), (10, 0))
            seen.append((sequence, length))
            stream = stream[length:]
        self.assertEqual(stream, b"")
        # The first carries the templates (288 bytes) as well; each set has one record of 1120.
        self.assertEqual(seen, [(0, 16 + 288 + 1124)] + [(n, 16 + 1124) for n in range(1, 9)])

    def test_a_file_without_templates_ends_the_program(self):
        probe = self.probe("-E", f"ipfix:host=127.0.0.1,template_file={os.devnull}", ready=False)
        self.assertEqual(probe.wait(), 255)
        self.assertEqual(probe.lines[-1], "No templates found")
