"""The anonymizer's parameters on the command line, names that have to be looked up among them."""

# Not under the thread sanitizer: it looks at forks, signal masks and the start, all one thread.

import ctypes
import os

from rows import LO
from testbed.case import QuietCase
from testbed.network import ip
from testbed.probe import run_to_its_end

# Where names come from, in the mount namespace of this process.
FILES = {
    "/etc/hosts": "127.0.0.1 localhost\n2001:db8::7 dual.test\n192.0.2.7 dual.test\n",
    "/etc/nsswitch.conf": "hosts: files\n",
}


def replace_files(directory):
    """Puts the files in place for this process and its children alone."""
    clone_newns, ms_rec, ms_private, ms_bind = 0x20000, 0x4000, 1 << 18, 0x1000
    libc = ctypes.CDLL(None, use_errno=True)
    steps = [libc.unshare(clone_newns), libc.mount(None, b"/", None, ms_rec | ms_private, None)]
    for path, text in FILES.items():
        if not os.path.exists(path):
            continue
        copy = os.path.join(directory, os.path.basename(path))
        with open(copy, "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(copy, 0o644)
        steps.append(libc.mount(copy.encode(), path.encode(), None, ms_bind, None))
    if any(steps):
        raise OSError(ctypes.get_errno(), "a mount namespace needs root")


class Anonymizer(QuietCase):
    def setUp(self):
        super().setUp()
        replace_files(self.directory())
        # This machine has an IPv4 address and none of IPv6.
        with open("/proc/sys/net/ipv6/conf/all/disable_ipv6", "w", encoding="ascii") as switch:
            switch.write("1")
        ip("address add 198.51.100.1/32 dev lo")

    def lines(self, parameters):
        """What a start says that ends at its export at the latest."""
        status, _, lines = run_to_its_end(
            *f"{LO} -G anonymizer:{parameters} -E nope".split())
        self.assertIn(status, (253, 255))
        return lines

    def test_a_name_has_an_address_of_a_family_that_the_machine_has(self):
        # Of IPv6 32 bits would do.
        parameters = "MASK:dual.test/32"
        self.assertEqual(self.lines(parameters), [
            "Bad bits number: 32",
            f"Unable to filter plugin: anonymizer with args: {parameters}"])
        self.assertEqual(self.lines("MASK:dual.test/31"), ["Unknown export type: nope"])

    def test_numbers_of_either_family_are_taken(self):
        for parameters in ("MASK:10.0.0.0/8", "MASK:2001:db8::/32"):
            self.assertEqual(self.lines(parameters), ["Unknown export type: nope"])

    def test_empty_pieces_are_dropped_and_further_ones_ignored(self):
        for parameters in ("MASK::10.0.0.0/8", "MASK:10.0.0.0/8:junk,more",
                           "AES::ADDR", "AES:ADDR:0123456789abcdef:junk"):
            with self.subTest(parameters=parameters):
                self.assertEqual(self.lines(parameters), ["Unknown export type: nope"])

