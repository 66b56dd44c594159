"""What the tests of exports in the background share."""

import os
import signal
import threading
import time

from testbed import namespaces
from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.flow_sets import Reader
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, received_frames
from testbed.process import SLOWNESS, WatchedProcess, settle, wait_until
from testbed.returning_collector import ReturningCollector
from testbed.stream_collector import StreamCollector

BACKGROUND = ",reconnect=background"
TCP = ",protocol=tcp" + BACKGROUND
ONE = 'export="ipfix-0"'
# So small a cache hands flows on as soon as others come.
SMALL = ("-q", "6", "-t", "600:300", "-I", f"pcap:device={PROBED}")
# A ring that takes all that is blasted here, and hands flows on a second later.
LARGE = ("-q", "16", "-t", "600:1", "-I", f"pcap:device={PROBED}")
SOME = 2000


def flows(block, count=SOME):
    """Frames of as many flows; flows of different blocks differ."""
    return [ethernet(ipv4(udp(1 + n, 53), f"10.1.0.{block}", "10.2.0.1")) for n in range(count)]


def messages(collector, reader):
    """What the datagrams that have come say."""
    read = reader()
    return [read.read(datagram) for datagram in collector.datagrams]


def run_command(line):
    with WatchedProcess(line.split()) as command:
        assert command.wait() == 0, command.describe()


class FarMachine:
    """Another network name space, reached through the interface "near"."""

    address = "192.0.2.2"

    def __init__(self):
        self._holder = WatchedProcess(["unshare", "--net", "sleep", "600"])
        wait_until(lambda: os.readlink(f"/proc/{self._holder.pid}/ns/net") !=
                   os.readlink("/proc/self/ns/net"), "its name space")
        for line in (f"ip link add near type veth peer name far netns {self._holder.pid}",
                     "ip addr add 192.0.2.1/24 dev near", "ip link set near up"):
            run_command(line)
        self.run(f"ip addr add {self.address}/24 dev far")
        self.run("ip link set far up")

    def run(self, line):
        run_command(f"nsenter --net --target {self._holder.pid} {line}")

    def socket(self, make):
        """What make, called with the machine's address, makes there."""
        made = []

        def enter_and_make():
            namespaces.enter(self._holder.pid, namespaces.NETWORK)
            made.append(make(self.address))

        maker = threading.Thread(target=enter_and_make)  # which alone is there
        maker.start()
        maker.join()
        return made[0]

    def close(self):
        self._holder.kill()


class BackgroundCase(E2eCase):
    def far_machine(self):
        far = FarMachine()
        self.addCleanup(far.close)
        return far

    def sum_of(self, probe, frames):
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(received_frames(), frames)
        return found

    def stream(self, **options):
        collector = StreamCollector(**options)
        self.addCleanup(collector.close)
        return collector

    def datagrams(self):
        collector = ReturningCollector()
        self.addCleanup(collector.close)
        return collector

    @staticmethod
    def wait_for_datagrams(collector, packets):
        def are_there():
            collector.drain()
            return sum(message.packets for message in messages(collector, Reader)) >= packets
        wait_until(are_there, f"{packets} packets")

    def end_in_time(self, probe, seconds):
        """Lets the probe take up what was sent, and interrupts it: it has to end in order within so
        many seconds."""
        settle()
        start = time.monotonic()
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertLess(time.monotonic() - start, seconds * SLOWNESS, probe.describe())
