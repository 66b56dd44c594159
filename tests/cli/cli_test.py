"""The command line of the real program: arguments, messages, exit status, texts.

Usage: cli_test.py PROGRAM GROUP [TEST]
"""

import ctypes
import os
import re
import signal
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import probe  # noqa: E402

PROGRAM = os.path.abspath(sys.argv[1])

LO = "-I pcap:device=lo"
NO_INPUT = "Input driver not set"
BASE = "Base parameter can't be set here"
UNKNOWN = "Unknown option found: "
CAPTURE_DEFAULTS = "VERBOSE: 0:Temporal storage init: 32768 of 88 (mem: 2816 KiB) final-records"

# Name, arguments (words parted by blanks, or a list), exit status, every line of standard error.
ROWS = [
    # --- what getopt finds
    ("an unknown letter", "-z", 255, ["kestrelexp: invalid option -- 'z'", UNKNOWN + "?"]),
    ("a missing argument", "-q", 255,
     ["kestrelexp: option requires an argument -- 'q'", UNKNOWN + "?"]),
    ("a missing argument of -E", "-I pcap -E", 255,
     ["kestrelexp: option requires an argument -- 'E'", UNKNOWN + "?"]),
    ("a stray word", "pcap:device=lo", 255, [UNKNOWN + "\x01"]),
    ("a stray word behind options", "-q 10 lo -E null", 255, [UNKNOWN + "\x01"]),
    ("words behind the end of options are not read", "-q 10 -- -z", 255, [NO_INPUT]),

    # --- no input
    ("nothing at all", "", 255, [NO_INPUT]),
    ("an export but no input", "-E null", 255, [NO_INPUT]),
    ("no input is found after the storage was built", "-v 0", 255, [CAPTURE_DEFAULTS, NO_INPUT]),
    ("a refusal stays silent below its level", ["-v", " -2"], 255, []),

    # --- where base options may stand
    ("a base option before the first export", "-q 10 -E null", 255, [NO_INPUT]),
    ("-d behind an export", "-E null -d", 255, [BASE]),
    ("-e behind an export", "-E null -e vlan", 255, [BASE]),
    ("-m behind an export", "-E null -m 1", 255, [BASE]),
    ("-u behind an export", "-E null -u root", 255, [BASE]),
    ("-v behind an export", "-E null -v 1", 255, [BASE]),
    ("-X behind an export", "-E null -X a.so", 255, [BASE]),
    ("-G behind an export", "-E null -G a", 255, [BASE]),
    ("-P behind an export", "-E null -P a", 255, [BASE]),
    ("-C behind an export", "-E null -C 1", 255, [BASE]),
    ("-I behind an export", "-E null -I pcap:device=lo", 255, [BASE]),
    ("-q behind an export", "-E null -q 10", 255, [BASE]),
    ("-t behind an export", "-E null -t 60:10", 255, [BASE]),
    ("a base option behind the second export", "-E null -E null -q 10", 255, [BASE]),
    ("a base option behind export options", "-E null -n 1 -q 10", 255, [BASE]),
    ("-H behind an export is accepted", "-q 5 -E null -H /tmp", 255, [NO_INPUT]),
    ("-h behind an export is accepted", "-E null -h", 0, []),
    ("-l behind an export is accepted", "-E null -l", 0, []),
    ("-V behind an export is accepted", "-E null -V", 0, []),
    ("export options before base options", "-S 1 -n 1 -N 1 -q 10", 255, [NO_INPUT]),

    # --- timeouts
    ("equal timeouts", "-t 100:100", 255, ["Active timeout less or equal inactive timeout"]),
    ("an active timeout below the inactive one", "-t 10:11", 255,
     ["Active timeout less or equal inactive timeout"]),
    ("an active timeout below the kept inactive one", "-t 5", 255,
     ["Active timeout less or equal inactive timeout"]),
    ("an active timeout too short", "-t 3:1", 255, ["Active timeout out of range"]),
    ("an active timeout too long", "-t 6001:10", 255, ["Active timeout out of range"]),
    ("an active timeout that is no number", "-t a:1", 255, ["Active timeout out of range"]),
    ("an inactive timeout too short", "-t 180:0", 255, ["Inactive timeout out of range"]),
    ("an inactive timeout too long", "-t 6000:601", 255, ["Inactive timeout out of range"]),
    ("the inactive timeout is looked at first", "-t 3:0", 255, ["Inactive timeout out of range"]),
    ("timeouts at their limits", "-t 6000:600 -t 4:1", 255, [NO_INPUT]),
    ("timeouts are shown at level 1", "-v 1 -t 60:10 -t 100", 255,
     ["VERBOSE: 1:Active timeout: 60", "VERBOSE: 1:Inactive timeout: 10",
      "VERBOSE: 1:Active timeout: 100", "VERBOSE: 1:Inactive timeout: 10",
      CAPTURE_DEFAULTS, NO_INPUT]),
    ("timeouts are shown before they are refused", "-v 1 -t 1:2", 255,
     ["VERBOSE: 1:Active timeout: 1", "VERBOSE: 1:Inactive timeout: 2",
      "Active timeout out of range"]),

    # --- queue size
    ("a queue too small", "-q 4", 255, ["4 is not valid queue size"]),
    ("a queue too large", "-q 31", 255, ["31 is not valid queue size"]),
    ("a queue size that is no number", "-q x", 255, ["0 is not valid queue size"]),
    ("the smallest queue", "-v 0 -q 5", 255,
     ["VERBOSE: 0:Queue mem = 3584",
      "VERBOSE: 0:Temporal storage init: 2 of 88 (mem: 0 KiB) final-records", NO_INPUT]),
    ("the largest queue", "-v 0 -q 30 -h", 0, ["VERBOSE: 0:Queue mem = 120259084288"]),

    # --- CPU mask, sampling, blocks
    ("no CPU", "-m 0", 255, ["Allowed CPU mask is from 1 to -1"]),
    ("a CPU mask that is no number", "-m x", 255, ["Allowed CPU mask is from 1 to -1"]),
    ("no CPU is refused when the options are read", "-m 0 -q 4", 255,
     ["4 is not valid queue size"]),
    ("the first CPU", "-v 0 -m 1", 255,
     ["VERBOSE: 0:CPU mask set OK", CAPTURE_DEFAULTS, NO_INPUT]),
    ("a negative sampling rate", "-S -1 -E null", 255,
     ["Blank or bad parameter for option: -S"]),
    ("a negative sampling rate behind a blank", ["-S", " -1", "-E", "null"], 255,
     ["Bad sampling rate"]),
    ("no sampling", "-S 0 -E null", 255, [NO_INPUT]),
    ("an unknown block", "-v 1 -e foo -h", 0,
     ["VERBOSE: 1:Record size: 88", "VERBOSE: 1:Fast record size: 24"]),
    ("vlan and mac blocks", "-v 1 -e vlan -e mac -h", 0,
     ["VERBOSE: 1:Record size: 110", "VERBOSE: 1:Fast record size: 24"]),
    ("all blocks", "-v 1 -e vlan -e mpls -e mac -h", 0,
     ["VERBOSE: 1:Record size: 154", "VERBOSE: 1:Fast record size: 24"]),
    ("the sizes are shown above level 0", "-v 0 -h", 0, []),
    ("blocks widen the record", "-v 0 -q 5 -e mpls", 255,
     ["VERBOSE: 0:Queue mem = 3584",
      "VERBOSE: 0:Temporal storage init: 2 of 132 (mem: 0 KiB) final-records", NO_INPUT]),

    # --- names
    ("an unknown input", "-I nope", 255, ["Plugin: nope not found."]),
    ("an input name that goes on", "-I pcapx:device=lo", 255, ["Plugin: pcapx not found."]),
    ("an empty input name", "-I :", 255, ["Plugin:  not found."]),
    ("an unknown process plugin", "-P nope:a=b", 255, ["Plugin: nope not found."]),
    ("an unknown global filter", "-G nope", 255, ["Filter: nope not found."]),
    ("an unknown export filter", "-F nope:x -E null", 255, ["Filter: nope not found."]),
    ("an empty filter name", "-F : -E null", 255, ["Filter:  not found."]),
    ("an input without its device", "-I pcap -E null", 255,
     ["Device parameter is mandatory for pcap input."]),
    ("an input whose device is missing", "-I pcap:device=nosuch0 -E null", 255,
     ["Unable to init plugin", "Driver initialization failed"]),

    # --- external plugins
    ("a plugin that is not there", "-X /nonexistent/a.so", 255,
     ["Unable to open plugin: /nonexistent/a.so", NO_INPUT]),
    ("a plugin that is no shared object", "-X /etc/passwd", 255,
     ["Unable to open plugin: /etc/passwd", NO_INPUT]),
    ("several plugins", "-v 0 -X /nonexistent/a.so,,/nonexistent/b.so -h", 0,
     ["VERBOSE: 0:Plugin to load: /nonexistent/a.so", "Unable to open plugin: /nonexistent/a.so",
      "VERBOSE: 0:Plugin to load: /nonexistent/b.so", "Unable to open plugin: /nonexistent/b.so"]),

    # --- with a device: what is wrong with the exports
    ("no export", LO, 255, ["No export set. Exiting."]),
    ("export options but no export", LO + " -n 1", 255, ["No export set. Exiting."]),
    ("an export without a name", LO + " -E :", 255, ["No export set. Exiting."]),
    ("an unknown export", LO + " -E nope", 253, ["Unknown export type: nope"]),
    ("an export name is no prefix", LO + " -E nul", 253, ["Unknown export type: nul"]),
    ("an unknown export behind a known one", "-v 0 " + LO + " -E null -E nope", 253,
     [CAPTURE_DEFAULTS, "VERBOSE: 0:Plugin OK", "VERBOSE: 0:Export: null OK",
      "Unknown export type: nope"]),
    ("-n behind the last export", LO + " -E null -n 1", 253, ["Unknown export type: "]),
    ("-N behind the last export", LO + " -E null -N 1", 253, ["Unknown export type: "]),
    ("-S behind the last export", LO + " -E null -S 1", 253, ["Unknown export type: "]),
    ("a nameless export behind the first", LO + " -E null -E :", 253, ["Unknown export type: "]),
    ("a prefix chooses the input", "-I pc:device=lo", 255, ["No export set. Exiting."]),
    ("a second input after the first registered one", "-I pcap:device=nosuch0 " + LO, 255,
     ["No export set. Exiting."]),
    ("an unknown user", LO + " -u no.such.user", 255, ["No export set. Exiting."]),
]

# Every option with an argument refuses an empty one and one that looks like an option.
for letter in "CeEFGHImNnPStuqvX":
    refusal = ["Blank or bad parameter for option: -" + letter]
    ROWS.append((f"-{letter} with an empty argument", ["-" + letter, ""], 255, refusal))
    ROWS.append((f"-{letter} with an option as argument", ["-" + letter, "-V"], 255, refusal))

if (os.cpu_count() or 1) < 32:
    ROWS.append(("a CPU that is not there", "-m 2147483648", 255, ["Unable to set CPU mask"]))


class Messages(unittest.TestCase):
    """One test for each row."""


def add_row(number, name, arguments, status, lines):
    def test(self):
        words = arguments.split() if isinstance(arguments, str) else arguments
        got_status, _, got_lines = probe.run(PROGRAM, words)
        self.assertEqual(got_lines, lines)
        self.assertEqual(got_status, status)

    test.__doc__ = name
    setattr(Messages, f"test_{number:03}", test)


for row_number, row in enumerate(ROWS):
    add_row(row_number, *row)


class Texts(unittest.TestCase):
    """Help, version and plugin list, on standard output."""

    def text(self, *arguments, name="kestrelexp"):
        status, output, lines = probe.run(PROGRAM, arguments, name=name)
        self.assertEqual(status, 0)
        self.assertEqual(lines, [])
        return output

    def test_help_begins_with_name_and_version(self):
        lines = self.text("-h").split("\n")
        self.assertIn("kestrelexp", lines[0])
        self.assertIn("3.01.01", lines[0])
        self.assertEqual(lines[1], "")

    def test_help_shows_the_usage_under_the_name_it_was_called_by(self):
        for name, shown in (("kestrelexp", "kestrelexp"), ("/a/b/probe", "probe"), ("./x", "x")):
            lines = self.text("-h", name=name).split("\n")
            self.assertEqual(
                lines[2], f"Basic usage: {shown} -I pcap:device=ethX -E export_name:options")
            self.assertEqual(
                lines[3],
                f"Extended usage: {shown} [Base options] [Capture options] [Export options] "
                "-E name:opts [Export options] -E name:opts ... [Export options] -E name:opts")

    def test_help_lists_the_options_by_section(self):
        found = []
        for line in self.text("-h").splitlines():
            option = re.match(r" -(\w) ", line)
            if line.endswith("options:"):
                found.append([line])
            elif option:
                found[-1].append(option[1])
        self.assertEqual(found, [
            ["Base options:", "d", "e", "m", "u", "v", "H", "X", "G", "P"],
            ["Capture options:", "C", "I", "q", "t"],
            ["Export options:", "E", "n", "N", "F", "S"],
            ["Other options:", "h", "l", "V"],
        ])

    def test_help_lines_are_those_that_people_know(self):
        lines = self.text("-h").split("\n")
        for line in (
                " -d               daemonize",
                " -H dir           hugetlbfs dir (may really improve speed for large queues. "
                "You must have properly set hugetlbfs).",
                " -X file          Load external plugin from file. May exist multiple times for "
                "multiple plugins.",
                " -G name:params   Use filter named 'name' as global filter for all exports.",
                " -q size          set queue size in power of 2 (range 5-30), (default: 19).",
                " -t a:i           set active and inactive timeout (defaults are 180s and 10s).",
                " -S rate          set flow sampling rate (export level sampling)."):
            self.assertIn(line, lines)

    def test_help_explains_the_flow_mask(self):
        lines = [line.strip() for line in self.text("-h").split("\n")]
        first = lines.index("IP        = 0x0001 (ipv4,ipv6)")
        self.assertEqual(lines[first:first + 11], [
            "IP        = 0x0001 (ipv4,ipv6)",
            "PORTS     = 0x0002 (udp,tcp,sctp)",
            "ICMP      = 0x0004 (icmp type and code)",
            "MAC       = 0x0008 (src,dst ethernet MAC)",
            "L3_ID     = 0x0010 (l3 protol id)",
            "L4_ID     = 0x0020 (l4 protocol id)",
            "INTERFACE = 0x0040 (interface number)",
            "VLAN_ID   = 0x0080 (all vlan id's found in packet)",
            "MPLS_ID   = 0x0100 (all mpls tag's found in packet)",
            "Default is 0x0077 (IP,PORTS,ICMP,L3_ID,L4_ID,INTERFACE)",
            "May be set as decimal or hexadecimal (0x..) number.",
        ])

    def test_version(self):
        lines = self.text("-V", name="/usr/sbin/kestrelexp").split("\n")
        self.assertEqual(lines[0], "kestrelexp version: 3.01.01")
        self.assertRegex(lines[1], r"^compile time: [A-Z][a-z]{2} [ \d]\d \d{4}, "
                                   r"\d\d:\d\d:\d\d$")
        self.assertRegex(lines[2], r"^compiler version: .*\d+\.\d+")
        self.assertEqual(lines[3], "compile time options:")
        self.assertTrue("".join(lines[4:]))

    def test_plugin_list(self):
        text = self.text("-l")
        found = []
        for line in text.splitlines():
            if line.endswith(" Plugin(s)"):
                found.append([line])
            elif line.startswith("name: "):
                found[-1].append(line)
        self.assertEqual(found, [
            ["INPUT Plugin(s)", "name: pcap"],
            ["FILTER Plugin(s)"],
            ["EXPORT Plugin(s)", "name: null", "name: netflow-v5"],
        ])
        self.assertTrue(text.startswith("\nINPUT Plugin(s)\nname: pcap\nPcap packet input driver"))
        self.assertIn("\n\n\nFILTER Plugin(s)\n", text)
        self.assertIn(
            "\n\nEXPORT Plugin(s)\nname: null\n"
            "Null exporter. Passes flows to blackhole.\nNeed no parameters\n\n"
            "name: netflow-v5\n", text)
        self.assertTrue(text.endswith("\n\n"))


class Runs(unittest.TestCase):
    """The program at work: from start to shutdown."""

    START = [
        CAPTURE_DEFAULTS,
        "VERBOSE: 0:Plugin OK",
        "VERBOSE: 0:Export: null OK",
        "VERBOSE: 0:Kestrel OK",
        "VERBOSE: 0:Temporal storage init: 65536 of 96 (mem: 6144 KiB) parser-xchange",
    ]
    END = [
        "CTRL-C detected, will exit as soon as possible",
        "Flushing queue",
        "Queue flushed. 0 records out.",
        "QUIT signal processed. All data flushed. Exiting ...",
    ]

    def start(self, arguments="", last_line=START[-1]):
        words = f"-v 0 {LO} {arguments} -E null".split()
        running = probe.Probe(PROGRAM, words)
        self.addCleanup(running.__exit__)
        running.wait_for_line(last_line)
        running.wait_for_threads(4)  # main, switch, reader, remover
        return running

    def test_an_interrupt_ends_it_in_order(self):
        for number in (signal.SIGINT, signal.SIGQUIT):
            running = self.start()
            running.send(number)
            self.assertEqual(running.end(), 0)
            self.assertEqual(running.lines(), self.START + self.END)

    def test_a_second_interrupt_ends_it_at_once(self):
        running = self.start()
        running.send(signal.SIGINT, signal.SIGQUIT)
        self.assertEqual(running.end(), 42)
        self.assertEqual(running.lines(), self.START + [
            self.END[0], "Ok. Ok. Exiting now. You will be DOOMED for it"])

    def test_a_broken_pipe_and_the_alarm_do_not_end_it(self):
        running = self.start()
        for _ in range(3):
            running.send(signal.SIGPIPE)
            running.send(signal.SIGALRM)
            time.sleep(0.02)
        running.send(signal.SIGINT)
        self.assertEqual(running.end(), 0)
        self.assertEqual(running.lines(), self.START + self.END)

    def test_only_the_main_thread_takes_signals(self):
        running = self.start()
        handled = 1 << signal.SIGINT - 1 | 1 << signal.SIGQUIT - 1 | 1 << signal.SIGALRM - 1
        for thread in os.listdir(f"/proc/{running.pid}/task"):
            blocked = int(probe.status_field(f"{running.pid}/task/{thread}", "SigBlk")[0], 16)
            expected = 0 if thread == str(running.pid) else handled
            self.assertEqual(blocked & handled, expected)

    def test_exports_are_flushed_when_traffic_stops(self):
        running = self.start("-v 3")
        started = time.monotonic()
        running.wait_for_line("VERBOSE: 3:Timeout occured, flushing flows")
        # Checks come when more than 5 s have passed; the second one without an export flushes.
        self.assertGreater(time.monotonic() - started, 10)

    def test_it_keeps_to_its_cpus(self):
        running = self.start("-m 1")
        for thread in os.listdir(f"/proc/{running.pid}/task"):
            self.assertEqual(
                probe.status_field(f"{running.pid}/task/{thread}", "Cpus_allowed_list"), ["0"])

    def test_it_runs_as_the_user_but_keeps_its_group(self):
        running = self.start("-u nobody")
        for thread in os.listdir(f"/proc/{running.pid}/task"):
            task = f"{running.pid}/task/{thread}"
            self.assertEqual(probe.status_field(task, "Uid"), ["65534"] * 4)
            self.assertEqual(probe.status_field(task, "Gid"), ["0"] * 4)
            self.assertEqual(probe.status_field(task, "Groups"), ["65534"])
        running.send(signal.SIGINT)
        self.assertEqual(running.end(), 0)

    def test_memory_from_a_directory_leaves_no_file(self):
        with tempfile.TemporaryDirectory() as directory:
            running = self.start(f"-q 10 -H {directory}",
                                 "VERBOSE: 0:Temporal storage init: 128 of 96 (mem: 12 KiB) "
                                 "parser-xchange")
            with open(f"/proc/{running.pid}/maps", encoding="ascii") as maps:
                self.assertIn(f"{directory}/{running.pid}.final-records (deleted)", maps.read())
            self.assertEqual(os.listdir(directory), [])

    def test_a_directory_that_cannot_be_used_ends_it(self):
        status, _, lines = probe.run(PROGRAM, ["-H", "/nonexistent"])
        self.assertEqual(lines, ["hugetlb open failed: No such file or directory"])
        self.assertEqual(status, 214)

    def test_a_daemon(self):
        libc = ctypes.CDLL(None)
        pr_set_child_subreaper = 36
        self.assertEqual(libc.prctl(pr_set_child_subreaper, 1, 0, 0, 0), 0)
        status, _, lines = probe.run(PROGRAM, f"-d {LO} -E null".split())
        self.assertEqual(status, 0)
        self.assertEqual(len(lines), 1)
        pid = int(re.fullmatch(r"Backgrounding: (\d+)", lines[0])[1])
        try:
            probe.wait_for_threads(pid, 4)
            self.assertEqual(os.getpgid(pid), pid)
            self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
            self.assertEqual(probe.status_field(pid, "Umask"), ["0000"])
            for descriptor in (0, 1, 2):
                self.assertEqual(os.readlink(f"/proc/{pid}/fd/{descriptor}"), "/dev/null")
            ignored = int(probe.status_field(pid, "SigIgn")[0], 16)
            for number in (signal.SIGTTOU, signal.SIGTTIN, signal.SIGTSTP, signal.SIGPIPE):
                self.assertTrue(ignored & 1 << number - 1)
            os.kill(pid, signal.SIGINT)
            self.assertEqual(os.waitpid(pid, 0), (pid, 0))
        except BaseException:
            os.kill(pid, signal.SIGKILL)
            raise


if __name__ == "__main__":
    probe.enter_quiet_network()
    unittest.main(argv=[sys.argv[0], *(f"{sys.argv[2]}{rest}" for rest in
                                       ([f".{name}" for name in sys.argv[3:]] or [""]))])
