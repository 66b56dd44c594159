"""The export ipfix-file: what stands in its files, byte by byte and for those who read them."""

# Not under the thread sanitizer: the threads are those of e2e.ipfix_file, which runs there.

import os
import signal
import struct
import subprocess

from testbed.accounts import SENT, Sum
from testbed.capture import NS, pcap
from testbed.flow_records import number
from testbed.frames import ethernet, ipv4, udp
from testbed.ipfix_file import PLUGIN, read_file, whole_messages
from testbed.process import wait_until
from testbed.replay import CAPTURES, ROOT, ReplayCase

T = 631_152_000  # 1990-01-01 00:00:00
A, B = "192.0.2.1", "198.51.100.7"
PORTS = "BEGIN-TEMPLATE\nid7/2=L4_PORT_SRC,id11/2=L4_PORT_DST,id2/4=PACKETS\n"
WIDE = "BEGIN-TEMPLATE\nid7/2=L4_PORT_SRC,id2/4=PACKETS,id461/1400=BYTES\n"
EXPORT = 'export="ipfix-file-0"'


def packets(*times_and_ports):
    return [((T + seconds) * NS, ethernet(ipv4(udp(port, 53), A, B)))
            for seconds, port in times_and_ports]


# Less than a pipe holds, and enough for a reader that takes a batch at a time.
ONE_AFTER_ANOTHER = packets(*((100 * port, port) for port in range(1, 501)))


class IpfixFile(ReplayCase):
    def write(self, made, options="", *, templates=PORTS, name="flows.ipfix", arguments=()):
        """Replays frames into the file; returns the probe."""
        return self.replay(self.file(pcap(made)), *arguments, *PLUGIN, "-E",
                           self.words(name, options, templates))

    def words(self, name, options, templates):
        made = self.file(templates, name="templates.txt")
        return f"ipfix-file:file={self.directory}/{name},template-file={made}{options}"

    def names(self):
        return sorted(path.name for path in self.directory.iterdir()
                      if path.name not in ("made.pcap", "templates.txt"))

    def flows(self, name):
        """(source port, packets) of each record."""
        return sorted((number(record[7]), number(record[2]))
                      for record in read_file(self.directory / name))

    def test_every_byte_of_a_small_file(self):
        probe = self.write(packets((0, 1000), (1, 1000)), ",source_id=7")
        templates = bytes.fromhex("0002 0014 0100 0003 0007 0002 000b 0002 0002 0004")
        data = bytes.fromhex("0100 000c 03e8 0035 00000002")
        expected = b"".join(struct.pack(">HHIII", 10, 16 + len(body), T + 1, 0, 7) + body
                            for body in (templates, data))
        self.assertEqual((self.directory / "flows.ipfix").read_bytes(), expected)
        self.assertEqual(self.names(), ["flows.ipfix"])
        self.assertIn(f"VERBOSE: 0:Export ipfix-file: {self.directory}/flows.ipfix is complete, "
                      "1 records", probe.lines)
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(SENT, EXPORT), 2)
        self.assertEqual(found.total("kestrelexp_export_files_total", EXPORT), 1)
        self.assertEqual(found.total("kestrelexp_export_messages_total", EXPORT), 1)
        self.assertEqual(found.total("kestrelexp_export_bytes_total", EXPORT), 28)

    def test_the_time_of_the_packets_ends_files_and_names_them(self):
        self.write(packets((0, 1), (120, 2), (125, 3), (3600, 4)), ",rotate-time=60",
                   name="flows-%Y%m%d-%H:%M.ipfix", arguments=("-t", "180:10"))
        self.assertEqual(self.names(), [
            "flows-19900101-00:00.ipfix", "flows-19900101-00:02.ipfix",
            "flows-19900101-01:00.ipfix"])
        self.assertEqual(self.flows("flows-19900101-00:00.ipfix"), [(1, 1)])
        self.assertEqual(self.flows("flows-19900101-00:02.ipfix"), [(2, 1), (3, 1)])
        self.assertEqual(self.flows("flows-19900101-01:00.ipfix"), [(4, 1)])

    def test_their_size_ends_files(self):
        # A record of 1,406 bytes has a message of 1,428 to itself: 734 of them, and 36 bytes of
        # templates, are 1,048,188.
        probe = self.write(packets(*((0, port) for port in range(1, 2001))), ",rotate-size=1",
                           templates=WIDE)
        self.assertEqual(self.names(), ["flows.1.ipfix", "flows.2.ipfix", "flows.ipfix"])
        found = [self.flows(name) for name in ("flows.ipfix", "flows.1.ipfix", "flows.2.ipfix")]
        self.assertEqual([len(flows) for flows in found], [734, 734, 532])
        self.assertEqual(sorted(sum(found, [])), [(port, 1) for port in range(1, 2001)])
        Sum(probe.lines).check(self)

    def test_a_replay_waits_for_its_file(self):
        # More than three times what the queue holds.
        made = packets(*((0, port) for port in range(1, 2501)))
        probe = self.write(made, ",queue=1", templates=WIDE)
        self.assertEqual(self.flows("flows.ipfix"), [(port, 1) for port in range(1, 2501)])
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(SENT, EXPORT), 2500)

    def test_two_runs_write_the_same_and_neither_file_is_written_over(self):
        made = packets((0, 1), (20, 2), (400, 3))
        self.write(made)
        self.write(made)
        self.assertEqual(self.names(), ["flows.1.ipfix", "flows.ipfix"])
        self.assertEqual((self.directory / "flows.1.ipfix").read_bytes(),
                         (self.directory / "flows.ipfix").read_bytes())

    def test_a_run_without_flows_leaves_the_templates(self):
        self.write([])
        data = (self.directory / "flows.ipfix").read_bytes()
        self.assertEqual(data[16:], bytes.fromhex(
            "0002 0014 0100 0003 0007 0002 000b 0002 0002 0004"))

    def test_flows_that_no_template_takes_are_lost(self):
        made = packets((0, 1)) + [((T + 1) * NS, ethernet(ipv4(udp(2, 53), A, B)))]
        only_v6 = "BEGIN-TEMPLATE\nid27/16=L3_IPV6_ADDR_SRC,id2/4=PACKETS\n"
        found = Sum(self.write(made, templates=only_v6).lines)
        found.check(self)
        self.assertEqual(found.reasons("kestrelexp_export_lost_records_total", EXPORT),
                         {"no_template": 2})

    def test_tshark_and_fixbuf_read_the_flows_of_captures(self):
        for path in sorted(CAPTURES.glob("*.pcap"))[:6]:
            with self.subTest(capture=path.name):
                name = f"{path.name}.ipfix"
                probe = self.replay(path, *PLUGIN, "-E", f"ipfix-file:file={self.directory}/{name},"
                                    f"template-file={ROOT}/etc/ipfix-template.txt")
                _, in_flows, flows, _ = self.totals(probe)
                found = [number(record[2]) for record in read_file(self.directory / name)]
                self.assertEqual((sum(found), len(found)), (in_flows, flows))
                self.assertEqual(self.tshark(name, "cflow.packets"), found)
                self.assertIn(f" {flows} Data Records, ", subprocess.run(
                    ["ipfixDump", "-s", "-i", self.directory / name], check=True,
                    capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout)

    def tshark(self, name, column):
        """The numbers of a column. It may have no complaint."""
        def run(*options):
            return subprocess.run(["tshark", "-n", "-r", self.directory / name, *options],
                                  check=True, capture_output=True, text=True,
                                  stdin=subprocess.DEVNULL).stdout
        self.assertEqual(run("-Y", "_ws.expert || _ws.malformed || !cflow"), "")
        cells = run("-T", "fields", "-E", "aggregator= ", "-e", column)
        return [int(cell) for cell in cells.split()]

    def start_on_pipe(self, made):
        """A replay whose pipe stays open, once a message is in its file."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        probe = self.start("-", *PLUGIN, "-t", "180:10", "-E",
                           self.words("flows.ipfix", "", PORTS), stdin=reading)
        os.close(reading)
        os.write(writing, pcap(made))
        part = self.directory / "flows.ipfix.part"
        wait_until(lambda: part.exists() and part.stat().st_size > 36, "a message")
        return probe

    def test_an_interrupt_completes_the_file(self):
        probe = self.start_on_pipe(ONE_AFTER_ANOTHER)
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertEqual(self.names(), ["flows.ipfix"])
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(self.flows("flows.ipfix"),
                         [(port, 1) for port in range(1, found.total(SENT, EXPORT) + 1)])

    def test_a_killed_probe_leaves_whole_messages_aside(self):
        probe = self.start_on_pipe(ONE_AFTER_ANOTHER)
        probe.kill()
        part = self.directory / "flows.ipfix.part"
        left = part.read_bytes()
        found, _ = whole_messages(left)
        self.assertGreater(len(found), 1)
        self.write(ONE_AFTER_ANOTHER)
        self.assertEqual(self.names(), ["flows.1.ipfix", "flows.ipfix.part"])
        self.assertEqual(part.read_bytes(), left)
        self.assertEqual(self.flows("flows.1.ipfix"), [(port, 1) for port in range(1, 501)])

    def test_bad_parameters_end_the_start(self):
        path = self.file(pcap(packets((0, 1))))
        for options, said in (
                ("", "ipfix-file: file=PATH is mandatory"),
                (":file=/tmp/x,rotate-time=5m",
                 "ipfix-file: rotate-time=5m is no number from 1 to 31622400"),
                (f":file={self.directory}/none/x", "ipfix-file: cannot write to the directory "
                 f"{self.directory}/none: No such file or directory"),
                (f":file={self.directory}/x,template-file=/none",
                 "ipfix-file: the template file /none cannot be read"),
                (f":file={self.directory}/x,template-file={self.file('', name='templates.txt')}",
                 f"ipfix-file: there is no template in {self.directory}/templates.txt")):
            with self.subTest(options=options):
                self.assertIn(said, self.refused(path, *PLUGIN, "-E", f"ipfix-file{options}"))
        self.assertEqual(self.names(), [])
