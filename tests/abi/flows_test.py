"""Plugins at work: records on their way, and plugins that fail."""

import os
import shutil

from abi import FINAL, Run, plugin
from testbed.accounts import HANDED, LOST, REJECTED, Sum, without_sum
from testbed.process import status_field

LO = "-I pcap:device=lo"

# The two flows of the "flows" input: A of packets 0, 2 and 3, B of packets 1 and 4.
FLOW_A = ("4102444800000000000 4102444800003000000 3 600 1 2 ip4 0a000001 0a000002 00 "
          "proto6 1111 80 13 0 0 0")
FLOW_B = ("4102444800001000000 4102444800004000000 2 110 1 2 ip4 0a000001 0a000002 00 "
          "proto6 2222 80 12 0 0 0")


class Flows(Run):
    """Records on their way from an input plugin to an export plugin."""

    END = [
        "CTRL-C detected, will exit as soon as possible",
        "Flushing queue",
        "Queue flushed. 0 records out.",
        "QUIT signal processed. All data flushed. Exiting ...",
    ]

    def test_final_flows_reach_the_export(self):
        running = self.start("final collect", f"-I final -E collect:file={self.out}")
        self.wait_for_records(3)
        self.assertEqual(self.interrupt(running), self.END)
        self.assertEqual(self.collected(), FINAL + ["flush"])

    def test_many_final_flows_pass_a_ring_of_two_slots(self):
        running = self.start("final collect",
                             f"-v 0 -q 20 -I final:count=5000 -E collect:file={self.out}")
        self.wait_for_records(5000)
        lines = self.interrupt(running)
        self.assertIn("VERBOSE: 0:Temporal storage init: 2 of 88 (mem: 0 KiB) final-records",
                      lines)
        self.assertEqual(self.collected(), [
            f"{i}000000000 {i}500000000 {i} {100 * i} 3 4 ip4 {0x0A000000 + i - 1:08x} c0000201 "
            f"08 proto17 {999 + i} 53 12 0 0 9" for i in range(1, 5001)] + ["flush"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_interfaces_and_sampling_of_exports(self):
        running = self.start(
            "final collect",
            f"-I final -N 5 -n 6 -S 2 -E collect:file={self.out} -E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)
        stamped = [line.replace(" 3 4 ip4", " 5 6 ip4") for line in FINAL]
        self.assertEqual(self.collected(self.second), stamped + ["flush"])
        self.assertEqual(self.collected(), [
            stamped[0].replace(" 0 0 9", " 0 2 9"), stamped[2].replace(" 0 0 9", " 0 2 9"),
            "flush"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_an_export_filter_skips_its_export_alone(self):
        running = self.start(
            "final collect drop",
            f"-I final -F drop:srcport=1001 -F drop:tos=255 -E collect:file={self.out} "
            f"-E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)
        changed = [line.replace(" 08 proto17", " ff proto17") for line in FINAL]
        self.assertEqual(self.collected(), [changed[0], changed[2], "flush"])
        # What a filter wrote stays; the second record was dropped before it was changed.
        self.assertEqual(self.collected(self.second), [changed[0], FINAL[1], changed[2], "flush"])

    def test_a_rejecting_global_filter_ends_the_program_without_a_flush(self):
        running = self.start("final collect drop",
                             f"-I final -G drop:srcport=1001 -E collect:file={self.out}")
        self.assertEqual(running.wait(), 0)
        self.assertEqual(running.messages, [])
        self.assertEqual(self.collected(), FINAL[:1])

    def test_what_is_not_flushed_then_is_lost_to_its_export(self):
        # Record n has n packets and the port 999 + n.
        running = self.start("final drop", "-v 0 -I final:count=10 -G drop:srcport=1006 "
                             "-E netflow-v5:host=127.0.0.1,port=2055 -E null")
        self.assertEqual(running.wait(), 0)
        accounts = Sum(running.lines)
        accounts.check(self)
        self.assertEqual((accounts.total(HANDED), accounts.total(REJECTED)), (21, 7))
        self.assertEqual(accounts.reasons(LOST, 'export="netflow-v5-0"'), {"not_flushed": 21})
        self.assertEqual(accounts.total("kestrelexp_export_lost_records_total",
                                        'export="netflow-v5-0"'), 6)
        self.assertEqual(accounts.reasons(LOST, 'export="null-1"'), {})

    def rules(self, name, *lines):
        path = self.folder / name
        path.write_text("".join(line + "\n" for line in lines), encoding="ascii")
        return f"filter:{path}"

    # Not under the thread sanitizer: it is all on the main thread.
    def test_rules_keep_flows_from_their_export_alone(self):
        rules = self.rules("rules", "not src addr 10.0.0.1", "src port 1000-2000")
        running = self.start(
            "final collect",
            f"-I final -F {rules} -E collect:file={self.out} -E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)
        self.assertEqual(self.collected(), [FINAL[0], FINAL[2], "flush"])
        self.assertEqual(self.collected(self.second), FINAL + ["flush"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_all_rule_files_of_an_export_must_keep_a_flow(self):
        one = self.rules("one", "not src port 1000", "any")
        other = self.rules("other", "fast src addr 10.0.0.0-10.0.0.1")
        running = self.start(
            "final collect", f"-I final -F {one} -F {other} -E collect:file={self.out} "
            f"-E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)
        self.assertEqual(self.collected(), [FINAL[1], "flush"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_rules_see_the_interface_that_their_export_set(self):
        three = self.rules("three", "phy 3", "any")
        running = self.start(
            "final collect", f"-I final -F {three} -E collect:file={self.out} "
            f"-N 5 -F {three} -E collect:file={self.second}")
        self.wait_for_records(3, self.second)
        self.interrupt(running)
        self.assertEqual(self.collected(), ["flush"])
        self.assertEqual(self.collected(self.second),
                         [line.replace(" 3 4 ip4", " 5 4 ip4") for line in FINAL] + ["flush"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_rules_for_all_exports_end_the_program_at_the_first_flow_that_they_drop(self):
        rules = self.rules("rules", "bytes 200", "any")
        running = self.start("final collect",
                             f"-I final -G {rules} -E collect:file={self.out}")
        self.assertEqual(running.wait(), 0)
        self.assertEqual(running.messages, [])
        self.assertEqual(self.collected(), FINAL[:1])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_rules_for_all_exports_that_keep_every_flow_change_nothing(self):
        rules = self.rules("rules", "fast src addr 10.0.0.0/8", "port domain")
        running = self.start("final collect",
                             f"-I final -G {rules} -E collect:file={self.out}")
        self.wait_for_records(3)
        self.assertEqual(self.interrupt(running), self.END)
        self.assertEqual(self.collected(), FINAL + ["flush"])

    def test_packets_become_flows(self):
        running = self.start("flows collect",
                             f"-q 10 -t 6000:600 -I flows -E collect:file={self.out}"
                             ",offset=88,length=2")
        running.wait_for_line("flows: needs packets 0, area at 88")
        running.wait_for_line("flows: all delivered")
        lines = self.interrupt(running)
        self.assertIn("Queue flushed. 2 records out.", lines)
        # In slot order; the input's own two bytes are those of each flow's first packet.
        self.assertEqual(self.collected(), [FLOW_A + " +00AB", FLOW_B + " +01AB", "flush"])

    def test_a_process_plugin_sees_every_packet_and_the_end(self):
        running = self.start(
            "flows collect count",
            f"-q 10 -t 6000:600 -e mac -I flows -P count -e vlan -E collect:file={self.out}"
            ",offset=102,length=8")
        running.wait_for_line("flows: needs packets 0, area at 100")
        running.wait_for_line("flows: all delivered")
        self.interrupt(running)
        # Reason 3: ended by the flush.
        self.assertEqual(self.collected(), [
            FLOW_A + " +0300000003000000", FLOW_B + " +0200000003000000", "flush"])

    def test_a_process_plugin_sees_the_frame_behind_each_packet(self):
        running = self.start(
            "flows_with_frames collect count_frames",
            f"-q 10 -t 6000:600 -I flows -P frames -E collect:file={self.out}"
            ",offset=90,length=8")
        running.wait_for_line("flows: needs packets 1, area at 88")
        running.wait_for_line("flows: all delivered")
        self.interrupt(running)
        # The last packets are number 3 (63 bytes, 23 of headers, F3...) and number 4.
        self.assertEqual(self.collected(), [
            FLOW_A + " +03000000033F17F3", FLOW_B + " +02000000034018F4", "flush"])

    def test_a_process_plugin_exports_flows_at_once(self):
        for objects in ("flows", "flows_with_frames"):  # reader and switch on two threads, on one
            running = self.start(
                f"{objects} collect count",
                f"-q 10 -t 6000:600 -I flows -P count:export_at=2 -E collect:file={self.out}"
                ",offset=90,length=8")
            self.wait_for_records(2)
            self.assertEqual(self.collected(), [
                # A after packets 0 and 2, B after 1 and 4; packet 3 begins a new flow.
                "4102444800000000000 4102444800002000000 2 300 1 2 ip4 0a000001 0a000002 00 "
                "proto6 1111 80 12 0 0 1 +0200000003000000",
                FLOW_B[:-1] + "1 +0200000003000000"])
            self.interrupt(running)
            self.assertEqual(self.collected()[2:], [
                "4102444800003000000 4102444800003000000 1 300 1 2 ip4 0a000001 0a000002 00 "
                "proto6 1111 80 01 0 0 0 +0100000003000000",
                "flush"])
            self.out.unlink()

    def test_a_process_plugin_exports_a_first_packet_at_once(self):
        running = self.start(
            "flows collect count",
            f"-q 10 -t 6000:600 -I flows -P count:export_at=1 -E collect:file={self.out}")
        self.wait_for_records(5)
        lines = self.interrupt(running)
        self.assertIn("Queue flushed. 0 records out.", lines)
        self.assertEqual([line.split()[2:4] for line in self.collected()],
                         [["1", "100"], ["1", "50"], ["1", "200"], ["1", "300"], ["1", "60"],
                          []])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_getters_of_plugins_join_their_tables(self):
        running = self.start(
            "final collect count drop",
            f"-v 1 -I final -P count -G drop:getter=GLOBAL -F drop:getter=MINE "
            f"-E collect:file={self.out} -E null")
        running.wait_for_line("VERBOSE: 0:Kestrel OK")
        lines = self.interrupt(running)
        base = [line for line in lines if line.startswith("VERBOSE: 1:Base Getter: ")]
        self.assertEqual(len(base), 41)  # 38 of the program's own
        self.assertEqual(base[0], "VERBOSE: 1:Base Getter: ZERO - 8")
        self.assertEqual(base[38:], [
            "VERBOSE: 1:Base Getter: FINAL_NUMBER - 4", "VERBOSE: 1:Base Getter: COUNTED - 4",
            "VERBOSE: 1:Base Getter: GLOBAL - 2"])
        exports = [line for line in lines if line.startswith(("VERBOSE: 1:Getter: ", "VERBOSE: 0:"
                                                              "Export: "))]
        self.assertEqual(len(exports), 42 + 1 + 41 + 1)
        self.assertEqual(exports[40:43], [
            "VERBOSE: 1:Getter: GLOBAL - 2", "VERBOSE: 1:Getter: MINE - 2",
            "VERBOSE: 0:Export: collect OK"])
        self.assertEqual(exports[-2:], [
            "VERBOSE: 1:Getter: GLOBAL - 2", "VERBOSE: 0:Export: null OK"])

    # Not under the thread sanitizer: it is all on the main thread.
    def test_another_user_than_root_keeps_its_rights(self):
        folder = self.directory()
        folder.chmod(0o755)  # the source tree may be where only root can look
        program, final = (shutil.copy(path, folder)
                          for path in (os.environ["KESTREL_PROBE"], plugin("final")))
        running = self.start_program(
            "-v", "0", "-X", final, "-I", "final", "-u", "root", "-E", "null", program=program,
            user=65534, group=65534, extra_groups=[])
        running.wait_for_line("VERBOSE: 0:Kestrel OK")
        self.assertEqual(status_field(running.pid, "Uid"), ["65534"] * 4)
        self.assertEqual(without_sum(self.interrupt(running))[-4:], self.END)


class Faults(Run):
    """Plugins that fail or do not fit each other."""

    def expect(self, objects, arguments, *lines, status=255):
        running = self.start(objects, arguments)
        self.assertEqual(running.wait(), status)
        self.assertEqual(running.messages, list(lines))

    # Not under the thread sanitizer: no thread is started.
    def test_an_input_that_is_not_the_first_is_final(self):
        self.expect("final", f"-I final {LO}", "Input driver allready defined")
        self.expect("final", f"{LO} -I final -I final", "Input driver allready defined")

    # Not under the thread sanitizer: no thread is started.
    def test_a_later_input_replaces_the_first(self):
        self.expect("final", f"{LO} -I final", "No export set. Exiting.")

    # Not under the thread sanitizer: no thread is started.
    def test_an_input_that_fails(self):
        self.expect("input_fails", "-I variant -E null", "Unable to init plugin",
                    "Driver initialization failed")

    # Not under the thread sanitizer: no thread is started.
    def test_an_export_that_fails(self):
        self.expect("final export_fails", "-I final -E variant:a=1", "Export: variant ERROR")

    # Not under the thread sanitizer: no thread is started.
    def test_filters_that_fail(self):
        self.expect("final filter_fails", "-I final -G variant:a=1 -E null",
                    "Unable to filter plugin: variant with args: a=1")
        self.expect("final filter_fails", "-I final -F variant:a=1 -E null",
                    "Unable to filter plugin: variant with args: a=1")
        self.expect("final filter_fails", "-I final -F variant -E null",
                    "Unable to filter plugin: variant with args: (null)")

    # Not under the thread sanitizer: no thread is started.
    def test_a_filter_may_want_its_parameters_whole(self):
        for place in "GF":
            self.expect("final filter_whole", f"-I final -{place} variant:a=1:2::3 -E null",
                        "Unable to filter plugin: variant with args: a=1:2::3")
            self.expect("final filter_fails", f"-I final -{place} variant:a=1:2::3 -E null",
                        "Unable to filter plugin: variant with args: a=1")
            self.expect("final filter_flag_1", f"-I final -{place} variant:a=1:2::3 -E null",
                        "Unable to filter plugin: variant with args: a=1")
        self.expect("final filter_whole", "-I final -G variant: -E null",
                    "Unable to filter plugin: variant with args: (null)")

    # Not under the thread sanitizer: no thread is started.
    def test_global_filters_start_before_exports_are_looked_at(self):
        self.expect("final filter_fails", "-I final -G variant",
                    "Unable to filter plugin: variant with args: (null)")

    # Not under the thread sanitizer: no thread is started.
    def test_export_filters_start_before_their_export_is_looked_up(self):
        self.expect("final filter_fails", "-I final -F variant -E nope",
                    "Unable to filter plugin: variant with args: (null)")

    # Not under the thread sanitizer: no thread is started.
    def test_filters_behind_the_last_export_start_before_it_is_refused(self):
        self.expect("final drop", "-I final -E null -F drop", "Unknown export type: ", status=253)

    # Not under the thread sanitizer: no thread is started.
    def test_a_process_plugin_that_fails(self):
        self.expect("final process_fails", "-I final -P variant:x -G variant -E null",
                    "Filter: variant not found.")
        self.expect("final process_fails", "-I final -P variant:x -E null",
                    "Unable to init plugin: variant with args: x")

    # Not under the thread sanitizer: no thread is started.
    def test_packets_are_wanted_of_an_input_that_has_none(self):
        self.expect("final count_frames", "-I final -P frames -E null",
                    "Process plugin needs packets, but selected input mode using final flows!")
        self.expect("flows count_frames", "-I flows -P frames -E null",
                    "Process plugin needs packets, but selected input mode is not able to "
                    "provide it!")

    # Not under the thread sanitizer: no thread is started.
    def test_a_getter_name_that_is_taken(self):
        self.expect("final drop", "-I final -G drop:getter=BYTE -E null",
                    "Duplicate getter found: BYTE")
