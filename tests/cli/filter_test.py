"""Rule files on the command line: what a start with them says, and how it ends."""

# Not under the thread sanitizer: it looks at forks, signal masks and the start, all one thread.

from pathlib import Path

from rows import CAPTURE_DEFAULTS, LO
from testbed.case import QuietCase
from testbed.probe import run_to_its_end

NO_HOST = 64 * "x"  # no name has a part of 64 letters

# A faulty rule, and what is said of it.
FAULTS = [
    ("fast", ["Incomplete rule: fast"]),
    ("fast not", ["Invalid rule found"]),
    ("fast src addr", ["Incomplete rule: fast src addr"]),
    ("fast src port 80", ["Invalid fast rule. only addr field is allowed"]),
    ("fast src addr 10.0.0.0/33", ["Invalid mask found", "Invalid rule found"]),
    ("port", ["Incomplete rule: port"]),
    ("any port 80", ["Addon parameters after ANY are not allowed"]),
    ("src vlan 5", ["src|dst prefix not allowed for vlans"]),
    ("dst phy 5", ["src|dst prefix not allowed for physical interface id"]),
    ("src packets 5", ["src|dst prefix not allowed for packet count"]),
    ("dst bytes 5", ["src|dst prefix not allowed for byte count"]),
    ("proto nosuchproto", ["Unknown proto: nosuchproto"]),
    ("ipproto 4", ["Bad invalid ipproto protocol: 4"]),
    ("colour blue", ["Invalid rule: colour blue"]),
    ("addr 10.0.0.0/8/8", ["Bad formated address/mask"]),
    ("addr 10.0.0.1-", ["Bad formated address-range"]),
    ("addr " + NO_HOST, ["Unable to resolve host: " + NO_HOST]),
    ("addr 10.0.0.1-::1", ["Unable to mix ipv4 and ipv6 address"]),
    ("addr ::/129", ["Invalid mask found"]),
    ("port 80-", ["Bad formatted range"]),
    ("port 81-80", ["invalid range: 81-80"]),
    ("bytes 3000000000-5", ["invalid range: -1294967296-5"]),
    ("vlan ssh", ["Invalid number: ssh"]),
    ("port nosuchservice", ["Unknown service name: nosuchservice"]),
]


class Filters(QuietCase):
    def setUp(self):
        super().setUp()
        self.folder = self.directory()

    def rules(self, text, name="rules.txt"):
        path = self.folder / name
        path.write_text(text, encoding="ascii")
        return path

    def expect(self, arguments, status, *lines):
        got_status, _, got_lines = run_to_its_end(*arguments.split())
        self.assertEqual(got_lines, list(lines))
        self.assertEqual(got_status, status)

    def refusal(self, path):
        return f"Unable to filter plugin: filter with args: {path}"

    def test_every_fault_ends_the_start(self):
        for rule, lines in FAULTS:
            with self.subTest(rule=rule):
                path = self.rules(f"any\n{rule}\n")
                self.expect(f"{LO} -F filter:{path} -E null", 255, *lines, self.refusal(path))

    def test_a_faulty_global_filter_ends_the_start_before_the_exports(self):
        path = self.rules("colour blue\n")
        self.expect(f"{LO} -G filter:{path} -E nope", 255, "Invalid rule: colour blue",
                    self.refusal(path))

    def test_the_filter_of_the_second_export_may_be_the_faulty_one(self):
        good = self.rules("any\n", "good.txt")
        bad = self.rules("port 80-\n", "bad.txt")
        self.expect(f"-v 0 {LO} -F filter:{good} -E null -F filter:{bad} -E null", 255,
                    CAPTURE_DEFAULTS, "VERBOSE: 0:Plugin OK", "VERBOSE: 0:Filter OK",
                    "VERBOSE: 0:Export: null OK", "Bad formatted range", self.refusal(bad))

    def test_a_file_that_is_not_there(self):
        self.expect(f"{LO} -F filter:/nonexistent/rules -E null", 255,
                    "Unable to read filter config", self.refusal("/nonexistent/rules"))

    def test_no_file_at_all(self):
        self.expect(f"{LO} -F filter -E null", 255, "Unable to read filter config",
                    self.refusal("(null)"))

    def test_the_name_of_the_plugin_may_be_cut_short(self):
        path = self.rules("colour blue\n")
        self.expect(f"{LO} -F f:{path} -E null", 255, "Invalid rule: colour blue",
                    self.refusal(path))
        self.expect(f"{LO} -F filters:{path} -E null", 255, "Filter: filters not found.")

    def test_faults_are_silent_below_their_level_and_end_the_start_all_the_same(self):
        path = self.rules("colour blue\n")
        status, _, lines = run_to_its_end(
            "-v", " -2", *f"{LO} -F filter:{path} -E null".split())
        self.assertEqual((status, lines), (255, []))

    def start(self, arguments):
        running = self.start_program(*arguments.split())
        running.wait_for_line("VERBOSE: 0:Kestrel OK")
        return self.interrupt(running)

    def test_good_files_are_told(self):
        first = self.rules("fast src addr 10.0.0.0/8\nnot port ssh\nany\n", "first.txt")
        second = self.rules("# nothing\n", "second.txt")
        lines = self.start(f"-v 5 {LO} -G filter:{first} -F filter:{second} -E null")
        told = [line for line in lines
                if line.startswith(("VERBOSE: 0:Filter", "VERBOSE: 5:size", "VERBOSE: 5:count"))]
        self.assertEqual(told, [
            "VERBOSE: 0:Filter OK",
            "VERBOSE: 5:size:  fast4: 20, fast6: 68, slow: 128",
            "VERBOSE: 5:count: fast4: 1, fast6: 0, slow: 2",
            "VERBOSE: 0:Filter OK",
            "VERBOSE: 5:size:  fast4: 20, fast6: 68, slow: 128",
            "VERBOSE: 5:count: fast4: 0, fast6: 0, slow: 0",
        ])

    def test_a_hundred_thousand_rules_are_no_burden(self):
        path = self.rules("".join(f"fast src addr 10.{n >> 16}.{n >> 8 & 255}.{n & 255}\n"
                                  for n in range(100_000)))
        self.assertIn("VERBOSE: 5:count: fast4: 100000, fast6: 0, slow: 0",
                      self.start(f"-v 5 {LO} -F filter:{path} -E null"))

    def test_the_example_is_taken(self):
        path = Path(__file__).resolve().parents[2] / "etc/filter-example.txt"
        self.assertIn("VERBOSE: 0:Filter OK",
                      self.start(f"-v 0 {LO} -F filter:{path} -E null"))
