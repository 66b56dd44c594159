"""Inputs with queues: the same traffic through one lane and several gives the same flows."""

from abi import Run, plugin
from testbed.accounts import DISCARDED, HANDED, RECEIVED, Sum

BASE = 4102444800000000000


def expected_flows(packets, flows):
    """The flows of the input "queues", by its description."""
    seen = {}
    for packet in range(packets):
        if packet % 100 != 99:
            seen.setdefault(packet * 7919 % flows, []).append(packet)
    return sorted(
        f"{BASE + found[0] * 1000} {BASE + found[-1] * 1000} {len(found)} {46 * len(found)} 7 8 "
        f"ip4 {0x0A000000 + flow:08x} c0000201 00 proto17 {1000 + flow} 53 00 0 100 0"
        for flow, found in seen.items())


class Lanes(Run):
    def run_lanes(self, lanes, packets, flows, *options, objects=""):
        """Runs until every queue is empty; returns the exported lines and the messages."""
        running = self.start_program(
            "-v", "0", "-X", ",".join(map(plugin, ["queues", "collect", *objects.split()])),
            *options, "-I", f"queues:lanes={lanes},packets={packets},flows={flows}",
            "-E", f"collect:file={self.out}")
        for lane in range(1 if objects == "count" else lanes):
            running.wait_for_line(f"queues: {lane} is empty", 60)
        lines = self.interrupt(running)
        return sorted(line for line in self.collected() if line != "flush"), lines

    def test_one_two_and_four_lanes_give_the_same_flows(self):
        for lanes in (1, 2, 3, 4):
            with self.subTest(lanes=lanes):
                found, lines = self.run_lanes(lanes, 50_000, 3000, "-q", "16")
                self.assertEqual(found, expected_flows(50_000, 3000))
                accounts = Sum(lines)
                accounts.check(self)
                self.assertEqual(accounts.total(RECEIVED), 50_000)
                self.assertEqual(accounts.reasons(DISCARDED), {"not_ip": 500})
                self.assertEqual(accounts.total(HANDED), 49_500)

    def test_caches_that_are_too_small_lose_no_packet(self):
        found, lines = self.run_lanes(4, 20_000, 5000, "-q", "7")
        accounts = Sum(lines)
        accounts.check(self)
        self.assertEqual(accounts.total(HANDED), 19_800)
        self.assertEqual(sum(int(line.split()[2]) for line in found), 19_800)
        self.assertGreater(accounts.reasons("kestrelexp_cache_removed_flows_total")["collision"],
                           1000)

    def test_what_each_queue_counts_is_added_up(self):
        _, lines = self.run_lanes(3, 100, 10)
        self.assertEqual(Sum(lines).total("kestrelexp_capture_dropped_packets_total"), 10 + 11 + 12)

    def test_the_flush_of_all_lanes_is_said_once(self):
        _, lines = self.run_lanes(4, 1000, 50)
        self.assertEqual([line for line in lines if "lush" in line], [
            "Flushing queue", "Queue flushed. 50 records out.",
            "QUIT signal processed. All data flushed. Exiting ..."])

    def test_the_slots_are_shared_out(self):
        _, lines = self.run_lanes(2, 100, 10, "-q", "12")
        self.assertIn("VERBOSE: 0:2 lanes of 2048 slots", lines)

    def test_a_process_plugin_that_does_not_say_otherwise_has_one_lane(self):
        found, lines = self.run_lanes(4, 2000, 50, "-P", "count", objects="count")
        self.assertEqual(found, expected_flows(2000, 50))
        self.assertIn("VERBOSE: 0:Process plugin count is not made for several threads: one lane",
                      lines)
        self.assertEqual([line for line in lines if line.startswith("queues:")],
                         ["queues: 0 is empty"])

    def test_process_plugins_for_several_threads_see_the_frames_of_each_lane(self):
        running = self.start_program(
            "-v", "0", "-X", ",".join(map(plugin, ("queues", "collect", "count_frames_safe"))),
            "-P", "frames", "-I", "queues:lanes=3,packets=990,flows=33",
            "-E", f"collect:file={self.out},offset=88,length=8")
        for lane in range(3):
            running.wait_for_line(f"queues: {lane} is empty", 60)
        self.assertIn("VERBOSE: 0:3 lanes of 131072 slots", self.interrupt(running))
        # Packets of the flow; why it ended; captured length, bytes of headers and the first byte.
        areas = sorted(line.split(" +")[1] for line in self.collected() if line != "flush")
        self.assertEqual(len(areas), 33)
        for line in (line for line in self.collected() if line != "flush"):
            packets = int(line.split()[2])
            self.assertEqual(line.split(" +")[1],
                             packets.to_bytes(4, "little").hex().upper() + "033C2A00")

    def test_numbers_of_queues_out_of_range_end_the_start(self):
        for answer in (0, 65):
            with self.subTest(answer=answer):
                running = self.start("queues", f"-I queues:answer={answer} -E null")
                self.assertEqual(running.wait(), 255)
                self.assertIn(f"The input has {answer} queues, which is not between 1 and 64",
                              running.messages)

    def test_a_cache_that_is_too_small_for_the_lanes_ends_the_start(self):
        running = self.start("queues", "-q 7 -I queues:lanes=5 -E null")
        self.assertEqual(running.wait(), 255)
        self.assertIn("A flow cache of 128 slots is too small for 5 lanes: -q 8 or more",
                      running.messages)

    # Not under the address sanitizer: it waits for a line, and its frames are plain.
    def test_the_statistics_are_those_of_all_lanes(self):
        running = self.start_program(
            "-v", "0", "-X", ",".join(map(plugin, ("queues", "collect"))),
            "-I", "queues:lanes=4,packets=40000,flows=1000", "-E", "null")
        line = running.wait_for_line("VERBOSE: 0:stat  ", 30)
        self.interrupt(running)
        # Flows in the caches; of the 1,000, ten have nothing but ARP frames.
        self.assertEqual(int(line.split(",")[3]), 990)
