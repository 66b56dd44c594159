"""The capture module that the "rawnetcap" input asks for, emulated in front of the C library (see
tests/support/rawnetcap/module.h for what it can be told)."""

import os

from testbed.capture import pcap
from testbed.preload import preloaded
from testbed.process import wait_until


def write_pcap(path, frames):
    """A pcap file of whole Ethernet frames, without times."""
    with open(path, "wb") as file:
        file.write(pcap((0, frame) for frame in frames))


def with_capture_module(**settings):
    """The environment of a program that shall meet the module; settings: RAWNETCAP_ names."""
    return preloaded(os.environ["KESTREL_RAWNETCAP"],
                     **{f"RAWNETCAP_{name}": value for name, value in settings.items()})


class ModuleLog:
    """What was asked of the module, line by line."""

    def __init__(self, path):
        self.path = path

    @property
    def lines(self):
        try:
            return self.path.read_text(encoding="ascii").splitlines()
        except FileNotFoundError:
            return []

    def wait_for(self, beginning, timeout=20):
        """Returns the first line that begins so."""
        def found():
            return next((line for line in self.lines if line.startswith(beginning)), None)
        wait_until(found, f"a line {beginning!r}... of the capture module", timeout)
        return found()
