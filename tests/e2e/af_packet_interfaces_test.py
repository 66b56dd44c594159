"""Devices of af-packet that go down or away, or get another name, and come back: each change is
said once and counted, and the frames before and after it are exported to the packet. A lane alone
moves its ring to the new interface; several open new ones in a new group."""

# Not under the thread sanitizer: the threads are those of af_packet_lanes_test, which runs there.

import os
import subprocess
import time

from testbed.af_packet import RECEIVED, AfPacketCase, packet, received
from testbed.network import PROBED, SENDER, ip, make_pair
from testbed.process import SLOWNESS, settle, wait_until
from testbed.tunnel import MONITOR_DEVICE, Tunnel

DOWN, UP = "Device kb is down: waiting for it to come up", "Device kb is up: capturing again"
GONE, BACK = "Device kb is gone: trying every second", "Device kb is back: capturing again"
RENAMED = "Device kb is gone (it is called kc now): trying every second"
CHANGES = "kestrelexp_capture_interface_changes_total"
LANES = ",lanes=3"


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Interfaces(AfPacketCase):
    def assert_run(self, probe, flows, *said):
        """The probe ends in order; it exported these flows and said this about its devices."""
        found = self.sums(probe)
        self.assert_flows(self.receiver.flows, flows)
        self.assertEqual([line for line in probe.lines if line.startswith("Device ")], list(said))
        self.assertEqual(found.total(CHANGES), len(said))
        self.assertEqual(found.total(RECEIVED), sum(one.packets for one in flows))

    def send_before(self, port=1000, count=3):
        """Frames that the probe has taken when this returns; their flow."""
        self.send(port, count)
        settle(0.2)
        return received(port, count)

    def down_and_up(self, options=""):
        probe = self.start(options=options)
        before = self.send_before()
        ip("link set kb down")
        probe.wait_for_line(DOWN)
        ip("link set kb up")
        probe.wait_for_line(UP)
        self.send(2000, 4)
        self.assert_run(probe, {before: 1, received(2000, 4): 1}, DOWN, UP)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up(self):
        self.down_and_up()

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up_with_lanes(self):
        self.down_and_up(LANES)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up_within_a_moment(self):
        probe = self.start()
        ip("link set kb down")
        ip("link set kb up")
        probe.wait_for_line(UP)
        self.send(2000, 4)
        self.assert_run(probe, {received(2000, 4): 1}, DOWN, UP)

    def deleted_and_made_again(self, options=""):
        probe = self.start(options=options)
        flows = {self.send_before(): 1}
        for port in (2000, 3000):
            ip("link del kb")
            wait_until(lambda: probe.lines.count(GONE) == port // 1000 - 1, GONE)
            make_pair(SENDER, PROBED)
            wait_until(lambda: probe.lines.count(BACK) == port // 1000 - 1, BACK)
            flows[self.send_before(port, 4)] = 1
        self.assert_run(probe, flows, GONE, BACK, GONE, BACK)

    def test_deleted_and_made_again(self):
        self.deleted_and_made_again()

    def test_deleted_and_made_again_with_lanes(self):
        self.deleted_and_made_again(LANES)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_deleted_and_made_again_in_a_group_of_a_given_number(self):
        self.deleted_and_made_again(LANES + ",fanout=7")

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_deleted_while_it_is_down(self):
        probe = self.start()
        ip("link set kb down")
        probe.wait_for_line(DOWN)
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.assert_run(probe, {received(2000, 4): 1}, DOWN, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_made_again_after_root_was_given_up(self):
        probe = self.start("-u", "nobody")
        before = self.send_before()
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.assert_run(probe, {before: 1, received(2000, 4): 1}, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_lanes_need_the_right_to_capture_once_more_and_say_so_once(self):
        missing = "Device kb: the right to capture is missing (CAP_NET_RAW)"
        probe = self.start("-u", "nobody", options=LANES)
        before = self.send_before()
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(missing)
        settle(2.5)
        self.stop_in_order(probe, self.receiver)
        self.assert_flows(self.receiver.flows, {before: 1})
        self.assertEqual([line for line in probe.lines if line.startswith("Device ")],
                         [GONE, missing])

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_what_is_still_down_is_not_back(self):
        probe = self.start()
        ip("link del kb")
        probe.wait_for_line(GONE)
        ip("link add ka type veth peer name kb")
        settle(1.5)
        self.assertNotIn(BACK, probe.lines)
        ip("link set ka arp off up")
        ip("link set kb arp off up")
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.assert_run(probe, {received(2000, 4): 1}, GONE, BACK)

    def renamed_and_back(self, options=""):
        probe = self.start(options=options)
        before = self.send_before()
        ip("link set kb down")
        ip("link set kb name kc")
        ip("link set kc up")
        probe.wait_for_line(RENAMED)
        self.send(2000, 4)  # passes a device that the user has not named
        settle(0.1)
        ip("link set kc down")
        ip("link set kc name kb")
        ip("link set kb up")
        probe.wait_for_line(BACK)
        self.send(3000, 5)
        self.assert_run(probe, {before: 1, received(3000, 5): 1}, RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_renamed_and_back(self):
        self.renamed_and_back()

    def test_renamed_and_back_with_lanes(self):
        self.renamed_and_back(LANES)

    def another_takes_the_name(self, options=""):
        probe = self.start(options=options)
        before = self.send_before()
        ip("link set kb name kc")
        make_pair("kd", "kb")
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.send(3000, 5, sender="kd")
        self.assert_run(probe, {before: 1, received(3000, 5): 1}, RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_another_device_takes_the_name(self):
        self.another_takes_the_name()

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_another_device_takes_the_name_with_lanes(self):
        self.another_takes_the_name(LANES)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_it_is_found_within_a_second_or_so_and_costs_nothing_meanwhile(self):
        probe = self.start(options=LANES)
        ip("link del kb")
        probe.wait_for_line(GONE)
        before = cpu_seconds(probe.pid)
        time.sleep(3)
        self.assertLess(cpu_seconds(probe.pid) - before, 0.3 * SLOWNESS)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK, timeout=2)
        self.assert_run(probe, {}, GONE, BACK)

    def test_a_probe_ends_in_order_while_its_device_is_gone(self):
        probe = self.start(options=LANES)
        before = self.send_before()
        ip("link del kb")
        probe.wait_for_line(GONE)
        self.assert_run(probe, {before: 1}, GONE)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_flows_age_while_the_device_is_gone(self):
        probe = self.start("-t", "60:1")
        before = self.send_before()
        ip("link del kb")
        probe.wait_for_line(GONE)
        self.receiver.wait_for_flows(1, 20)  # sent when exports have been idle for some seconds
        self.assert_flows(self.receiver.flows, {before: 1})
        self.assert_run(probe, {before: 1}, GONE)

    def test_other_devices_go_on(self):
        make_pair("kc", "kd")
        probe = self.start(device="kb#kd", options=",lanes=2")
        before = self.send_before()
        ip("link del kb")
        probe.wait_for_line(GONE)
        self.send(2000, 4, sender="kc")
        settle(0.2)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(3000, 5)
        self.assert_run(probe, {before: 1, received(2000, 4, "kd"): 1, received(3000, 5): 1},
                        GONE, BACK)

    def test_a_tunnel_under_the_name_is_translated(self):
        for options in ("", LANES):
            with self.subTest(options=options):
                probe = self.start(options=options)
                before = self.send_before()
                ip("link del kb")
                probe.wait_for_line(GONE)
                tunnel = Tunnel("kb")
                probe.wait_for_line(BACK)
                tunnel.send(*[packet(2000)] * 4)
                after = received(2000, 4)
                self.assert_run(probe, {before: 1, after: 1}, GONE, BACK)
                tunnel.close()
                make_pair(SENDER, PROBED)
                self.receiver.close()
                self.receiver = self.collector()

    def test_a_device_that_cannot_be_translated_is_said_once(self):
        refused = ("Device kb does not deliver Ethernet frames but IEEE802_11_RADIO, which cannot "
                   "be translated. Use an Ethernet, tunnel or PPP device")
        probe = self.start()
        ip("link del kb")
        probe.wait_for_line(GONE)
        tunnel = Tunnel("kb", hardware=MONITOR_DEVICE)
        probe.wait_for_line(refused)
        settle(2.5)
        tunnel.close()
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.stop_in_order(probe, self.receiver)
        self.assert_flows(self.receiver.flows, {received(2000, 4): 1})
        self.assertEqual([line for line in probe.lines if line.startswith("Device ")],
                         [GONE, refused, BACK])

    def test_frames_that_were_in_the_ring_are_not_lost_with_the_device(self):
        for options in ("", LANES):
            with self.subTest(options=options):
                probe = self.start(options=options)
                probe.signal(19)  # SIGSTOP
                self.send(1000, 500)
                before = received(1000, 500)
                ip("link del kb")
                probe.signal(18)  # SIGCONT
                probe.wait_for_line(GONE)
                self.assert_run(probe, {before: 1}, GONE)
                make_pair(SENDER, PROBED)
                self.receiver.close()
                self.receiver = self.collector()

