"""Runs the probe under test the way an operator does, and ends it in order."""

import os
import signal
import time

from testbed.network import PROBED
from testbed.process import SLOWNESS, WatchedProcess

READY = "Kestrel OK"
FLUSHED = "QUIT signal processed. All data flushed. Exiting ..."


class Probe(WatchedProcess):
    """The program on the probed end of the veth pair, or with another input (the words up to its
    -I); returns once it is capturing."""

    def __init__(self, *arguments, device=PROBED, input_options="", ready=True, source=None,
                 environment=None):
        command = [os.environ["KESTREL_PROBE"], "-v", "0",
                   *(source or ("-I", f"pcap:device={device}{input_options}")), *arguments]
        super().__init__(command, env=environment)
        if ready:
            self.wait_for_line(READY)

    def stop(self, timeout=20, meanwhile=None):
        """Interrupts the probe once, waits for its end and returns its status. meanwhile is called
        again and again while the probe is busy with its last flows."""
        self.signal(signal.SIGINT)
        deadline = time.monotonic() + timeout * SLOWNESS
        while meanwhile is not None and self.running and time.monotonic() < deadline:
            meanwhile()
        return self.wait(timeout)


def netflow_v5(port, options=""):
    """The -E arguments of a NetFlow v5 export to a collector of ours."""
    return ("-E", f"netflow-v5:host=127.0.0.1,port={port},ip=4{options}")
