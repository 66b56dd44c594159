"""The device that frames are captured from goes down or away, and comes back: each change is said
once and counted, and the frames before and after it are exported to the packet. The same for every
input that follows its device; what is theirs alone is in pcap_interfaces_test and
af_packet_interfaces_test."""

# Not under the thread sanitizer: the threads are those of shutdown_test and af_packet_lanes_test.

import os
import subprocess
import time

from testbed.interfaces import (BACK, DOWN, GONE, ONE_LANE, RENAMED, UP, FollowCase, cpu_seconds)
from testbed.af_packet import packet
from testbed.network import PROBED, SENDER, ip, make_pair
from testbed.process import SLOWNESS, settle, wait_until
from testbed.tunnel import Tunnel


class Interfaces(FollowCase):
    def other_namespace(self):
        """The process id of one that lives in it."""
        child = subprocess.Popen(["unshare", "--net", "sleep", "100"])
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        own = os.stat("/proc/self/ns/net").st_ino
        wait_until(lambda: os.stat(f"/proc/{child.pid}/ns/net").st_ino != own, "namespace")
        return child.pid

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up(self):
        self.follow()
        self.send(1000, 3)
        ip("link set kb down")
        self.wait_for(DOWN)
        ip("link set kb up")
        self.wait_for(UP)
        self.send(2000, 4)
        self.assert_run(DOWN, UP)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up_within_a_moment(self):
        self.follow()
        ip("link set kb down")
        ip("link set kb up")
        self.wait_for(UP)
        self.send(2000, 4)
        self.assert_run(DOWN, UP)

    def test_deleted_and_made_again(self):
        self.follow()
        self.send(1000, 3)
        ip("link del kb")
        self.wait_for(GONE)
        make_pair(SENDER, PROBED)
        self.wait_for(BACK)
        self.send(2000, 4)
        ip("link set kb down")
        self.wait_for(DOWN)
        ip("link set kb up")
        self.wait_for(UP)
        self.send(3000, 5)
        ip("link del kb")
        self.wait_for_count(GONE, 2)
        make_pair(SENDER, PROBED)
        self.wait_for_count(BACK, 2)
        self.send(4000, 6)
        self.assert_run(GONE, BACK, DOWN, UP, GONE, BACK)

    def wait_for_count(self, line, count):
        wait_until(lambda: all(follower.probe.lines.count(line) == count
                               for follower in self.followers), line)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_deleted_while_it_is_down(self):
        self.follow()
        ip("link set kb down")
        self.wait_for(DOWN)
        ip("link del kb")
        self.wait_for(GONE)
        make_pair(SENDER, PROBED)
        self.wait_for(BACK)
        self.send(2000, 4)
        self.assert_run(DOWN, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_made_again_after_root_was_given_up(self):
        self.follow("-u", "nobody", inputs=ONE_LANE)
        self.send(1000, 3)
        ip("link del kb")
        self.wait_for(GONE)
        make_pair(SENDER, PROBED)
        self.wait_for(BACK)
        self.send(2000, 4)
        self.assert_run(GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_what_is_still_down_is_not_back(self):
        self.follow()
        ip("link del kb")
        self.wait_for(GONE)
        ip("link add ka type veth peer name kb")
        settle(1.5)
        self.assertEqual([BACK in follower.probe.lines for follower in self.followers], [False] * 3)
        ip("link set ka arp off up")
        ip("link set kb arp off up")
        self.wait_for(BACK)
        self.send(2000, 4)
        self.assert_run(GONE, BACK)

    def test_renamed_and_back(self):
        self.follow()
        self.send(1000, 3)
        ip("link set kb down")
        ip("link set kb name kc")
        ip("link set kc up")
        self.wait_for(RENAMED)
        self.send_elsewhere(2000, 4)  # passes a device that the user has not named
        settle(0.1)
        ip("link set kc down")
        ip("link set kc name kb")
        ip("link set kb up")
        self.wait_for(BACK)
        self.send(3000, 5)
        self.assert_run(RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_another_device_takes_the_name(self):
        self.follow()
        self.send(1000, 3)
        ip("link set kb name kc")
        make_pair("kd", "kb")
        self.wait_for(BACK)
        self.send_elsewhere(2000, 4)
        self.send(3000, 5, sender="kd")
        self.assert_run(RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_moved_to_another_namespace_and_back(self):
        other = self.other_namespace()
        self.follow()
        self.send(1000, 3)
        ip(f"link set kb netns {other}")
        self.wait_for(GONE)
        subprocess.run(["nsenter", "--net", "--target", str(other),
                        "ip", "link", "set", "kb", "netns", str(os.getpid())], check=True)
        ip("link set kb arp off up")
        self.wait_for(BACK)
        self.send(2000, 4)
        self.assert_run(GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_it_is_found_within_a_second_or_so_and_costs_nothing_meanwhile(self):
        self.follow()
        ip("link del kb")
        self.wait_for(GONE)
        probes = [follower.probe for follower in self.followers]
        before = [cpu_seconds(probe.pid) for probe in probes]
        time.sleep(3)
        for probe, seconds in zip(probes, before):
            self.assertLess(cpu_seconds(probe.pid) - seconds, 0.3 * SLOWNESS, probe.describe())
        make_pair(SENDER, PROBED)
        self.wait_for(BACK, timeout=2)
        self.assert_run(GONE, BACK)

    def test_a_probe_ends_in_order_while_its_device_is_gone(self):
        self.follow()
        self.send(1000, 3)
        ip("link del kb")
        self.wait_for(GONE)
        self.assert_run(GONE)

    def test_a_device_of_another_kind_under_the_name_is_opened_anew(self):
        self.follow()
        self.send(1000, 3)
        ip("link del kb")
        self.wait_for(GONE)
        tunnel = Tunnel("kb")
        self.addCleanup(tunnel.close)
        self.wait_for(BACK)
        tunnel.send(*[packet(2000)] * 4)
        self.note(2000, 4)
        self.assert_run(GONE, BACK)
