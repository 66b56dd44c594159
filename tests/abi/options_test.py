"""What inputs tell of themselves for options records, and exports that act by the clock."""

# Not under the thread sanitizer: e2e.background_options_test has the threads.

from abi import Run, plugin
from testbed import options as told
from testbed.probe import ipfix
from testbed.process import wait_until

DAY = ",options-refresh-time=86400"


class Options(Run):
    def start_with_options(self, parameters, *options):
        collector = told.Datagrams()
        self.addCleanup(collector.close)
        running = self.start_program(
            "-v", "0", "-X", plugin("final_interfaces"), "-I", f"final:{parameters}",
            *options, *ipfix(collector.port, DAY))
        return running, collector

    def test_hundreds_of_interfaces_take_several_messages(self):
        running, collector = self.start_with_options("count=0,interfaces=400")
        wait_until(lambda: len(collector.options(told.NAME)) >= 400, "all interfaces")
        self.interrupt(running)
        self.assertEqual([(record[told.INGRESS], record[told.NAME], record[told.DESCRIPTION])
                          for record in collector.options(told.NAME)],
                         [(number, f"port {number}", "of the switch")
                          for number in range(1, 401)])
        told.check_sequence(collector.messages)
        rounds = [message for message in collector.messages if message.options]
        self.assertLessEqual(max(map(len, collector.raw)), 1466)
        # 400 records of 4 + 1 + 6 to 8 + 1 + 13 bytes.
        self.assertEqual(len(rounds), 8)
        self.assertEqual([message.options_templates for message in rounds], [5] + [0] * 7)

    def test_an_interface_that_comes_up_is_told_with_all_others(self):
        running, collector = self.start_with_options("count=1,every_ms=500,interfaces=2")
        wait_until(lambda: any(record[told.INGRESS] == 3
                               for record in collector.options(told.NAME)), "the third interface")
        self.interrupt(running)
        self.assertEqual([record[told.INGRESS] for record in collector.options(told.NAME)][-3:],
                         [1, 2, 3])

    def test_the_rate_is_that_of_flow_records(self):
        running, collector = self.start_with_options("count=1,sampling=50", "-S", "4")
        wait_until(lambda: collector.options(told.RATE), "the rate")
        self.interrupt(running)
        self.assertEqual([(record[told.RATE], record[told.ALGORITHM])
                          for record in collector.options(told.RATE)], [(200, 2)])

    def test_a_rate_that_flow_records_bring_is_told_when_it_comes(self):
        running, collector = self.start_with_options("count=1,every_ms=500,sampling=7", "-S", "4")
        wait_until(lambda: any(record[told.RATE] == 28 for record in collector.options(told.RATE)),
                   "another rate")
        self.interrupt(running)
        self.assertLessEqual({record[told.RATE] for record in collector.options(told.RATE)},
                             {200, 28})
        self.assertEqual(collector.options(told.RATE)[-1][told.RATE], 28)


class Tending(Run):
    def test_an_export_in_c_is_called_by_the_clock_with_and_without_flows(self):
        for flows in ("count=0", "count=200,every_ms=2"):
            with self.subTest(flows=flows):
                self.out.unlink(missing_ok=True)
                running = self.start("final collect_tending",
                                     f"-I final:{flows} -E collect:file={self.out}")
                wait_until(lambda: self.collected().count("tend") == 5, "five calls")
                self.interrupt(running)
                self.assertEqual(self.collected()[0], "tend")
                self.assertEqual(self.collected().count("tend"), 5)
