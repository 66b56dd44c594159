"""tools/as_table.py: from a routing table to a table of networks that do not overlap."""

import ipaddress
import os
import random
import subprocess
import sys
import unittest

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "as_table.py")


def run(text):
    """The lines of the table, and what was said."""
    done = subprocess.run([sys.executable, TOOL], input=text, capture_output=True, text=True,
                          check=True)
    return done.stdout.splitlines(), done.stderr


class AsTable(unittest.TestCase):
    def test_a_dump_gives_prefixes_and_origins(self):
        lines, said = run(
            "TABLE_DUMP2|1700000000|B|203.0.113.1|64500|192.0.2.0/24|64500 64501 64502|IGP|\n"
            "TABLE_DUMP2|1700000000|B|203.0.113.9|64509|192.0.2.0/24|64509 64503|IGP|\n"
            "TABLE_DUMP2|1700000000|B|203.0.113.1|64500|198.51.100.0/24|64500 {64510,64511}|IGP|\n"
            "TABLE_DUMP2|1700000000|B|2001:db8::1|64500|2001:db8::/32|64500 64502|IGP|\n"
            "TABLE_DUMP2|1700000000|B|203.0.113.1|64500|203.0.113.0/24||IGP|\n")
        self.assertEqual(lines, ["64502-192.0.2.0/24", "64510-198.51.100.0/24"])
        self.assertEqual(said, "2 routes, 2 networks, 2 lines left out\n")

    def test_lists_of_prefixes_are_read(self):
        lines, _ = run("192.0.2.0\t24\t64496\n198.51.100.0/24 64497\n203.0.113.0\t24\t64498_64499\n"
                       "\nno route\n10.0.0.0/33 1\n")
        self.assertEqual(lines, ["64496-192.0.2.0/24", "64497-198.51.100.0/24",
                                 "64498-203.0.113.0/24"])

    def test_the_longest_prefix_holds(self):
        lines, _ = run("10.0.0.0/8 1\n10.64.0.0/16 2\n10.64.128.0/17 1\n")
        self.assertEqual(lines, [
            "1-10.0.0.0/10", "2-10.64.0.0/17", "1-10.64.128.0/17", "1-10.65.0.0/16",
            "1-10.66.0.0/15", "1-10.68.0.0/14", "1-10.72.0.0/13", "1-10.80.0.0/12",
            "1-10.96.0.0/11", "1-10.128.0.0/9"])

    def test_neighbours_of_one_number_are_joined(self):
        lines, _ = run("10.0.0.0/9 7\n10.128.0.0/9 7\n10.1.0.0/16 7\n")
        self.assertEqual(lines, ["7-10.0.0.0/8"])

    def test_the_whole_address_space_is_one_network(self):
        self.assertEqual(run("0.0.0.0/0 7\n128.0.0.0/1 7\n")[0], ["7-0.0.0.0/0"])
        self.assertEqual(run("255.255.255.255/32 7\n")[0], ["7-255.255.255.255/32"])

    def test_any_table_says_the_same_without_overlap(self):
        for seed in range(60):
            rng = random.Random(seed)
            routes = {}
            for _ in range(rng.randrange(30)):
                length = rng.randrange(33)
                network = ipaddress.ip_network(
                    (rng.choice((0, 0x0A000000, 0xFFFF0000)) + rng.randrange(1 << 16), length),
                    strict=False)
                routes.setdefault(network, rng.randrange(1, 4))
            lines, _ = run("".join(f"{network} {number}\n"
                                   for network, number in routes.items()))
            table = [(ipaddress.ip_network(line.partition("-")[2]), int(line.partition("-")[0]))
                     for line in lines]
            self.assertEqual([entry for entry in zip(table, table[1:])
                              if entry[0][0].broadcast_address >= entry[1][0].network_address], [])
            edges = [int(edge) + step for network in routes
                     for edge in (network.network_address, network.broadcast_address)
                     for step in (-1, 0, 1) if 0 <= int(edge) + step < 1 << 32]
            for address in map(ipaddress.ip_address, edges):
                longest = max((network for network in routes if address in network),
                              key=lambda network: network.prefixlen, default=None)
                found = [number for network, number in table if address in network]
                self.assertEqual(found, [] if longest is None else [routes[longest]], address)


if __name__ == "__main__":
    unittest.main()
