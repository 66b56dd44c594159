"""Inputs with queues: the same traffic through one lane and several gives the same flows."""

import os
import signal

from abi import Run, plugin
from testbed.accounts import DISCARDED, HANDED, RECEIVED, REJECTED, Sum, without_sum
from testbed.preload import preloaded
from testbed.process import settle, wait_until

BASE = 4102444800000000000
FLOWS = 20_000
SLOW_EXPORT = os.environ["KESTREL_SLOW_EXPORT"]


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


def packets_up_to(found):
    """By flow: its packets up to the last that was found of it, and that one."""
    end = max(last for _, last in found.values())
    expected = dict.fromkeys(found, 0)
    for packet in range(end + 1):
        flow = packet * 7919 % FLOWS
        if packet % 100 != 99 and flow in found and packet <= found[flow][1]:
            expected[flow] += 1
    return {flow: (packets, found[flow][1]) for flow, packets in expected.items()}


def differences(found, expected):
    return sorted((key, found.get(key), expected.get(key)) for key in found.keys() | expected
                  if found.get(key) != expected.get(key))


class Lanes(Run):
    def start_lanes(self, lanes, packets, flows, *options, objects="", **program):
        return self.start_program(
            "-v", "0", "-X", ",".join(map(plugin, ["queues", "collect", *objects.split()])),
            *options, "-I", f"queues:lanes={lanes},packets={packets},flows={flows}",
            "-E", f"collect:file={self.out}", **program)

    def run_lanes(self, lanes, packets, flows, *options, objects=""):
        """Runs until every queue is empty; returns the exported lines and the messages."""
        running = self.start_lanes(lanes, packets, flows, *options, objects=objects)
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

    def test_an_interrupt_in_the_middle_leaves_nothing_out(self):
        for lanes in (1, 2, 4):
            with self.subTest(lanes=lanes):
                running = self.start_lanes(lanes, 2_000_000_000, FLOWS, "-q", "10")
                self.wait_for_records(2000)
                lines = self.interrupt(running)
                accounts = Sum(lines)
                accounts.check(self)
                found = {}  # by flow: packets, and the last of them
                for line in self.collected():
                    if line != "flush":
                        _, end, packets, *_ = line.split()
                        last = (int(end) - BASE) // 1000
                        before, latest = found.get(last * 7919 % FLOWS, (0, 0))
                        found[last * 7919 % FLOWS] = before + int(packets), max(latest, last)
                self.assertEqual(differences(found, packets_up_to(found)), [])
                self.assertEqual(sum(packets for packets, _ in found.values()),
                                 accounts.total(HANDED))
                self.out.unlink()

    def test_a_jump_of_the_clock_flushes_all_lanes_and_the_program_goes_on(self):
        jumped = self.folder / "jumped"
        running = self.start_lanes(4, 20_000, 1000, env=preloaded(
            os.environ["KESTREL_JUMPING_CLOCK"], JUMPING_CLOCK=jumped))
        for lane in range(4):
            running.wait_for_line(f"queues: {lane} is empty")
        self.assertEqual(self.collected(), [])
        running.signal(signal.SIGALRM)  # the program looks at the clock, as it does in every 5 s
        settle(0.3)
        jumped.touch()
        running.signal(signal.SIGALRM)
        self.wait_for_records(990)
        self.assertEqual(sorted(line for line in self.collected() if line != "flush"),
                         expected_flows(20_000, 1000))
        self.assertTrue(running.running)
        lines = self.interrupt(running)
        Sum(lines).check(self)
        self.assertEqual([line for line in without_sum(lines) if "out." in line],
                         ["Queue flushed. 990 records out.", "Queue flushed. 0 records out."])

    def test_a_rejecting_global_filter_ends_the_program_without_a_flush(self):
        running = self.start_lanes(4, 20_000, 1000, "-P", "frames:export_at=1", "-G",
                                   "drop:srcport=1500", objects="drop count_frames_safe")
        self.assertEqual(running.wait(), 0)
        found = self.collected()
        self.assertNotIn("flush", found)
        self.assertEqual([line for line in found if " 1500 53 " in line], [])
        accounts = Sum(running.messages)
        self.assertGreater(accounts.total(REJECTED), 0)
        self.assertEqual([line for line in running.messages if "lush" in line], [])

    def test_what_an_input_loses_is_counted_while_its_lanes_wait_for_room(self):
        for lanes in (1, 2):
            with self.subTest(lanes=lanes):
                running = self.start_program(
                    "-v", "0", "-q", "7", "-X", f"{plugin('queues')},{SLOW_EXPORT}",
                    "-I", f"queues:lanes={lanes},packets=1000000,flows=50000,tell=1",
                    "-E", "slow_export:every=100,pause_ms=60000")
                running.wait_for_line("slow_export: pause")
                for lane in range(lanes):
                    line = f"queues: {lane} is counted"
                    before = running.lines.count(line)
                    wait_until(lambda: running.lines.count(line) >= before + 8, line, 6)
                running.kill()

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

    def check_frames_seen(self, object_, lanes, wanted):
        """A process plugin that asks for frames sees that of each packet."""
        running = self.start_program(
            "-v", "0", "-X", ",".join(map(plugin, ("queues", "collect", object_))),
            "-P", "frames", "-I", f"queues:lanes={wanted},packets=990,flows=33",
            "-E", f"collect:file={self.out},offset=88,length=8")
        for lane in range(lanes):
            running.wait_for_line(f"queues: {lane} is empty", 60)
        lines = self.interrupt(running)
        self.assertEqual([line for line in lines if " lanes of " in line],
                         [f"VERBOSE: 0:{lanes} lanes of 131072 slots"] if lanes > 1 else [])
        found = [line.split() for line in self.collected() if line != "flush"]
        self.assertEqual(len(found), 33)
        for fields in found:
            # Packets of the flow; why it ended; captured length, bytes of headers, the first byte.
            self.assertEqual(fields[-1], "+" + int(fields[2]).to_bytes(4, "little").hex().upper()
                             + "033C2A00")

    def test_process_plugins_for_several_threads_see_the_frames_of_each_lane(self):
        for lanes in (3, 4):
            with self.subTest(lanes=lanes):
                self.check_frames_seen("count_frames_safe", lanes, lanes)

    def test_a_process_plugin_for_one_thread_sees_the_frames_of_its_lane(self):
        self.check_frames_seen("count_frames", 1, 4)

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
