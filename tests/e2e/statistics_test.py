"""The lines of statistics, printed every ten seconds."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import re
import time

from testbed.case import E2eCase
from testbed.frames import ethernet, ipv4, udp

HEADER = ("VERBOSE: 0:stat -     packets/s,       bytes/s,       flows,   queue,"
          "    collisions/s,         cpu,       invalid")


class Statistics(E2eCase):
    def test_three_lines_tell_the_last_ten_seconds(self):
        began = time.time()
        probe = self.probe("-t", "60:1", "-E", "null")
        for number in range(300):
            self.sender.send(ethernet(ipv4(udp(1000 + number, 53, b"x" * 72), "10.0.0.1",
                                           "10.0.0.2")))
        probe.wait_for_line("stat - ", timeout=15)
        self.assertGreater(time.time() - began, 10)
        time.sleep(0.2)
        start = probe.lines.index(HEADER)
        now, _, numbers = probe.lines[start - 1:start + 2]
        clock = re.fullmatch(r"VERBOSE: 0:now: ( *\d+)", now)
        self.assertEqual(len(clock.group(1)), 14)
        self.assertLessEqual(abs(int(clock.group(1)) - time.time()), 3)

        self.assertRegex(numbers, r"^VERBOSE: 0:stat( *\d+,){3} *\d+,( *\d+,){2} *\d+$")
        columns = numbers.removeprefix("VERBOSE: 0:stat").split(",")
        self.assertEqual([len(column) for column in columns], [14, 14, 14, 8, 14, 14, 14])
        packets, octets, flows, queue, collisions, cpu, invalid = map(int, columns)
        self.assertIn(packets, (300 // 10, 300 // 11, 300 // 12))
        self.assertIn(octets, (30000 // 10, 30000 // 11, 30000 // 12))
        self.assertEqual((flows, queue, collisions, invalid), (300, 0, 0, 0))
        self.assertLess(cpu, 100)
