"""What the suites of the filters share that look at addresses."""

import os
import socket
import struct

from abi import Run
from testbed.process import SLOWNESS

V5_RECORD = struct.Struct(">4s4s4sHHIIIIHHBBBBHHBBH")


class Addresses(Run):
    """A table, a NetFlow v5 collector, records as text."""

    def table(self, *lines, name="as.txt"):
        """Puts the file in its place at once, a second newer than the last one."""
        path, new = self.folder / name, self.folder / (name + ".new")
        new.write_text("".join(line + "\n" for line in lines), encoding="ascii")
        last = path.stat().st_mtime if path.exists() else 1_600_000_000
        os.utime(new, (last + 1, last + 1))
        return str(new.rename(path))

    def collector(self):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        receiver.bind(("127.0.0.1", 0))
        receiver.settimeout(20 * SLOWNESS)
        return receiver

    @staticmethod
    def to(receiver):
        return f"netflow-v5:host=127.0.0.1,port={receiver.getsockname()[1]}"

    @staticmethod
    def v5_records(receiver, count):
        """(source, destination, source port, destination port, source AS, destination AS)"""
        records = []
        while len(records) < count:
            packet = receiver.recv(2048)
            for at in range(24, len(packet), V5_RECORD.size):
                fields = V5_RECORD.unpack_from(packet, at)
                records.append((fields[0], fields[1], fields[9], fields[10], fields[15],
                                fields[16]))
        return records

    def run_to_the_end(self, arguments):
        """Three flows through the program; those that wait for company leave with the flush."""
        self.second.unlink(missing_ok=True)  # of an earlier run of the same test
        running = self.start("final collect", f"-I final{arguments} -E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)

    def collected_by(self, arguments, *receivers):
        """What each collector got."""
        self.run_to_the_end(arguments)
        return [self.v5_records(receiver, 3) for receiver in receivers]

    def collected_lines(self, arguments):
        """What the collecting export wrote to its file."""
        self.run_to_the_end(arguments)
        return [line for line in self.collected() if line != "flush"]

    def expect_refusal(self, arguments, *lines):
        running = self.start("final", f"-I final {arguments} -E null")
        self.assertEqual(running.wait(), 255)
        self.assertEqual(running.messages, list(lines))
