"""100,002 flows over many template refreshes: other programs' collectors end with the sums that the
input delivered. Runs alone on the machine, so that a datagram lost is one that the probe lost."""

# Runs alone: a frame that is lost is to be one that the probe lost.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import ipaddress
import os
import re
import signal
import subprocess
from collections import Counter
from pathlib import Path

from testbed.case import E2eCase
from testbed.network import free_udp_port
from testbed.process import WatchedProcess

TEMPLATES = Path(__file__).resolve().parents[2] / "etc"
COUNT = 100_002
REFRESH_PACKETS = 50
DELIVERED = "many_flows: delivered"
KINDS = ((4, 6), (4, 17), (4, 1), (6, 6), (6, 17), (6, 58))  # IP version, protocol
NAMED_PROTOCOLS = {"tcp": 6, "udp": 17, "icmp": 1, "ipv6-icmp": 58}  # in nfacctd's table
IPV6_NETWORK = int(ipaddress.IPv6Address("2001:db8::"))


def address(number):
    if number % 6 < 3:
        return str(ipaddress.IPv4Address("10.0.0.0") + number)
    return str(ipaddress.IPv6Address(IPV6_NETWORK + number))


# What the input many_flows says of itself: source, protocol, packets, bytes of each flow.
FLOWS = [(address(number), KINDS[number % 6][1], 1 + number % 97,
          (1 + number % 97) * (40 + number % 1400)) for number in range(COUNT)]
PACKETS = sum(packets for _, _, packets, _ in FLOWS)
OCTETS = sum(octets for _, _, _, octets in FLOWS)


def ipfix(port, options=""):
    return (f"ipfix:host=127.0.0.1,port={port},ip=4,template_file={TEMPLATES}/ipfix-template.txt,"
            f"template-refresh-packets={REFRESH_PACKETS}{options}")


def netflow_v9(port):
    return (f"netflow-v9:host=127.0.0.1,port={port},ip=4,"
            f"template-file={TEMPLATES}/nf9-template.txt,"
            f"template-refresh-packets={REFRESH_PACKETS}")


def output(*command):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE,
                          text=True, stdin=subprocess.DEVNULL).stdout


class BulkCase(E2eCase):
    def export(self, export):
        probe = self.probe("-E", export, source=("-X", os.environ["KESTREL_MANY_FLOWS"],
                                                 "-I", f"many_flows:count={COUNT}"))
        probe.wait_for_line(DELIVERED, timeout=30)
        self.stop_in_order(probe)

    def check_flows(self, flows):
        """Each flow came once, with its own numbers; tells the first differences only."""
        expected, seen = Counter(FLOWS), Counter(flows)
        self.assertEqual(list((expected - seen).items())[:5], [], "missing")
        self.assertEqual(list((seen - expected).items())[:5], [], "surplus")


class BulkCollectors(BulkCase):
    def watched(self, *command, line):
        process = WatchedProcess(command, stdout=subprocess.DEVNULL)
        self.addCleanup(process.kill)
        process.wait_for_line(line)
        return process

    def check_nfdump(self, export):
        directory, port = self.directory(), free_udp_port()
        nfcapd = self.watched("nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", port,
                              "-t", "600", line="Startup")
        self.export(export(port))
        nfcapd.signal(signal.SIGTERM)
        nfcapd.wait()
        # One line for each file, and a new file may have begun in between.
        totals = [[int(number) for number in re.findall(r": (\d+)", line)]
                  for line in nfcapd.lines if line.startswith("Ident: 'none'")]
        self.assertEqual([sum(column) for column in zip(*totals)],
                         [COUNT, PACKETS, OCTETS, 0, 0])  # then sequence errors, bad packets
        shown = output("nfdump", "-N", "-q", "-6", "-R", directory, "-o", "fmt:%sa|%pr|%pkt|%byt")
        rows = (line.split("|") for line in shown.splitlines())
        self.check_flows((source.strip(), int(protocol), int(packets), int(octets))
                         for source, protocol, packets, octets in rows)

    def test_nfdump_has_all_ipfix_flows(self):
        self.check_nfdump(ipfix)

    def test_nfdump_has_all_netflow_v9_flows(self):
        self.check_nfdump(netflow_v9)

    def check_nfacctd(self, export):
        directory, port = self.directory(), free_udp_port()
        (directory / "conf").write_text(f"""
daemonize: false
nfacctd_ip: 127.0.0.1
nfacctd_port: {port}
plugins: print
aggregate: etype, proto
print_output: csv
print_output_file: {directory}/sums.csv
print_refresh_time: 3600
plugin_pipe_size: 16777216
plugin_buffer_size: 65536
""", encoding="ascii")
        nfacctd = self.watched("nfacctd", "-f", directory / "conf", line="waiting for NetFlow")
        self.export(export(port))
        nfacctd.signal(signal.SIGINT)  # writes the file
        nfacctd.wait()
        expected = {kind: [0, 0] for kind in KINDS}
        for number, (_, _, packets, octets) in enumerate(FLOWS):
            sums = expected[KINDS[number % 6]]
            sums[0] += packets
            sums[1] += octets
        header, *rows = (directory / "sums.csv").read_text(encoding="ascii").splitlines()
        self.assertEqual(header, "ETYPE,PROTOCOL,PACKETS,BYTES")
        versions = {"800": 4, "86dd": 6}
        self.assertEqual(
            {(versions[etype], NAMED_PROTOCOLS[protocol]): [int(packets), int(octets)]
             for etype, protocol, packets, octets in (row.split(",") for row in rows)}, expected)

    def test_nfacctd_has_the_sums_of_ipfix(self):
        self.check_nfacctd(ipfix)

    def test_nfacctd_has_the_sums_of_netflow_v9(self):
        self.check_nfacctd(netflow_v9)
