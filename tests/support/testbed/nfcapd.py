"""nfcapd, a collector by other hands, and nfdump, which shows what it stored."""

import signal
import subprocess

from testbed.network import free_udp_port, unread_bytes
from testbed.process import WatchedProcess, settle, wait_until


class Nfcapd(WatchedProcess):
    """Collects from a port of its own into a directory; returns once it listens."""

    def __init__(self, directory):
        self.directory, self.port = directory, free_udp_port()
        super().__init__(("nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", self.port,
                          "-t", "600"))
        self.wait_for_line("Startup")

    def stop_and_show(self, *columns):
        """What was stored, in no order: a list of texts for each flow, by nfdump's column names."""
        wait_until(lambda: unread_bytes(self.port) == 0, "reads of the collector", 10)
        settle(0.1)  # a signal right after the last read makes it forget what it read
        self.signal(signal.SIGTERM)
        self.wait()
        form = "|".join(f"%{column}" for column in columns)
        shown = subprocess.run(
            ["nfdump", "-N", "-q", "-6", "-R", self.directory, "-o", f"fmt:{form}"], check=True,
            capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout
        return [[cell.strip() for cell in line.split("|")] for line in shown.splitlines()]
