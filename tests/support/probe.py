"""Runs the real program for the tests: in a network namespace that has nothing but a loopback
device, with its standard error read as lines."""

import ctypes
import os
import re
import select
import signal
import subprocess
import time

CLONE_NEWNET = 0x40000000

# Lines of the remover thread, which may come at any place, or not at all before an early end.
REMOVER = re.compile(r"VERBOSE: 0:timeouts: \d+ \d+$")

SECONDS_TO_WAIT = 20 * float(os.environ.get("KESTREL_TEST_PATIENCE", "1"))


def enter_quiet_network():
    """Moves this process to a network namespace of its own. It vanishes with the process."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "a network namespace needs root")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def without_remover(text):
    return [line for line in text.splitlines() if not REMOVER.match(line)]


def run(program, arguments, name="kestrelexp", **options):
    """Runs the program to its end. Returns status, standard output, lines of standard error."""
    done = subprocess.run(
        [name, *arguments], executable=program, stdin=subprocess.DEVNULL, capture_output=True,
        timeout=SECONDS_TO_WAIT, encoding="latin-1", **options)
    return done.returncode, done.stdout, without_remover(done.stderr)


class Probe:
    """The running program."""

    def __init__(self, program, arguments, **options):
        self.process = subprocess.Popen(
            ["kestrelexp", *arguments], executable=program, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, **options)
        self.text = ""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stderr.close()

    @property
    def pid(self):
        return self.process.pid

    def lines(self):
        return without_remover(self.text)

    def wait_for_line(self, line, seconds=None):
        """Reads standard error until the line is there."""
        end = time.monotonic() + (seconds or SECONDS_TO_WAIT)
        while line not in self.text.splitlines() or not self.text.endswith("\n"):
            left = end - time.monotonic()
            if left <= 0 or not self._read(left):
                raise AssertionError(f"no line {line!r} in {self.text!r}")

    def wait_for_threads(self, count):
        wait_for_threads(self.pid, count)

    def send(self, *signals):
        """Delivers the signals together, before the program takes another step."""
        if len(signals) > 1:
            self.process.send_signal(signal.SIGSTOP)
            while self.status_field("State")[0] != "T":
                time.sleep(0.001)
        for number in signals:
            self.process.send_signal(number)
        if len(signals) > 1:
            self.process.send_signal(signal.SIGCONT)

    def end(self):
        """Waits for the end. Returns the exit status."""
        while self._read(SECONDS_TO_WAIT):
            pass
        return self.process.wait(timeout=SECONDS_TO_WAIT)

    def status_field(self, name):
        return status_field(self.pid, name)

    def _read(self, seconds):
        if not select.select([self.process.stderr], [], [], seconds)[0]:
            raise AssertionError(f"nothing more came after {self.text!r}")
        data = os.read(self.process.stderr.fileno(), 65536)
        self.text += data.decode("latin-1")
        return bool(data)


def status_field(pid, name):
    """A line of /proc/PID/status, as words."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            key, _, value = line.partition(":")
            if key == name:
                return value.split()
    raise KeyError(name)


def wait_for_threads(pid, count):
    """Waits until the process has that many threads (sanitizers add some)."""
    end = time.monotonic() + SECONDS_TO_WAIT
    while int(status_field(pid, "Threads")[0]) < count:
        if time.monotonic() > end:
            raise AssertionError(f"fewer than {count} threads")
        time.sleep(0.005)
