"""Real captures: packets and bytes of the flows are those that tshark counts in the frames.

Counted are frames in which tshark meets IP after nothing but Ethernet, VLAN tags and MPLS labels,
with the lengths of that first IP header as they stand.
"""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.
# Not under the address sanitizer: another dissector's sums say nothing about sanitized code.

import os
import subprocess
from pathlib import Path

from testbed.replay import CAPTURES, ReplayCase

PREFERENCES = ("ip.defragment:FALSE", "ipv6.defragment:FALSE", "ip.tso_support:FALSE")
FIELDS = ("frame.protocols", "ip.version", "ip.len", "ipv6.version", "ipv6.plen")
LOWER_LAYERS = {"eth", "ethertype", "vlan", "mpls"}

# What tshark counts more than the probe (packets, bytes).
DIFFERENCES = {
    # EtherType 0x0800 over a header of version 6: the probe believes the header.
    "tcpdump-kday3.pcap": (-1, -64846),
    # Labels over something else than IP, which the probe takes for an Ethernet frame: its type says
    # IPv4, its header a length of 0.
    "zeek-trunc_mpls-6in6-broken.pcap": (-1, 0),
}


def tshark_sums(path):
    command = ["tshark", "-n", "-r", path, "-T", "fields", "-E", "occurrence=f"]
    for preference in PREFERENCES:
        command += ["-o", preference]
    for field in FIELDS:
        command += ["-e", field]
    done = subprocess.run(command, check=True, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL)
    lengths = [length for line in done.stdout.splitlines()
               if (length := network_length(*line.split("\t"))) is not None]
    return len(lengths), sum(lengths)


def network_length(protocols, ip_version, ip_length, ipv6_version, ipv6_payload):
    """Of the first IP header in reach; None when there is none."""
    for layer in protocols.split(":"):
        if layer == "ip":
            return int(ip_length or 0) if ip_version == "4" else None
        if layer == "ipv6":
            return int(ipv6_payload or 0) + 40 if ipv6_version == "6" else None
        if layer not in LOWER_LAYERS:
            return None
    return None


class Dissector(ReplayCase):
    def assert_sums(self, *origins):
        folders = [CAPTURES, *map(Path, filter(None, [os.environ["KESTREL_CAPTURES"]]))]
        paths = {path.name: path for folder in folders for path in folder.iterdir()
                 if path.name.startswith(origins)}
        self.assertGreater(len(paths), 15)
        for name, path in sorted(paths.items()):
            with self.subTest(capture=name):
                out = self.directory / "flows.txt"
                probe = self.replay(path, "-q", "12", "-E", f"flow_lines:file={out}")
                flows = [line.split() for line in out.read_text().splitlines()]
                more_packets, more_bytes = DIFFERENCES.get(name, (0, 0))
                self.assertEqual((sum(int(flow[3]) for flow in flows) + more_packets,
                                  sum(int(flow[4]) for flow in flows) + more_bytes),
                                 tshark_sums(path))
                self.assertEqual(self.totals(probe)[1], sum(int(flow[3]) for flow in flows))

    def test_captures_of_applications(self):
        self.assert_sums("ndpi-", "pcpp-")

    def test_captures_of_protocols(self):
        self.assert_sums("tcpdump-")

    def test_captures_of_odd_networks(self):
        self.assert_sums("zeek-")
