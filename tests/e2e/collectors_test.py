"""Other programs of the field at the far end: a collector's table and a dissector's verdict."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import re
import signal
import subprocess
import time
from collections import Counter

from testbed.case import E2eCase
from testbed.flow_model import packets_and_octets, predict
from testbed.frames import ACK, SYN, ethernet, icmp, ipv4, sctp, tcp, udp
from testbed.network import free_udp_port
from testbed.probe import netflow_v5
from testbed.process import WatchedProcess

FRAMES = [
    ethernet(ipv4(transport, f"10.2.0.{host}", "198.51.100.7", tos=host))
    for host in range(1, 26) for transport in (
        tcp(2000 + host, 443, SYN), tcp(2000 + host, 443, ACK, b"x" * host),
        udp(2000 + host, 53, b"y" * host), sctp(2000 + host, 2905), icmp(8, 0), icmp(3, host))
]


class Collectors(E2eCase):
    def watched(self, *command):
        process = WatchedProcess(command)
        self.addCleanup(process.kill)
        return process

    def wait_for_size(self, path, size):
        """What dumpcap holds when it is interrupted would be lost."""
        deadline = time.monotonic() + 10
        while path.stat().st_size < size:
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def test_nfdump_shows_the_same_flows(self):
        directory, port = self.directory(), free_udp_port()
        nfcapd = self.watched("nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", port, "-t", "600")
        nfcapd.wait_for_line("Startup")
        probe = self.probe(*netflow_v5(port))
        self.sender.send(*FRAMES)
        self.stop_in_order(probe)
        nfcapd.signal(signal.SIGTERM)
        nfcapd.wait()
        expected = predict(FRAMES)
        packets, octets = packets_and_octets(expected)
        # One line for each file, and a new file may have begun in between.
        totals = [[int(number) for number in re.findall(r": (\d+)", line)]
                  for line in nfcapd.lines if line.startswith("Ident: 'none'")]
        self.assertEqual([sum(column) for column in zip(*totals)],
                         [expected.total(), packets, octets, 0, 0])  # then sequence errors, bad
        shown = subprocess.run(
            ["nfdump", "-N", "-q", "-R", directory, "-o", "fmt:%sa|%da|%pr|%sp|%dp|%tos|%pkt|%byt"],
            check=True, capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout
        rows = Counter(tuple(cell.strip() for cell in line.split("|"))
                       for line in shown.splitlines())
        self.assertEqual(rows, Counter(map(nfdump_row, expected.elements())))

    def test_a_dissector_has_no_complaint(self):
        collector = self.collector()
        trace = self.directory() / "exports.pcap"
        dumpcap = self.watched("dumpcap", "-q", "-i", "lo", "-f", f"udp port {collector.port}",
                               "-w", trace)
        dumpcap.wait_for_line("File:")
        probe = self.probe(*netflow_v5(collector.port))
        self.sender.send(*FRAMES)
        self.stop_in_order(probe, collector)
        self.wait_for_size(trace, sum(24 + 48 * header.count for header in collector.headers))
        dumpcap.signal(signal.SIGINT)
        dumpcap.wait()
        expected = predict(FRAMES)
        self.assert_flows(collector.flows, expected)

        def tshark(*options):
            return subprocess.run(
                ["tshark", "-n", "-r", trace, "-d", f"udp.port=={collector.port},cflow", *options],
                check=True, capture_output=True, text=True,
                stdin=subprocess.DEVNULL).stdout.splitlines()

        self.assertEqual(tshark("-Y", "_ws.expert || _ws.malformed || !cflow"), [])
        counts = tshark("-T", "fields", "-e", "cflow.version", "-e", "cflow.count")
        self.assertEqual(counts, [f"5\t{header.count}" for header in collector.headers])
        octets = tshark("-T", "fields", "-e", "cflow.octets", "-E", "aggregator=,")
        self.assertEqual(sum(int(number) for line in octets for number in line.split(",")),
                         packets_and_octets(expected)[1])


def nfdump_row(flow):
    destination_port = str(flow.destination_port)
    if flow.protocol == 1:
        destination_port = f"{flow.destination_port >> 8}.{flow.destination_port & 255}"
    return (flow.source, flow.destination, str(flow.protocol), str(flow.source_port),
            destination_port, str(flow.tos), str(flow.packets), str(flow.octets))
