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

    def test_the_programs_account_leaves_an_export_alone_that_keeps_its_own(self):
        found = self.sum_of(self.lines_of("-E", "meter"))
        self.assertEqual(found['export_packets_total{export="meter-0"}'], "9")
        self.assertNotIn('export_lost_packets_total{export="meter-0",reason="refused"}', found)
        self.assertEqual([name for name in found if name.startswith("unaccounted")], [])

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

    def test_what_an_export_refuses_is_told_for_it(self):
        found = self.sum_of(self.lines_of("-E", "refuse", objects="final refuse collect"))
        self.assertEqual(found['export_packets_total{export="refuse-0"}'], "9")
        self.assertEqual(found['export_lost_records_total{export="refuse-0",reason="refused"}'],
                         "2")
        self.assertEqual(found['export_lost_packets_total{export="refuse-0",reason="refused"}'],
                         "6")

