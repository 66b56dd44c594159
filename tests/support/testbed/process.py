"""Child processes under watch: their standard error is read as it comes, none outlives its test."""

import os
import signal
import subprocess
import threading
import time

# Sanitized builds run many times slower; waits for the program are stretched by this factor.
SLOWNESS = float(os.environ.get("KESTREL_TEST_SLOWNESS", "1"))


class WatchedProcess:
    """A child whose standard error can be waited on; used as a context, it is killed at the end."""

    def __init__(self, command, **options):
        self.command = [str(word) for word in command]
        self.lines = []
        self._news = threading.Condition()
        self._ended = False
        self._process = subprocess.Popen(
            self.command, stderr=subprocess.PIPE, text=True, errors="replace",
            **{"stdin": subprocess.DEVNULL, **options})
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    @property
    def pid(self):
        return self._process.pid

    @property
    def running(self):
        return self._process.poll() is None

    def wait_for_line(self, text, timeout=20):
        """Returns the first line that contains text; fails when the child ends or time is up."""
        deadline = time.monotonic() + timeout * SLOWNESS
        with self._news:
            while True:
                for line in self.lines:
                    if text in line:
                        return line
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    raise AssertionError(f"no line with {text!r} from {self.describe()}")
                self._news.wait(left)

    def signal(self, *numbers):
        """Interrupts, or sends the signals: several together, before the child takes a step."""
        numbers = numbers or (signal.SIGINT,)
        if len(numbers) > 1:
            self._process.send_signal(signal.SIGSTOP)
            wait_until(lambda: status_field(self.pid, "State")[0] == "T", "standstill")
            numbers += (signal.SIGCONT,)
        for number in numbers:
            self._process.send_signal(number)

    def wait(self, timeout=20):
        """The exit status (negative: the signal that ended the child); kills it when time is up."""
        try:
            status = self._process.wait(timeout * SLOWNESS)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"did not end in time: {self.describe()}") from None
        self._reader.join(5)
        return status

    def kill(self):
        if self.running:
            self._process.kill()
            self._process.wait()
        self._reader.join(5)

    @property
    def log(self):
        return "\n".join(self.lines)

    def describe(self):
        return f"{' '.join(self.command)}\nstatus {self._process.poll()}, it said:\n{self.log}"

    def _read(self):
        for line in self._process.stderr:
            with self._news:
                self.lines.append(line.rstrip("\n"))
                self._news.notify_all()
        self._process.stderr.close()
        with self._news:
            self._ended = True
            self._news.notify_all()


def wait_until(holds, what, timeout=20):
    """Asks again and again until it holds; fails when time is up."""
    deadline = time.monotonic() + timeout * SLOWNESS
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain: {what}")
        time.sleep(0.01)


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
    wait_until(lambda: int(status_field(pid, "Threads")[0]) >= count, f"{count} threads")


def settle(seconds=0.5):
    """Leaves the probe time to take up every frame already sent (rings are polled every 10 ms)."""
    time.sleep(seconds * SLOWNESS)
