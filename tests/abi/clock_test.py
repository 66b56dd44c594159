"""Inputs that bring their own clock."""

from abi import Run, plugin
from testbed.accounts import without_sum
from testbed.probe import FLUSHED, run_to_its_end

BEGAN = 946598400  # the last day of 1999


class Clocks(Run):
    def test_the_program_lives_and_ends_on_the_time_of_the_packets(self):
        for name in ("replayed", "replayed_batches"):
            with self.subTest(object=name):
                self.assert_replayed(name)

    def assert_replayed(self, name):
        status, _, lines = run_to_its_end(
            "-v", "0", "-t", "180:10", "-X", f"{plugin(name)},{plugin('collect')}",
            "-I", "replayed", "-E", f"collect:file={self.out}")
        flows = [line.split() for line in self.collected()]
        self.assertEqual(status, 0, lines)
        self.assertEqual(without_sum(lines)[-4:], [
            "Flushing queue", "Queue flushed. 1 records out.",
            "VERBOSE: 0:Input ended: 5 packets read, 4 in 3 flows, 1 no flow", FLUSHED])
        # Start, end, packets, bytes, interfaces; both flows of the first seconds grow idle.
        self.assertEqual(sorted(flow[:6] for flow in flows if flow != ["flush"]), [
            [f"{BEGAN}000000000", f"{BEGAN}000000000", "1", "40", "11", "12"],
            [f"{BEGAN}000000000", f"{BEGAN + 1}000000000", "2", "80", "11", "12"],
            [f"{BEGAN + 20}000000000", f"{BEGAN + 20}000000000", "1", "40", "11", "12"]])

    def test_an_input_that_breaks_off_is_exported_and_ends_with_status_1(self):
        status, _, lines = run_to_its_end(
            "-v", "0", "-X", f"{plugin('replayed_failing')},{plugin('collect')}",
            "-I", "replayed", "-E", f"collect:file={self.out}")
        flows = [line for line in self.collected() if line != "flush"]
        self.assertEqual((status, len(flows)), (1, 3), lines)
        self.assertEqual(without_sum(lines)[-2:], [
            "VERBOSE: 0:Input ended: 5 packets read, 4 in 3 flows, 1 no flow", FLUSHED])

    def test_an_input_without_packets_ends_at_once(self):
        status, _, lines = run_to_its_end(
            "-X", plugin("input_packet_clock"), "-I", "variant", "-E", "null")
        self.assertEqual((status, lines[-1]), (0, FLUSHED))

    def test_a_clock_beside_other_operations_is_left_alone(self):
        for name in ("input_flow_clock", "input_final_clock"):
            with self.subTest(object=name):
                running = self.start_program(
                    "-v", "0", "-X", plugin(name), "-I", "variant", "-E", "null")
                running.wait_for_line("VERBOSE: 0:Kestrel OK")
                messages = self.interrupt(running)
                self.assertIn("CTRL-C detected, will exit as soon as possible", messages)
                self.assertIn(f"VERBOSE: 0:Plugin: {plugin(name)}, plugin_input_clock goes with "
                              "plugin_input_get_packet and is not used", messages)
                self.assertNotIn("Input ended", running.log)
