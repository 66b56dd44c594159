"""What tests ask of the kernel and not every machine allows (a container without overlays, say)."""

import subprocess
import unittest
from contextlib import contextmanager


@contextmanager
def asked_of_the_machine(what):
    """Where it is refused, the test is skipped, which the test runner's summary tells by name."""
    try:
        yield
    except (OSError, subprocess.SubprocessError, AssertionError, StopIteration) as refusal:
        raise unittest.SkipTest(f"this machine does not allow {what}: {refusal}") from refusal
