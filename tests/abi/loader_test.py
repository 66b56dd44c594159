"""The plugin loader: objects named with -X, and the plugin directory."""

# Not under the thread sanitizer: it looks at what the main thread does while the program starts.

import shutil
import subprocess

from abi import plugin
from testbed import namespaces
from testbed.case import QuietCase
from testbed.probe import run_to_its_end


def missing(name, what):
    return [f"Plugin: {plugin(name)}{what}"]


def too_new(name):
    return missing(name, " was built for contract version 4, this program has 3")


NO_DESCRIPTION = ", plugin description not found"
MULTIPLE = ["Invalid input plugin (multiple input methods present)"]
FRAMES = ["Invalid input plugin (get_packet and get_final_flow can't coexist with get_flow_packet"]
PACKET_SPACE = ["Packet input plugins are not allowed to have data space in flow record"]

# Object, and what the loader says of it; none: it is loaded.
LOADER_ROWS = [
    ("version_now", None),
    ("version_next", too_new("version_next")),
    # It is refused before anything else is looked for.
    ("version_next_no_init", too_new("version_next_no_init")),
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
    ("export_nameless", missing("export_nameless", NO_DESCRIPTION)),
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


class Loader(QuietCase):
    """What the loader makes of good and broken objects."""

    def test_each_object_is_taken_or_refused_as_its_row_says(self):
        for name, refusal in LOADER_ROWS:
            with self.subTest(object=name):
                status, _, lines = run_to_its_end("-X", plugin(name), "-V")
                self.assertEqual(lines, refusal or [])
                self.assertEqual(status, 0 if refusal is None else 255)

    def listed(self, *objects):
        """The plugin list after these objects were loaded: (kind, name) without the built-ins."""
        status, text, lines = run_to_its_end("-X", ",".join(map(plugin, objects)), "-l")
        self.assertEqual((status, lines), (0, []))
        found = []
        for line in text.splitlines():
            if line.endswith(" Plugin(s)"):
                kind = line.split()[0]
            elif line.startswith("name: "):
                found.append((kind, line[6:]))
        return [entry for entry in found if entry[1] in ("variant", "zz", "aa")]

    def test_an_object_without_kinds_is_opened_and_registers_nothing(self):
        status, text, lines = run_to_its_end("-v", "3", "-X", plugin("type_0"), "-l")
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
        status, _, lines = run_to_its_end("-X", plugin("drop"), "-X", plugin("drop"))
        self.assertEqual((status, lines), (255, ["Duplicate plugin name: drop"]))

    def test_a_description_of_several_lines_is_listed_whole(self):
        _, text, _ = run_to_its_end("-X", plugin("drop"), "-l")
        self.assertIn("\n\nname: drop\nDrops a port\n\n\nEXPORT Plugin(s)\n", text)


class Directory(QuietCase):
    """The plugin directory /usr/lib64/kestrelexp, in a mount namespace of this process."""

    def setUp(self):
        super().setUp()
        copy = self.directory()
        shutil.copytree("/usr/lib64", copy, symlinks=True, dirs_exist_ok=True)
        copy.chmod(0o755)
        self.plugins = copy / "kestrelexp"
        shutil.rmtree(self.plugins, ignore_errors=True)  # of a program that is installed here
        self.plugins.mkdir()
        namespaces.unshare(namespaces.MOUNTS)
        for command in (["mount", "--make-rprivate", "/"], ["mount", "--bind", copy, "/usr/lib64"]):
            subprocess.run(command, check=True, stdin=subprocess.DEVNULL)

    def put(self, name, source):
        shutil.copy(source, self.plugins / name)

    def test_its_objects_come_in_alphabetical_order_before_others(self):
        self.put("2.so", plugin("filter_b"))
        self.put("1.so", plugin("filter_a"))
        status, text, lines = run_to_its_end("-X", plugin("drop"), "-l")
        self.assertEqual((status, lines), (0, []))
        names = [line for line in text.splitlines() if line in ("name: zz", "name: aa",
                                                                "name: drop")]
        self.assertEqual(names, ["name: zz", "name: aa", "name: drop"])

    def test_a_file_that_is_no_object_is_only_reported(self):
        self.put("readme.txt", "/etc/passwd")
        status, _, lines = run_to_its_end("-V")
        self.assertEqual(
            (status, lines),
            (0, ["Unable to open plugin: /usr//lib64/kestrelexp/readme.txt"]))

    def test_hidden_files_are_skipped(self):
        self.put(".hidden.so", "/etc/passwd")
        self.assertEqual(run_to_its_end("-V")[2], [])

    def test_a_broken_object_ends_the_program(self):
        self.put("a.so", plugin("export_named_null"))
        self.assertEqual(run_to_its_end("-V")[::2], (255, ["Duplicate plugin name: null"]))
