"""The export ipfix-file on a disk that is full, in a directory that vanishes: nothing ends the
probe, what is lost is counted, and every file holds whole messages."""

# Not under the address sanitizer: replay.ipfix_file runs there.

import shutil
import subprocess

from testbed import namespaces
from testbed.accounts import HANDED, SENT, Sum
from testbed.allowed import asked_of_the_machine
from testbed.case import E2eCase
from testbed.flow_records import number
from testbed.frames import ethernet, ipv4, udp
from testbed.ipfix_file import PLUGIN, read_file
from testbed.process import wait_until

EXPORT = 'export="ipfix-file-0"'
# A record has a message of 1,428 bytes to itself.
WIDE = "BEGIN-TEMPLATE\nid7/2=L4_PORT_SRC,id2/4=PACKETS,id461/1400=BYTES\n"
FULL = "cannot be written (No space left on device), trying again every second"
GONE = "cannot be written (No such file or directory), trying again every second"
AGAIN = "is written again after "


def flows(first, count):
    return [ethernet(ipv4(udp(port, 53), "10.0.0.1", "10.0.0.2"))
            for port in range(first, first + count)]


def ports(path):
    return sorted(number(record[7]) for record in read_file(path))


class IpfixFile(E2eCase):
    def setUp(self):
        super().setUp()
        self.place = self.directory()
        templates = self.directory() / "templates"
        templates.write_text(WIDE, encoding="ascii")
        self.file = self.place / "out" / "flows.ipfix"
        self.file.parent.mkdir()
        self.words = f"ipfix-file:file={self.file},template-file={templates}"

    def start(self, options=""):
        return self.probe("-t", "60:1", *PLUGIN, "-E", self.words + options)

    def limit_disk(self, size):
        """The directory is a disk of its own, of so many bytes."""
        with asked_of_the_machine("mounts in a name space of its own"):
            namespaces.unshare(namespaces.MOUNTS)
            self.mount("--make-rprivate", "/")
            self.mount("-t", "tmpfs", "-o", f"size={size}", "none", self.file.parent)
        self.addCleanup(subprocess.run, ["umount", self.file.parent], check=True)

    def mount(self, *words):
        subprocess.run(["mount", *words], check=True, stdin=subprocess.DEVNULL)

    def sum_of(self, probe, packets):
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(HANDED), packets)
        return found

    def test_a_full_disk_that_gets_room_again_costs_nothing(self):
        self.limit_disk("200k")
        probe = self.start()
        self.sender.send(*flows(1, 300))
        probe.wait_for_line(FULL)
        self.mount("-o", "remount,size=4m", self.file.parent)
        probe.wait_for_line(AGAIN)
        self.stop_in_order(probe)
        found = self.sum_of(probe, 300)
        self.assertEqual(found.total(SENT, EXPORT), 300)
        self.assertGreater(found.total("kestrelexp_export_failed_writes_total", EXPORT), 0)
        self.assertEqual([path.name for path in self.file.parent.iterdir()], ["flows.ipfix"])
        self.assertEqual(ports(self.file), list(range(1, 301)))

    def test_a_disk_that_stays_full_costs_what_it_does_not_hold(self):
        self.limit_disk("200k")
        probe = self.start(",drain=0")
        self.sender.send(*flows(1, 300))
        probe.wait_for_line(FULL)
        self.stop_in_order(probe)
        found = self.sum_of(probe, 300)
        sent = found.total(SENT, EXPORT)
        self.assertGreater(sent, 100)
        self.assertEqual(found.reasons("kestrelexp_export_lost_records_total", EXPORT),
                         {"not_drained": 300 - sent})
        self.assertEqual([path.name for path in self.file.parent.iterdir()], ["flows.ipfix"])
        self.assertEqual(len(ports(self.file)), sent)

    def test_a_directory_that_vanishes_is_waited_for(self):
        probe = self.start()
        part = self.file.parent / "flows.ipfix.part"
        self.sender.send(*flows(1, 10))
        wait_until(lambda: part.exists() and part.stat().st_size > 5000, "messages")
        shutil.rmtree(self.file.parent)
        self.sender.send(*flows(101, 10))
        probe.wait_for_line(GONE)
        self.file.parent.mkdir()
        probe.wait_for_line(AGAIN)
        self.stop_in_order(probe)
        self.assertEqual(self.sum_of(probe, 20).total(SENT, EXPORT), 20)
        # What the disk had before it was deleted is sent; all else is in the new file.
        self.assertEqual(set(range(101, 111)) - set(ports(self.file)), set())

    def test_a_silence_completes_the_file_of_an_interval(self):
        probe = self.start(",rotate-time=2")
        self.sender.send(*flows(1, 2))
        wait_until(self.file.exists, "the first file", 30)
        self.assertTrue(probe.running)
        self.stop_in_order(probe)
        self.sum_of(probe, 2)
