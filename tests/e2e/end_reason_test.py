"""The process plugin end-reason with several lanes: each flow has the reason that was counted."""

# Not under the address sanitizer: replay.end_reason runs there.

import os
from collections import Counter
from pathlib import Path

from testbed.accounts import Sum
from testbed.af_packet import AfPacketCase, words
from testbed.flow_records import number, records
from testbed.frames import ethernet, ipv4, udp
from testbed.process import wait_until
from testbed.returning_collector import ReturningCollector

FRAMES = [ethernet(ipv4(udp(port, 53), f"10.0.{port % 250}.1", "10.9.9.9"))
          for port in range(1, 1001)]


def lanes_of(probe):
    names = [path.read_text(encoding="ascii").strip()
             for path in Path(f"/proc/{probe.pid}/task").glob("*/comm")]
    return sorted(name for name in names if name.startswith("lane"))


class EndReason(AfPacketCase):
    def test_four_lanes_tell_why_each_flow_ended(self):
        collector = ReturningCollector()
        self.addCleanup(collector.close)
        templates = self.directory() / "templates"
        templates.write_text("BEGIN-TEMPLATE\nL4_SRC_PORT=L4_PORT_SRC,IN_PKTS=PACKETS\n"
                             "id136/1=END_REASON\n", encoding="ascii")
        probe = self.probe("-q", "7", "-X", os.environ["KESTREL_END_REASON"], "-P", "end-reason",
                           "-E", f"ipfix:host=127.0.0.1,ip=4,port={collector.port},"
                           f"template_file={templates}", source=words(options=",lanes=4"))
        wait_until(lambda: lanes_of(probe) == [f"lane {lane}" for lane in range(4)], "four lanes")
        self.sender.send(*FRAMES)
        self.stop_in_order(probe, collector)
        found = records(collector.datagrams)
        self.assertEqual(sorted(number(record[7]) for record in found), list(range(1, 1001)))
        accounts = Sum(probe.lines)
        accounts.check(self)
        removed = accounts.reasons("kestrelexp_cache_removed_flows_total")
        self.assertEqual(set(removed), {"forced", "collision"})
        self.assertEqual(Counter(number(record[136]) for record in found),
                         {4: removed["forced"], 5: removed["collision"]})
