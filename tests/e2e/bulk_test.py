"""A cache full of flows at the moment of the interrupt: all of them arrive, however slow an export
is. Runs alone on the machine, so that a frame lost is a frame that the probe lost."""

# Runs alone: a frame that is lost is to be one that the probe lost.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import os
import re
import subprocess

from testbed.case import E2eCase
from testbed.network import SENDER, received_frames
from testbed.probe import netflow_v5

FLOWS = 400_000
FRAMES_PER_SECOND = 40_000
# Payloads of 18 to 24 bytes in turn after 28 bytes of headers.
OCTETS = sum(28 + 18 + number % 7 for number in range(FLOWS))


class Bulk(E2eCase):
    def test_400000_flows_survive_the_interrupt(self):
        collector = self.collector()
        probe = self.probe(
            "-q", "20", "-t", "600:300", "-X", os.environ["KESTREL_SLOW_EXPORT"],
            "-E", "slow_export:every=200,pause_ms=1", *netflow_v5(collector.port))
        subprocess.run([os.environ["KESTREL_FRAME_BLASTER"], SENDER, str(FLOWS),
                        str(FRAMES_PER_SECOND)], check=True, stdin=subprocess.DEVNULL)
        self.assertEqual(received_frames(), FLOWS, "the veth pair itself lost frames")
        self.stop_in_order(probe, collector, timeout=60,
                           meanwhile=lambda: collector.drain(0.05))

        flushed = int(re.search(r"Queue flushed\. (\d+) records out\.", probe.log).group(1))
        self.assertGreater(flushed, FLOWS - 5000, "too few flows were still in the cache")
        self.assertEqual(slow_export_sums(probe), (FLOWS, FLOWS, OCTETS))
        flows = [record.flow for record in collector.records]
        self.assertEqual(len(flows), FLOWS)
        self.assertEqual(sum(flow.packets for flow in flows), FLOWS)
        self.assertEqual(sum(flow.octets for flow in flows), OCTETS)
        self.assertEqual(len({(flow.source, flow.source_port) for flow in flows}), FLOWS)


def slow_export_sums(probe):
    """Flows, packets and octets that the slow export counted up to its last flush."""
    last = [line for line in probe.lines if "slow_export: flows" in line][-1]
    return tuple(int(number) for number in re.findall(r"\d+", last.partition("flows")[2]))
