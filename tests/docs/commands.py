"""The commands of a page: found in its fenced blocks, and run one after the other.

A block marked "sh" is run as it stands. A block marked "console" is an example for another machine.
Any other block shows files or output and holds no command.
"""

import re
import signal
import subprocess
from dataclasses import dataclass

from testbed.frames import ACK, SYN, ethernet, ipv4, tcp, udp
from testbed.process import WatchedProcess, settle

# What runs until it is stopped, the line that says that it is ready, and the signal that ends it.
SERVERS = {
    "kestrelexp": ("Kestrel OK", signal.SIGINT),
    "nfcapd": ("Startup", signal.SIGTERM),
    "nfacctd": ("waiting for NetFlow", signal.SIGINT),
}
# What a command has to show.
SHOWN = {
    "./quickstart": r"(?s)( its page is at http://127\.0\.0\.1:\d+/\n|Replaying ).*"
                    r"From the probe to the collector: [1-9]",
    "nfdump": r"total flows: [1-9]|Top \d+ |10\.0\.0\.1",
    "cat": r'(?m)^10\.0\.0\.1,|"src_addr":"10\.0\.0\.1"',
    "tshark": r"(?m)^10\.0\.0\.1",
    "ipfixDump": r"[1-9]\d* Data Records",
}
FRAMES = [ethernet(ipv4(transport, "10.0.0.1", "10.0.0.2")) for transport in (
    tcp(1000, 80, SYN), tcp(1000, 80, ACK, b"x" * 100), udp(1001, 53, b"x" * 40))]


@dataclass(frozen=True)
class Block:
    language: str
    line: int
    text: str


def blocks(page):
    """The fenced blocks of a page, also those that are indented."""
    found, opened = [], None
    for number, line in enumerate(page.splitlines(), 1):
        if match := re.match(r"( *)```(.*)$", line):
            if opened is None:
                opened = len(match[1]), match[2].strip(), number, []
            else:
                _, language, first, lines = opened
                found.append(Block(language, first, "".join(f"{text}\n" for text in lines)))
                opened = None
        elif opened is not None:
            opened[3].append(line[opened[0]:])
    assert opened is None, f"the block at line {opened[2]} has no end"
    return found


def commands(text):
    """A block's commands, each as long as the shell needs to find it complete."""
    held = ""
    for line in text.splitlines():
        held += line + "\n"
        if line.endswith("\\"):
            continue
        done = subprocess.run(["bash", "-n", "-c", held], stdin=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True, check=False)
        if done.returncode == 0 and not done.stderr:
            command = "".join(part for part in held.splitlines(keepends=True)
                              if "<<" in held or not re.match(r"\s*(#|$)", part))
            if command:
                yield command
            held = ""
    assert not held.strip(), f"no whole command: {held}"


def first_word(command):
    return command.split()[0]


def is_server(command):
    """Probes of capture files end by themselves, as do those that only print something."""
    ends = r" -[hlV]\b| -I capture-file:"
    return first_word(command) in SERVERS and not re.search(ends, command)


class Runner:
    """Runs the commands of a block in a booted system; sender sends to the interface eth0."""

    def __init__(self, system, sender):
        self._system = system
        self._sender = sender
        self._running = []

    def run_block(self, block):
        try:
            for command in commands(block.text):
                if is_server(command):
                    self._start(command)
                else:
                    self._end_servers()
                    self._run(command)
            self._end_servers()
        finally:
            for process, _ in self._running:
                process.kill()
            self._running.clear()

    def _shell(self, text):
        return self._system.command("bash", "-c", text)

    def _start(self, command):
        ready, end = SERVERS[first_word(command)]
        process = WatchedProcess(self._shell("exec " + command), stdout=subprocess.DEVNULL)
        self._running.append((process, end))
        process.wait_for_line(ready)

    def _end_servers(self):
        """Frames pass the probes; then those end, and after them their collectors."""
        if not self._running:
            return
        self._sender.send(*FRAMES)
        settle()
        for process, end in reversed(self._running):
            self._system.signal(process, end)
            status = process.wait()
            assert status == 0, process.describe()
            settle(0.2)  # the collector reads what came last
        self._running.clear()

    def _run(self, command):
        done = subprocess.run(self._shell(command), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=600, check=False)
        report = f"{command}status {done.returncode}\n{done.stdout}"
        assert done.returncode == 0, report
        wanted = SHOWN.get(first_word(command))
        if wanted and ">" not in command:
            assert re.search(wanted, done.stdout), report
