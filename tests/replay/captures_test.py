"""Real captures: the program gives the flows of the model, in its order and at its times."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.

import os
import subprocess
from pathlib import Path

from testbed.replay import CAPTURES, ReplayCase

SUFFIXES = (".pcap", ".cap", ".pcapng")
LEAST_CAPTURES = 70


def captures():
    """Those of the tree, and those of the folder that the build was told of."""
    folders = [CAPTURES, *map(Path, filter(None, [os.environ["KESTREL_CAPTURES"]]))]
    found = {path.name: path for folder in folders for path in sorted(folder.iterdir())
             if path.suffix in SUFFIXES}
    assert len(found) >= LEAST_CAPTURES, "the captures have moved"
    return found.values()


def model(path, *settings):
    """The lines of the model, without the last one, and the totals in that."""
    done = subprocess.run([os.environ["KESTREL_MODEL_FLOWS"], path, *settings], check=True,
                          capture_output=True, text=True, stdin=subprocess.DEVNULL)
    *lines, last = done.stdout.splitlines()
    _, read, _, _, no_flow = last.split()
    return lines, int(read), int(no_flow)


class Captures(ReplayCase):
    def compare(self, exponent, active, inactive, *arguments):
        for path in captures():
            with self.subTest(capture=path.name):
                lines, read, no_flow = model(path, exponent, active, inactive)
                out = self.directory / "flows.txt"
                probe = self.replay(path, "-q", exponent, "-t", f"{active}:{inactive}", *arguments,
                                    "-E", f"flow_lines:file={out}")
                self.assertEqual(out.read_text().splitlines(), lines)
                self.assertEqual(self.totals(probe), (read, read - no_flow, len(lines), no_flow))

    def test_flows_are_those_of_the_model(self):
        self.compare("12", "180", "10")

    def test_flows_of_a_full_cache_with_short_timeouts_are_those_of_the_model(self):
        self.compare("5", "4", "1")

    def test_a_process_plugin_that_sees_frames_changes_no_flow(self):
        self.compare("5", "4", "1", "-X", os.environ["KESTREL_COUNT_FRAMES"], "-P", "frames")
