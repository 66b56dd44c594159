"""Runs the program under test the way an operator does, and ends it in order."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

from testbed.process import SLOWNESS, WatchedProcess

_TEMPLATES = Path(__file__).resolve().parents[3] / "etc"

READY = "Kestrel OK"
FLUSHED = "QUIT signal processed. All data flushed. Exiting ..."

# A line that may come between any two others, or not at all before an early end.
_TIMEOUTS = re.compile(r"VERBOSE: 0:timeouts: \d+ \d+$")


def messages(lines):
    """What the program says, without lines whose place is left to chance."""
    return [line for line in lines if not _TIMEOUTS.match(line)]


class Probe(WatchedProcess):
    """The program with the arguments that are given."""

    def __init__(self, *arguments, program=None, **options):
        super().__init__(
            ["kestrelexp", *arguments], executable=program or os.environ["KESTREL_PROBE"],
            **{"stdout": subprocess.DEVNULL, **options})

    @property
    def messages(self):
        return messages(self.lines)

    def stop(self, timeout=20, meanwhile=None):
        """Interrupts the probe once, waits for its end and returns its status. meanwhile is called
        again and again while the probe is busy with its last flows."""
        self.signal(signal.SIGINT)
        deadline = time.monotonic() + timeout * SLOWNESS
        while meanwhile is not None and self.running and time.monotonic() < deadline:
            meanwhile()
        return self.wait(timeout)


def run_to_its_end(*arguments, name="kestrelexp", timeout=20, **options):
    """Runs the program; returns its status, its standard output, its messages."""
    done = subprocess.run(
        [name, *arguments], executable=os.environ["KESTREL_PROBE"], stdin=subprocess.DEVNULL,
        capture_output=True, timeout=timeout * SLOWNESS, text=True, errors="replace", check=False,
        **options)
    return done.returncode, done.stdout, messages(done.stderr.splitlines())


def ipfix(port, options=""):
    """The same of an IPFIX export with the templates that are shipped."""
    return ("-E", f"ipfix:host=127.0.0.1,port={port},ip=4,"
                  f"template_file={_TEMPLATES}/ipfix-template.txt{options}")


def netflow_v9(port, options=""):
    """The same of a NetFlow v9 export."""
    return ("-E", f"netflow-v9:host=127.0.0.1,port={port},ip=4,"
                  f"template-file={_TEMPLATES}/nf9-template.txt{options}")


def netflow_v5(port, options=""):
    """The -E arguments of a NetFlow v5 export to a collector of ours."""
    return ("-E", f"netflow-v5:host=127.0.0.1,port={port},ip=4{options}")
