"""What the tests with plugins share: where the plugins are, and runs that end in a collecting
export."""

import os

from testbed.case import QuietCase
from testbed.process import wait_until

# The records of the "final" input, as the collecting export writes them.
FINAL = [
    "1000000000 1500000000 1 100 3 4 ip4 0a000000 c0000201 08 proto17 1000 53 12 0 0 9",
    "2000000000 2500000000 2 200 3 4 ip4 0a000001 c0000201 08 proto17 1001 53 12 0 0 9",
    "3000000000 3500000000 3 300 3 4 ip4 0a000002 c0000201 08 proto17 1002 53 12 0 0 9",
]


def plugin(name):
    return os.path.join(os.environ["KESTREL_ABI_PLUGINS"], name + ".so")


class Run(QuietCase):
    """Runs the program with plugins until the collecting export has seen what it should."""

    def setUp(self):
        super().setUp()
        self.folder = self.directory()
        self.out, self.second = self.folder / "out", self.folder / "second"

    def start(self, objects, arguments):
        """Starts the program. Objects and arguments are words separated by blanks."""
        return self.start_program("-X", ",".join(map(plugin, objects.split())), *arguments.split())

    def collected(self, path=None):
        """The lines that the export wrote so far."""
        try:
            return (path or self.out).read_text(encoding="ascii").splitlines()
        except FileNotFoundError:
            return []

    def wait_for_records(self, count, path=None):
        wait_until(lambda: len(self.collected(path)) >= count, f"{count} records")
