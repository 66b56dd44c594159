"""Metrics of plugins: an export that keeps its own account, and those for which it is kept."""

from abi import Run, plugin

# The input "final" delivers flows of 1, 2, 3, ... packets and 100 bytes for each.
COUNT = 5


class Metrics(Run):
    def lines_of(self, *exports, objects="final meter collect"):
        """Runs over the flows of "final" until the last export, "collect", has the last one."""
        running = self.start_program(
            "-v", "0", "-X", ",".join(plugin(name) for name in objects.split()), "-I",
            f"final:count={COUNT}", *exports, "-E", f"collect:file={self.out}")
        self.wait_for_records(COUNT)
        return self.interrupt(running)

    def sum_of(self, lines):
        prefix = "VERBOSE: 0:kestrelexp_"
        return dict(line.removeprefix(prefix).rsplit(" ", 1) for line in lines
                    if line.startswith(prefix))

    # Not under the thread sanitizer: exports count on the main thread.
    def test_an_export_in_c_counts_and_looks_at_its_own_metrics(self):
        lines = self.lines_of("-E", "null", "-E", "meter")
        own = 'export="meter-1"'
        found = [line for line in lines if line.startswith(("gauge", "counter"))]
        for line in (f"counter kestrelexp_export_records_total{{{own}}} 3",
                     f"counter kestrelexp_export_packets_total{{{own}}} 9",
                     f'counter kestrelexp_export_lost_records_total{{{own},reason="odd"}} 2',
                     f'counter kestrelexp_export_lost_packets_total{{{own},reason="odd"}} 6',
                     f"gauge meter_largest_flow_packets{{{own}}} 5"):
            self.assertIn(line, found)

    # Not under the thread sanitizer: exports count on the main thread.
    def test_the_programs_account_leaves_an_export_alone_that_keeps_its_own(self):
        found = self.sum_of(self.lines_of("-E", "meter"))
        self.assertEqual(found['export_packets_total{export="meter-0"}'], "9")
        self.assertNotIn('export_lost_packets_total{export="meter-0",reason="refused"}', found)
        self.assertEqual([name for name in found if name.startswith("unaccounted")], [])

    # Not under the thread sanitizer: exports count on the main thread.
    def test_packets_that_an_export_does_not_account_for_are_told_as_a_difference(self):
        found = self.sum_of(self.lines_of("-E", "meter", objects="final meter_forgetful collect"))
        self.assertEqual({name: value for name, value in found.items()
                          if name.startswith("unaccounted")},
                         {'unaccounted_packets{export="meter-0"}': "6"})

    def test_flows_that_are_finished_when_they_come_are_in_the_sum(self):
        found = self.sum_of(self.lines_of("-E", "null"))
        self.assertEqual(found['capture_packets_total{input="final"}'], "15")
        self.assertEqual(found['capture_bytes_total{input="final"}'], "1500")
        self.assertEqual(found["handed_packets_total"], "15")
        self.assertEqual(found['export_packets_total{export="null-0"}'], "15")
        self.assertEqual([name for name in found if name.startswith("unaccounted")], [])

    def test_an_input_in_c_tells_what_it_did_not_deliver(self):
        found = self.sum_of(self.lines_of("-E", "null", objects="final_counting collect"))
        own = 'input="final"'
        for name, value in ((f'capture_dropped_packets_total{{{own},stage="ring"}}', "5000000000"),
                            (f'capture_dropped_packets_total{{{own},stage="card"}}', "7"),
                            (f"capture_sampled_out_packets_total{{{own}}}", "10"),
                            (f"capture_interface_changes_total{{{own}}}", "3"),
                            (f"capture_unread_packets{{{own}}}", "11"),
                            # Five flows of 1 to 5 packets, and what was passed over.
                            (f"capture_packets_total{{{own}}}", "25"),
                            (f"capture_bytes_total{{{own}}}", "2000"),
                            ("handed_packets_total", "15")):
            self.assertEqual(found[name], value, name)
        self.assertEqual([name for name in found if name.startswith("unaccounted")], [])

    # Not under the address sanitizer: it waits for a line.
    def test_what_the_input_did_not_deliver_is_told_while_the_program_runs(self):
        running = self.start_program("-v", "0", "-X", ",".join(map(plugin, (
            "final_counting", "collect"))), "-I", "final:count=1", "-E",
            f"collect:file={self.out}")
        running.wait_for_line(
            "VERBOSE: 0:Packets lost in the last 10 s: 7, "
            'kestrelexp_capture_dropped_packets_total{input="final",stage="card"}', 20)
        self.interrupt(running)

    # Not under the thread sanitizer: exports count on the main thread.
    def test_what_an_export_refuses_is_told_for_it(self):
        found = self.sum_of(self.lines_of("-E", "refuse", objects="final refuse collect"))
        self.assertEqual(found['export_packets_total{export="refuse-0"}'], "9")
        self.assertEqual(found['export_lost_records_total{export="refuse-0",reason="refused"}'],
                         "2")
        self.assertEqual(found['export_lost_packets_total{export="refuse-0",reason="refused"}'],
                         "6")

