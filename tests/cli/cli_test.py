"""The command line of the real program: arguments, messages, exit status, texts."""

# Not under the thread sanitizer: it looks at forks, signal masks and the start, all one thread.

import contextlib
import ctypes
import os
import re
import signal
import subprocess
import time

from rows import CAPTURE_DEFAULTS, LO, ROWS
from testbed.accounts import without_sum
from testbed.case import QuietCase
from testbed.probe import run_to_its_end
from testbed.process import SLOWNESS, status_field, wait_for_threads, wait_until


class Messages(QuietCase):
    def test_each_command_line_is_answered_as_its_row_says(self):
        for name, arguments, status, lines in ROWS:
            with self.subTest(name):
                words = arguments.split() if isinstance(arguments, str) else arguments
                got_status, _, got_lines = run_to_its_end(*words)
                self.assertEqual(got_lines, lines)
                self.assertEqual(got_status, status)


class Texts(QuietCase):
    """Help, version and plugin list, on standard output."""

    def text(self, *arguments, name="kestrelexp"):
        status, output, lines = run_to_its_end(*arguments, name=name)
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
        self.assertEqual(lines[3], "compile time options: -DRAWNETCAP")
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
            ["INPUT Plugin(s)", "name: pcap", "name: rawnetcap"],
            ["FILTER Plugin(s)", "name: filter", "name: as_helper", "name: anonymizer"],
            ["EXPORT Plugin(s)", "name: null", "name: netflow-v5", "name: netflow-v9",
             "name: ipfix"],
        ])
        self.assertTrue(text.startswith(
            "\nINPUT Plugin(s)\nname: pcap\n"
            "Pcap packet input driver, get packet from pcap and pass it directly to exporter.\n"
            "This driver may be used with process plugins.\n"
            "Parameters (delimited by ',':\n device=devname (mandatory)\n sampling=value\n\n"
            "name: rawnetcap\n"
            "Rawnetcap packet input driver, get packet from rawnetcap and pass it directly to "
            "exporter.\n"
            "This driver may be used with process plugins.\n"
            "Parameters (delimited by ',':\n device=devname (mandatory)\n"
            " sampling=value (samples per second)\n"
            " cache-size=value (in KiB, default is set by rawnetcap module)\n\n"
            "\nFILTER Plugin(s)\n"))
        self.assertIn(
            "\n\n\nFILTER Plugin(s)\nname: filter\n"
            "Allows filter outgoing flows by addr, port, etc.\n"
            "Mandatory parameter is filename with filter configuration.\n"
            "For details about filter rules see the documentation.\n\n", text)
        self.assertIn(
            "\n\nname: as_helper\n"
            "AS helper converts SRC and DST IPv4/IPv6 address to 32bit AS number.\n", text)
        self.assertIn(
            "\n\nname: anonymizer\n"
            "Anonymizer hide some flow fields using masking or AES128 cipher to make anonymized "
            "flow data.\nParameter is mode with it's parameters.\n", text)
        self.assertIn(
            "\n\nEXPORT Plugin(s)\nname: null\n"
            "Null exporter. Passes flows to blackhole.\nNeed no parameters\n\n"
            "name: netflow-v5\n", text)
        self.assertTrue(text.endswith("\n\n"))


class Runs(QuietCase):
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
        running = self.start_program(*f"-v 0 {LO} {arguments} -E null".split())
        running.wait_for_line(last_line)
        wait_for_threads(running.pid, 4)  # main, switch, reader, remover
        return running

    def assert_whole_run(self, running):
        """From the start to the end, where a sum of no packets stands before the last line."""
        lines = running.messages
        self.assertEqual(without_sum(lines), self.START + self.END)
        self.assertEqual(lines[-1], self.END[-1])
        self.assertIn('VERBOSE: 0:kestrelexp_capture_packets_total{input="pcap"} 0', lines)

    def test_an_interrupt_ends_it_in_order(self):
        for number in (signal.SIGINT, signal.SIGQUIT):
            running = self.start()
            running.signal(number)
            self.assertEqual(running.wait(), 0)
            self.assert_whole_run(running)

    def test_a_second_interrupt_ends_it_at_once(self):
        running = self.start()
        running.signal(signal.SIGINT, signal.SIGQUIT)
        self.assertEqual(running.wait(), 42)
        lines = [line for line in running.messages if line not in self.END[1:3]]  # may be under way
        self.assertEqual(lines, self.START + [
            self.END[0], "Ok. Ok. Exiting now. You will be DOOMED for it"])

    def test_a_broken_pipe_and_the_alarm_do_not_end_it(self):
        running = self.start()
        for _ in range(3):
            running.signal(signal.SIGPIPE)
            running.signal(signal.SIGALRM)
            time.sleep(0.02)
        running.signal(signal.SIGINT)
        self.assertEqual(running.wait(), 0)
        self.assert_whole_run(running)

    def test_only_the_main_thread_takes_signals(self):
        running = self.start()
        handled = 1 << signal.SIGINT - 1 | 1 << signal.SIGQUIT - 1 | 1 << signal.SIGALRM - 1

        def blocked(thread):
            mask = status_field(f"{running.pid}/task/{thread}", "SigBlk")[0]
            return int(mask, 16) & handled

        # It may just be starting a thread.
        wait_until(lambda: blocked(running.pid) == 0, "a main thread that takes signals")
        threads = os.listdir(f"/proc/{running.pid}/task")
        self.assertEqual([thread for thread in threads if blocked(thread) != handled],
                         [str(running.pid)])

    # Not under the address sanitizer: it waits for lines.
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
                status_field(f"{running.pid}/task/{thread}", "Cpus_allowed_list"), ["0"])

    def test_it_runs_as_the_user_but_keeps_its_group(self):
        running = self.start("-u nobody")
        for thread in os.listdir(f"/proc/{running.pid}/task"):
            task = f"{running.pid}/task/{thread}"
            self.assertEqual(status_field(task, "Uid"), ["65534"] * 4)
            self.assertEqual(status_field(task, "Gid"), ["0"] * 4)
            self.assertEqual(status_field(task, "Groups"), ["65534"])
        running.signal(signal.SIGINT)
        self.assertEqual(running.wait(), 0)

    def test_memory_from_a_directory_leaves_no_file(self):
        directory = self.directory()
        running = self.start(f"-q 10 -H {directory}",
                             "VERBOSE: 0:Temporal storage init: 128 of 96 (mem: 12 KiB) "
                             "parser-xchange")
        with open(f"/proc/{running.pid}/maps", encoding="ascii") as maps:
            self.assertIn(f"{directory}/{running.pid}.final-records (deleted)", maps.read())
        self.assertEqual(os.listdir(directory), [])

    def test_a_directory_that_cannot_be_used_ends_it(self):
        status, _, lines = run_to_its_end("-H", "/nonexistent")
        self.assertEqual(lines, ["hugetlb open failed: No such file or directory"])
        self.assertEqual(status, 214)

    def test_closed_standard_descriptors_become_the_null_device(self):
        # Left closed, they would be the next pipes: messages would be read as room in a ring.
        for closed in ((0,), (1,), (2,), (0, 1, 2)):
            with self.subTest(closed=closed):
                process = subprocess.Popen(
                    ["kestrelexp", *f"-v 0 {LO} -E null".split()],
                    executable=os.environ["KESTREL_PROBE"], stdin=subprocess.DEVNULL,
                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                    preexec_fn=lambda: [os.close(descriptor) for descriptor in closed])
                try:
                    wait_for_threads(process.pid, 4)
                    for descriptor in (0, 1, 2):
                        self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"),
                                         "/dev/null")
                    process.send_signal(signal.SIGINT)
                    self.assertEqual(process.wait(timeout=20 * SLOWNESS), 0)
                finally:
                    process.kill()
                    process.wait()

    def test_a_daemon(self):
        libc = ctypes.CDLL(None)
        pr_set_child_subreaper = 36
        self.assertEqual(libc.prctl(pr_set_child_subreaper, 1, 0, 0, 0), 0)
        status, _, lines = run_to_its_end(*f"-d {LO} -E null".split())
        self.assertEqual(status, 0)
        self.assertEqual(len(lines), 1)
        pid = int(re.fullmatch(r"Backgrounding: (\d+)", lines[0])[1])
        try:
            wait_for_threads(pid, 4)
            self.assertEqual(os.getpgid(pid), pid)
            self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
            self.assertEqual(status_field(pid, "Umask"), ["0000"])
            for descriptor in (0, 1, 2):
                self.assertEqual(os.readlink(f"/proc/{pid}/fd/{descriptor}"), "/dev/null")
            ignored = int(status_field(pid, "SigIgn")[0], 16)
            for number in (signal.SIGTTOU, signal.SIGTTIN, signal.SIGTSTP, signal.SIGPIPE):
                self.assertTrue(ignored & 1 << number - 1)
            os.kill(pid, signal.SIGINT)
            self.assertEqual(os.waitpid(pid, 0), (pid, 0))
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
