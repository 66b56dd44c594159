"""The metrics plugin at the start: its address and its port."""

# Not under the thread sanitizer: no thread is started where the address is refused.

import socket
import unittest

from web import PLUGIN, PORT, ask
from testbed.case import Case
from testbed.network import enter_quiet_network
from testbed.probe import run_to_its_end


class Start(Case):
    def setUp(self):
        enter_quiet_network()

    def refused(self, parameters):
        status, _, messages = run_to_its_end("-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                             f"metrics:{parameters}")
        self.assertEqual((status, messages[1:]), (255, ["Export: metrics ERROR"]))
        return messages[0]

    def test_a_port_in_use_ends_the_start(self):
        with socket.create_server(("127.0.0.1", PORT)):
            self.assertEqual(
                self.refused(""),
                "metrics: cannot listen on 127.0.0.1:9101: Address already in use. Choose another "
                "port=, or end the program that has it (ss -ltnp shows which)")

    def test_an_address_of_another_machine_ends_the_start(self):
        self.assertEqual(
            self.refused("address=192.0.2.77,port=9200"),
            "metrics: cannot listen on 192.0.2.77:9200: Cannot assign requested address. Choose "
            "an address= of this machine (ip address shows them)")

    def test_a_bad_port_or_address_ends_the_start(self):
        for port in ("0", "65536", "-1", "x", "80x"):
            self.assertEqual(self.refused(f"port={port}"), f"metrics: port={port} is no port. "
                             "Choose a number from 1 to 65535")
        self.assertEqual(self.refused("address=localhost"),
                         "metrics: address=localhost is no IPv4 or IPv6 address. Name one of this "
                         "machine in digits, such as 127.0.0.1 or ::1")

    def test_ipv6_addresses_are_taken(self):
        probe = self.start_program("-v", "0", "-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                   "metrics:address=::1,port=9300")
        probe.wait_for_line("metrics: http://[::1]:9300/")
        self.assertEqual(ask("/healthz", port=9300, address="::1")[0], 200)
        self.assertEqual(probe.stop(), 0)

    def test_two_probes_live_side_by_side(self):
        probes = [self.start_program("-v", "0", "-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                     f"metrics:port={port}") for port in (9301, 9302)]
        for probe, port in zip(probes, (9301, 9302)):
            probe.wait_for_line("Kestrel OK")
            self.assertEqual(ask("/readyz", port=port)[0], 200)
        self.assertEqual(probes[0].stop(), 0)
        self.assertEqual(ask("/readyz", port=9302)[0], 200)
        self.assertEqual(probes[1].stop(), 0)


if __name__ == "__main__":
    unittest.main()
