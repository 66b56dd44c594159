"""Plugins written in C11 in the real program.

Usage: abi_test.py PROGRAM PLUGIN-DIRECTORY GROUP [TEST]
"""

import ctypes
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import headers  # noqa: E402
import probe  # noqa: E402

PROGRAM = os.path.abspath(sys.argv[1])
PLUGINS = os.path.abspath(sys.argv[2])
LO = "-I pcap:device=lo"


def plugin(name):
    return f"{PLUGINS}/{name}.so"


class Headers(unittest.TestCase):
    """Each public header stands alone."""

    def compile(self, language, standard, candidates):
        compilers = [name for name in candidates if shutil.which(name)]
        self.assertTrue(compilers)
        self.assertGreater(len(headers.names()), 8)
        for compiler in compilers:
            for name in headers.names():
                with self.subTest(compiler=compiler, header=name):
                    done = subprocess.run(
                        [compiler, "-x", language, f"-std={standard}", "-fsyntax-only", "-Wall",
                         "-Wextra", "-Werror", "-pedantic", "-I", headers.DIRECTORY, "-"],
                        input=f'#include "{name}"\nint unit;\n', text=True, capture_output=True)
                    self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_as_c11(self):
        self.compile("c", "c11", ["gcc", "clang", "clang-14"])

    def test_as_cpp20(self):
        self.compile("c++", "c++20", ["g++", "clang++", "clang++-14"])


class Symbols(unittest.TestCase):
    """The program exports what the headers promise."""

    def test_names_are_read_from_declarations_of_each_form(self):
        self.assertEqual(headers.exported(
            "/* KX_API int no(void); */ extern KX_API const uint64_t table[4][256];\n"
            "KX_API struct a* f(int (*x)(void), int y)\n __attribute__((noreturn));\n"
            "KX_API some_function g, h,\n i; #define KX_API_LESS 1\n"
            "/* ---- What an external plugin defines ---- */ KX_API int own(void);"),
            ["table", "f", "g", "h", "i"])

    def test_every_declared_name_is_exported(self):
        listed = subprocess.run(["nm", "-D", "--defined-only", PROGRAM], text=True,
                                capture_output=True, check=True).stdout
        defined = {line.split()[-1] for line in listed.splitlines()}
        promised = headers.all_exported()
        self.assertGreater(len(promised), 150)
        self.assertEqual(sorted(set(promised) - defined), [])

    def test_every_declared_name_is_used_by_a_plugin(self):
        text = ""
        for path in glob.glob(os.path.join(os.path.dirname(__file__), "plugins", "everything*.c")):
            with open(path, encoding="utf-8") as source:
                text += source.read()
        used = set(re.findall(r"\w+", text))
        self.assertEqual(sorted(set(headers.all_exported()) - used), [])


def missing(name, what):
    return [f"Plugin: {plugin(name)}{what}"]


NO_DESCRIPTION = ", plugin description not found"
MULTIPLE = ["Invalid input plugin (multiple input methods present)"]
FRAMES = ["Invalid input plugin (get_packet and get_final_flow can't coexist with get_flow_packet"]
PACKET_SPACE = ["Packet input plugins are not allowed to have data space in flow record"]

# Object, and what the loader says of it; none: it is loaded.
LOADER_ROWS = [
    ("no_type", missing("no_type", ", plugin type not found")),
    ("type_0", None),
    ("type_16", None),
    ("all_kinds", None),
    ("input_no_desc", missing("input_no_desc", NO_DESCRIPTION)),
    ("input_no_init", missing("input_no_init", " no input init found.")),
    ("input_packet_space", PACKET_SPACE),
    ("input_packet_flow_space", PACKET_SPACE),
    ("input_flow_space", None),
    ("input_final_space", None),
    ("input_no_get", ["Invalid input plugin"]),
    ("input_packet_flow", MULTIPLE),
    ("input_packet_final", MULTIPLE),
    ("input_flow_final", MULTIPLE),
    ("input_packet_frames", FRAMES),
    ("input_final_frames", FRAMES),
    ("input_flow_frames", None),
    ("input_named_pcap", ["Duplicate plugin name: pcap"]),
    ("export_no_desc", missing("export_no_desc", NO_DESCRIPTION)),
    ("export_space", ["Export plugins are not allowed to have data space in flow record."]),
    ("export_no_init", missing("export_no_init", ", no export init found.")),
    ("export_no_export", missing("export_no_export", ", no export function found.")),
    ("export_no_flush", missing("export_no_flush", ", no flush function found.")),
    ("export_named_null", ["Duplicate plugin name: null"]),
    ("filter_no_desc", missing("filter_no_desc", NO_DESCRIPTION)),
    ("filter_space", ["Filter plugins are not allowed to have data space in flow record."]),
    ("filter_no_init", missing("filter_no_init", ", no filter init found.")),
    ("filter_no_filter", missing("filter_no_filter", ", no filter function found.")),
    ("process_no_desc", missing("process_no_desc", NO_DESCRIPTION)),
    ("process_no_init", missing("process_no_init", ", no process init found.")),
    ("process_no_create", missing("process_no_create", ", no init function found.")),
    ("process_no_update", missing("process_no_update", ", no update function found.")),
    ("process_no_release", missing("process_no_release", ", no release function found.")),
    ("process_space", None),
    ("broken_15", missing("broken_15", " no input init found.")),
    ("broken_14", missing("broken_14", ", no export init found.")),
    ("broken_12", missing("broken_12", ", no filter init found.")),
]


class Loader(unittest.TestCase):
    """What the loader makes of good and broken objects. One test for each row, and some more."""

    def listed(self, *objects):
        """The plugin list after these objects were loaded: (kind, name) without the built-ins."""
        status, text, lines = probe.run(
            PROGRAM, ["-X", ",".join(plugin(name) for name in objects), "-l"])
        self.assertEqual((status, lines), (0, []))
        found = []
        for line in text.splitlines():
            if line.endswith(" Plugin(s)"):
                kind = line.split()[0]
            elif line.startswith("name: "):
                found.append((kind, line[6:]))
        return [entry for entry in found if entry[1] in ("variant", "zz", "aa")]

    def test_an_object_without_kinds_is_opened_and_registers_nothing(self):
        status, text, lines = probe.run(PROGRAM, ["-v", "3", "-X", plugin("type_0"), "-l"])
        self.assertEqual(status, 0)
        self.assertEqual(lines, [
            f"VERBOSE: 0:Plugin to load: {plugin('type_0')}",
            f"VERBOSE: 2:Plugin: {plugin('type_0')} opened",
            "VERBOSE: 3:plugin type found. type: 0"])
        self.assertNotIn("name: variant", text)

    def test_an_object_of_all_kinds_registers_one_plugin_of_each(self):
        self.assertEqual(self.listed("all_kinds"), [
            ("INPUT", "variant"), ("PROCESS", "variant"), ("FILTER", "variant"),
            ("EXPORT", "variant")])

    def test_plugins_are_listed_in_the_order_of_loading(self):
        self.assertEqual(self.listed("filter_a", "filter_b"), [("FILTER", "zz"), ("FILTER", "aa")])
        self.assertEqual(self.listed("filter_b", "filter_a"), [("FILTER", "aa"), ("FILTER", "zz")])

    def test_an_object_loaded_twice_is_a_duplicate(self):
        status, _, lines = probe.run(PROGRAM, ["-X", plugin("drop"), "-X", plugin("drop")])
        self.assertEqual((status, lines), (255, ["Duplicate plugin name: drop"]))

    def test_a_description_of_several_lines_is_listed_whole(self):
        _, text, _ = probe.run(PROGRAM, ["-X", plugin("drop"), "-l"])
        self.assertIn("\nFILTER Plugin(s)\nname: drop\nDrops a port\n\n\nEXPORT Plugin(s)\n", text)


def add_loader_row(name, refusal):
    def test(self):
        status, _, lines = probe.run(PROGRAM, ["-X", plugin(name), "-V"])
        self.assertEqual(lines, refusal or [])
        self.assertEqual(status, 0 if refusal is None else 255)

    setattr(Loader, f"test_{name}", test)


for loader_row in LOADER_ROWS:
    add_loader_row(*loader_row)


class Directory(unittest.TestCase):
    """The plugin directory /usr/lib64/kestrelexp, in a mount namespace of this process."""

    @classmethod
    def setUpClass(cls):
        clone_newns, ms_rec, ms_private, ms_bind = 0x20000, 0x4000, 1 << 18, 0x1000
        libc = ctypes.CDLL(None, use_errno=True)
        cls.copy = tempfile.TemporaryDirectory()
        shutil.copytree("/usr/lib64", cls.copy.name, symlinks=True, dirs_exist_ok=True)
        cls.directory = os.path.join(cls.copy.name, "kestrelexp")
        os.makedirs(cls.directory, exist_ok=True)
        os.chmod(cls.copy.name, 0o755)
        for step in (libc.unshare(clone_newns),
                     libc.mount(None, b"/", None, ms_rec | ms_private, None),
                     libc.mount(cls.copy.name.encode(), b"/usr/lib64", None, ms_bind, None)):
            if step != 0:
                raise OSError(ctypes.get_errno(), "a mount namespace needs root")

    @classmethod
    def tearDownClass(cls):
        cls.copy.cleanup()

    def setUp(self):
        for name in os.listdir(self.directory):
            os.unlink(os.path.join(self.directory, name))

    def put(self, name, source):
        shutil.copy(source, os.path.join(self.directory, name))

    def test_its_objects_come_in_alphabetical_order_before_others(self):
        self.put("2.so", plugin("filter_b"))
        self.put("1.so", plugin("filter_a"))
        status, text, lines = probe.run(PROGRAM, ["-X", plugin("drop"), "-l"])
        self.assertEqual((status, lines), (0, []))
        names = [line for line in text.splitlines() if line in ("name: zz", "name: aa",
                                                                "name: drop")]
        self.assertEqual(names, ["name: zz", "name: aa", "name: drop"])

    def test_a_file_that_is_no_object_is_only_reported(self):
        self.put("readme.txt", "/etc/passwd")
        status, _, lines = probe.run(PROGRAM, ["-V"])
        self.assertEqual(
            (status, lines),
            (0, ["Unable to open plugin: /usr//lib64/kestrelexp/readme.txt"]))

    def test_hidden_files_are_skipped(self):
        self.put(".hidden.so", "/etc/passwd")
        self.assertEqual(probe.run(PROGRAM, ["-V"])[2], [])

    def test_a_broken_object_ends_the_program(self):
        self.put("a.so", plugin("export_named_null"))
        self.assertEqual(probe.run(PROGRAM, ["-V"])[::2], (255, ["Duplicate plugin name: null"]))


FINAL = [
    "1000000000 1500000000 1 100 3 4 ip4 0a000000 c0000201 08 proto17 1000 53 12 0 0 9",
    "2000000000 2500000000 2 200 3 4 ip4 0a000001 c0000201 08 proto17 1001 53 12 0 0 9",
    "3000000000 3500000000 3 300 3 4 ip4 0a000002 c0000201 08 proto17 1002 53 12 0 0 9",
]
# The two flows of the "flows" input: A of packets 0, 2 and 3, B of packets 1 and 4.
FLOW_A = ("4102444800000000000 4102444800003000000 3 600 1 2 ip4 0a000001 0a000002 00 "
          "proto6 1111 80 13 0 0 0")
FLOW_B = ("4102444800001000000 4102444800004000000 2 110 1 2 ip4 0a000001 0a000002 00 "
          "proto6 2222 80 12 0 0 0")


class Run(unittest.TestCase):
    """Runs the program with plugins until the collecting export has seen what it should."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.out = os.path.join(directory.name, "out")
        self.second = os.path.join(directory.name, "second")

    def start(self, objects, arguments):
        words = ["-X", ",".join(plugin(name) for name in objects.split()), *arguments.split()]
        running = probe.Probe(PROGRAM, words)
        self.addCleanup(running.__exit__)
        return running

    def collected(self, path=None):
        try:
            with open(path or self.out, encoding="ascii") as out:
                return out.read().splitlines()
        except FileNotFoundError:
            return []

    def wait_for_records(self, count, path=None):
        end = time.monotonic() + probe.SECONDS_TO_WAIT
        while len(self.collected(path)) < count and time.monotonic() < end:
            time.sleep(0.02)

    def interrupt(self, running):
        running.send(signal.SIGINT)
        self.assertEqual(running.end(), 0)
        return running.lines()


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
        self.assertEqual(running.end(), 0)
        self.assertEqual(running.lines(), [])
        self.assertEqual(self.collected(), FINAL[:1])

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
            os.unlink(self.out)

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

    def test_another_user_than_root_keeps_its_rights(self):
        running = probe.Probe(PROGRAM, ["-v", "0", "-X", plugin("final"), "-I", "final", "-u",
                                        "root", "-E", "null"], user=65534, group=65534,
                              extra_groups=[])
        self.addCleanup(running.__exit__)
        running.wait_for_line("VERBOSE: 0:Kestrel OK")
        self.assertEqual(running.status_field("Uid"), ["65534"] * 4)
        self.assertEqual(self.interrupt(running)[-4:], self.END)


class Faults(Run):
    """Plugins that fail or do not fit each other."""

    def expect(self, objects, arguments, *lines, status=255):
        running = self.start(objects, arguments)
        self.assertEqual(running.end(), status)
        self.assertEqual(running.lines(), list(lines))

    def test_an_input_that_is_not_the_first_is_final(self):
        self.expect("final", f"-I final {LO}", "Input driver allready defined")
        self.expect("final", f"{LO} -I final -I final", "Input driver allready defined")

    def test_a_later_input_replaces_the_first(self):
        self.expect("final", f"{LO} -I final", "No export set. Exiting.")

    def test_an_input_that_fails(self):
        self.expect("input_fails", "-I variant -E null", "Unable to init plugin",
                    "Driver initialization failed")

    def test_an_export_that_fails(self):
        self.expect("final export_fails", "-I final -E variant:a=1", "Export: variant ERROR")

    def test_filters_that_fail(self):
        self.expect("final filter_fails", "-I final -G variant:a=1 -E null",
                    "Unable to filter plugin: variant with args: a=1")
        self.expect("final filter_fails", "-I final -F variant:a=1 -E null",
                    "Unable to filter plugin: variant with args: a=1")
        self.expect("final filter_fails", "-I final -F variant -E null",
                    "Unable to filter plugin: variant with args: (null)")

    def test_global_filters_start_before_exports_are_looked_at(self):
        self.expect("final filter_fails", "-I final -G variant",
                    "Unable to filter plugin: variant with args: (null)")

    def test_export_filters_start_before_their_export_is_looked_up(self):
        self.expect("final filter_fails", "-I final -F variant -E nope",
                    "Unable to filter plugin: variant with args: (null)")

    def test_filters_behind_the_last_export_start_before_it_is_refused(self):
        self.expect("final drop", "-I final -E null -F drop", "Unknown export type: ", status=253)

    def test_a_process_plugin_that_fails(self):
        self.expect("final process_fails", "-I final -P variant:x -G variant -E null",
                    "Filter: variant not found.")
        self.expect("final process_fails", "-I final -P variant:x -E null",
                    "Unable to init plugin: variant with args: x")

    def test_packets_are_wanted_of_an_input_that_has_none(self):
        self.expect("final count_frames", "-I final -P frames -E null",
                    "Process plugin needs packets, but selected input mode using final flows!")
        self.expect("flows count_frames", "-I flows -P frames -E null",
                    "Process plugin needs packets, but selected input mode is not able to "
                    "provide it!")

    def test_a_getter_name_that_is_taken(self):
        self.expect("final drop", "-I final -G drop:getter=BYTE -E null",
                    "Duplicate getter found: BYTE")


class Everything(unittest.TestCase):
    """A plugin that uses all that the headers declare."""

    def test_everything(self):
        status, output, lines = probe.run(
            PROGRAM, ["-X", plugin("everything"), "-e", "vlan", "-e", "mpls", "-e", "mac", "-I",
                      "pcap:device=lo", "-E", "everything"], name="/some/where/probe")
        printed = [line for line in lines if line.startswith("flow: FLOW:")]
        self.assertEqual(len(printed), 1)
        self.assertRegex(printed[0], r"^flow: FLOW: *\d+, *\d+,16909060,84281096,IPV4,192\.0\.2\.1,"
                                     r"192\.0\.2\.2,TCP,5398,5912,---AP--F$")
        self.assertEqual([line for line in lines if line not in printed], [
            "a message 1",
            "DEBUG: 3:,here there: message 2",
            "Invalid record: 0",
            "Flushing queue",
            "Queue flushed. 1 records out.",
            "Unable to open plugin: /nonexistent/plugin.so",
            "everything: 0 failures",
            "Export: everything ERROR"])
        self.assertEqual(output, "probe: You must specify input and at least one export.\n"
                                 "Try probe '-h' for more information.\n")
        self.assertEqual(status, 255)


if __name__ == "__main__":
    probe.enter_quiet_network()
    unittest.main(argv=[sys.argv[0], *(f"{sys.argv[3]}{rest}" for rest in
                                       ([f".{name}" for name in sys.argv[4:]] or [""]))])
