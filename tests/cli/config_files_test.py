"""Rule files, template files and AS tables that cannot be read: what the start says of them."""

# Not under the thread sanitizer: it looks at forks, signal masks and the start, all one thread.

import os
import subprocess
import time

from rows import LO
from testbed.case import QuietCase
from testbed.probe import run_to_its_end
from testbed.process import SLOWNESS

# Where a file stands on the command line, and what is said of one that cannot be read.
PLACES = [
    ("-F filter:{} -E null",
     ["Unable to read filter config", "Unable to filter plugin: filter with args: {}"]),
    ("-G as_helper:{} -E null", ["Unable to filter plugin: as_helper with args: {}"]),
    ("-E ipfix:host=127.0.0.1,template_file={}", ["Template config error"]),
    ("-E netflow-v9:host=127.0.0.1,template-file={}", ["Template config error"]),
]


class ConfigFiles(QuietCase):
    def refused(self, path, reason):
        for place, lines in PLACES:
            with self.subTest(place=place):
                start = time.monotonic()
                status, _, got = run_to_its_end(
                    *f"-q 5 {LO} {place.format(path)}".split())
                self.assertLess(time.monotonic() - start, SLOWNESS)
                self.assertEqual(got, [f"Unable to read {path}: {reason}",
                                       *(line.format(path) for line in lines)])
                self.assertEqual(status, 255)

    def test_a_directory_ends_the_start(self):
        self.refused(self.directory(), "Is a directory")

    def test_a_device_without_end_ends_the_start_within_a_second(self):
        self.refused("/dev/zero", "a line of more than 1 MiB")

    def test_a_pipe_without_end_ends_the_start(self):
        path = self.directory() / "pipe"
        os.mkfifo(path)
        # Who writes ends with the pipe, or with the test.
        writer = subprocess.Popen(["sh", "-c", "exec yes '# nothing' >\"$0\"", path])
        try:
            status, _, lines = run_to_its_end(*f"{LO} -F filter:{path} -E null".split())
        finally:
            writer.kill()
            writer.wait()
        self.assertEqual(lines, [
            f"Unable to read {path}: more than 128 MiB", "Unable to read filter config",
            f"Unable to filter plugin: filter with args: {path}"])
        self.assertEqual(status, 255)
