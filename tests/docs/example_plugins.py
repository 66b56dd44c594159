"""Test cases that build the example plugins and run the probe with them."""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

from testbed.capture import pcap

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples/plugin"
PROGRAM = os.environ.get("KESTREL_PROBE", "kestrelexp")
CAPTURE_FILE = os.environ.get("KESTREL_CAPTURE_FILE", "capture-file.so")


class ExamplePluginsCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)
        shutil.copytree(EXAMPLES, self.folder, dirs_exist_ok=True)
        flags = f"PLUGIN_CFLAGS=-std=c11 -Wall -Wextra -Werror -fPIC -I{ROOT}/include"
        subprocess.run(["make", "-s", "-C", self.folder, flags], check=True, capture_output=True)

    def replay(self, packets, plugins, *options):
        """Runs the probe over (time in ns, frame) pairs; the head and the lines that csv wrote."""
        (self.folder / "packets.pcap").write_bytes(pcap(packets))
        objects = ",".join([CAPTURE_FILE, *(str(self.folder / f"{p}.so") for p in plugins)])
        done = subprocess.run(
            [PROGRAM, "-q", "12", "-X", objects, "-I",
             f"capture-file:file={self.folder}/packets.pcap", *options],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)
        head, *lines = done.stdout.splitlines()
        return head, sorted(lines)
