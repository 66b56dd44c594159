"""Rings of af-packet that the process may not have."""

# Not under the address sanitizer: it takes more address space than the test leaves.
# Not under the thread sanitizer: it takes more address space than the test leaves.

import resource

from testbed.af_packet import AfPacketCase, words
from testbed.probe import run_to_its_end


def limit_memory():
    resource.setrlimit(resource.RLIMIT_AS, (600 << 20, 600 << 20))


class Memory(AfPacketCase):
    def refused(self, options):
        status, _, messages = run_to_its_end(*words(options=options), "-E", "null",
                                             preexec_fn=limit_memory)
        self.assertEqual(status, 255)
        return messages

    def test_a_ring_that_does_not_fit(self):
        self.assertEqual(self.refused(",ring=700"), [
            "Device kb: a ring of 700 MiB does not fit into memory", "Unable to init plugin",
            "Driver initialization failed"])

    def test_a_ring_of_another_lane_that_does_not_fit(self):
        self.assertEqual(self.refused(",ring=130,lanes=5"), [
            "Device kb: a ring of 130 MiB does not fit into memory",
            "The input has 0 queues, which is not between 1 and 64"])
