"""The device that frames are captured from goes down or away, and comes back: each change is said
once and counted, and the frames before and after it are exported to the packet."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

import os
import subprocess
import time

from testbed.accounts import Sum
from testbed.case import E2eCase
from testbed.flow_model import Flow
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, SENDER, FrameSender, ip, make_pair, wait_for_carrier
from testbed.probe import netflow_v5
from testbed.process import SLOWNESS, settle, wait_until
from testbed.tunnel import MONITOR_DEVICE, Tunnel

A, B = "10.0.0.1", "10.0.0.2"
DOWN, UP = "Device kb is down: waiting for it to come up", "Device kb is up: capturing again"
GONE, BACK = "Device kb is gone: trying every second", "Device kb is back: capturing again"
RENAMED = "Device kb is gone (it is called kc now): trying every second"
CHANGES = "kestrelexp_capture_interface_changes_total"
RECEIVED = "kestrelexp_capture_packets_total"
RING_DROPPED = ("kestrelexp_capture_dropped_packets_total", 'stage="ring"')


def packet(port):
    return ipv4(udp(port, 53, b"abcd"), A, B)


def flow(port, packets):
    return Flow(A, B, 17, port, 53, 0, 0, packets, 32 * packets)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Interfaces(E2eCase):
    def setUp(self):
        super().setUp()
        self.receiver = self.collector()

    def start(self, *options, **probe_options):
        return self.probe(*options, *netflow_v5(self.receiver.port), **probe_options)

    def send(self, port, count, sender=SENDER):
        wait_for_carrier(sender)
        link = FrameSender(sender)
        link.send(*[ethernet(packet(port))] * count)
        link.close()

    def other_namespace(self):
        """The process id of one that lives in it."""
        child = subprocess.Popen(["unshare", "--net", "sleep", "100"])
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        own = os.stat("/proc/self/ns/net").st_ino
        wait_until(lambda: os.stat(f"/proc/{child.pid}/ns/net").st_ino != own, "namespace")
        return child.pid

    def assert_run(self, probe, flows, *said):
        """The probe ends in order; it exported these flows and said this about its device."""
        self.stop_in_order(probe, self.receiver)
        self.assert_flows(self.receiver.flows, flows)
        self.assertEqual([line for line in probe.lines if line.startswith("Device ")], list(said))
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(CHANGES), len(said))
        self.assertEqual(found.total(RECEIVED), sum(one.packets for one in flows))

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip("link set kb down")
        probe.wait_for_line(DOWN)
        ip("link set kb up")
        probe.wait_for_line(UP)
        self.send(2000, 4)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1}, DOWN, UP)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_down_and_up_within_a_moment(self):
        probe = self.start()
        ip("link set kb down")
        ip("link set kb up")
        probe.wait_for_line(UP)
        self.send(2000, 4)
        self.assert_run(probe, {flow(2000, 4): 1}, DOWN, UP)

    def test_deleted_and_made_again(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        settle(0.1)
        ip("link set kb down")
        probe.wait_for_line(DOWN)
        ip("link set kb up")
        probe.wait_for_line(UP)
        self.send(3000, 5)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1, flow(3000, 5): 1},
                        GONE, BACK, DOWN, UP)

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
        self.assert_run(probe, {flow(2000, 4): 1}, DOWN, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_made_again_after_root_was_given_up(self):
        probe = self.start("-u", "nobody")
        self.send(1000, 3)
        settle(0.1)
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1}, GONE, BACK)

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
        self.assert_run(probe, {flow(2000, 4): 1}, GONE, BACK)

    def test_renamed_and_back(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
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
        self.assert_run(probe, {flow(1000, 3): 1, flow(3000, 5): 1}, RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_another_device_takes_the_name(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip("link set kb name kc")
        make_pair("kd", "kb")
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.send(3000, 5, sender="kd")
        self.assert_run(probe, {flow(1000, 3): 1, flow(3000, 5): 1}, RENAMED, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_moved_to_another_namespace_and_back(self):
        other = self.other_namespace()
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip(f"link set kb netns {other}")
        probe.wait_for_line(GONE)
        subprocess.run(["nsenter", "--net", "--target", str(other),
                        "ip", "link", "set", "kb", "netns", str(os.getpid())], check=True)
        ip("link set kb arp off up")
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1}, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_it_is_found_within_a_second_or_so_and_costs_nothing_meanwhile(self):
        probe = self.start()
        ip("link del kb")
        probe.wait_for_line(GONE)
        before = cpu_seconds(probe.pid)
        time.sleep(3)
        self.assertLess(cpu_seconds(probe.pid) - before, 0.3 * SLOWNESS)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK, timeout=2)
        self.assert_run(probe, {}, GONE, BACK)

    def test_a_probe_ends_in_order_while_its_device_is_gone(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip("link del kb")
        probe.wait_for_line(GONE)
        self.assert_run(probe, {flow(1000, 3): 1}, GONE)

    def test_a_tunnel_that_comes_back_is_translated(self):
        tunnel = Tunnel("kb2")
        probe = self.start(device="kb2")
        tunnel.send(*[packet(1000)] * 3)
        settle(0.1)
        tunnel.close()
        probe.wait_for_line("Device kb2 is gone")
        tunnel = Tunnel("kb2")
        self.addCleanup(tunnel.close)
        probe.wait_for_line("Device kb2 is back")
        tunnel.send(*[packet(2000)] * 4)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1},
                        "Device kb2 is gone: trying every second",
                        "Device kb2 is back: capturing again")

    def test_a_device_of_another_kind_under_the_name_is_opened_anew(self):
        probe = self.start()
        self.send(1000, 3)
        settle(0.1)
        ip("link del kb")
        probe.wait_for_line(GONE)
        tunnel = Tunnel("kb")
        self.addCleanup(tunnel.close)
        probe.wait_for_line(BACK)
        tunnel.send(*[packet(2000)] * 4)
        self.assert_run(probe, {flow(1000, 3): 1, flow(2000, 4): 1}, GONE, BACK)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_a_device_that_cannot_be_translated_is_said_once_in_ten_seconds(self):
        refused = ("Device kb does not deliver Ethernet frames but IEEE802_11_RADIO, which cannot "
                   "be translated. Use an Ethernet, tunnel or PPP device, or \"any\"")
        probe = self.start()
        ip("link del kb")
        probe.wait_for_line(GONE)
        tunnel = Tunnel("kb", hardware=MONITOR_DEVICE)
        probe.wait_for_line(refused)
        probe.wait_for_line(f"{refused} (", timeout=15)
        tunnel.close()
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)
        self.stop_in_order(probe, self.receiver)
        self.assert_flows(self.receiver.flows, {flow(2000, 4): 1})
        said = [line for line in probe.lines if line.startswith("Device ")]
        self.assertEqual(said[:2] + said[3:], [GONE, refused, BACK])
        self.assertRegex(said[2], r"\((9|10|11) times\)$")  # one try a second
        self.assertEqual(Sum(probe.lines).total(CHANGES), 2)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_sampling_goes_on_where_it_was(self):
        receiver = self.collector(sampling=0x4000 | 3)
        probe = self.probe(*netflow_v5(receiver.port), input_options=",sampling=3")
        self.send(1000, 4)  # the third of them
        settle(0.1)
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send(2000, 4)  # the sixth of all, so the second of these
        self.stop_in_order(probe, receiver)
        self.assert_flows(receiver.flows, {flow(1000, 1): 1, flow(2000, 1): 1})
        self.assertEqual(Sum(probe.lines).total("kestrelexp_capture_sampled_out_packets_total"), 6)


class Undelivered(E2eCase):
    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_what_the_capture_ring_had_no_room_for_is_counted(self):
        probe = self.probe("-E", "null")
        frames = [ethernet(packet(1000))] * 50_000
        probe.signal(19)  # SIGSTOP
        self.sender.send(*frames)
        probe.signal(18)  # SIGCONT
        self.stop_in_order(probe)
        found = Sum(probe.lines)
        found.check(self)
        self.assertGreater(found.total(*RING_DROPPED), 1000)
        self.assertGreater(found.total(RECEIVED), 1000)
        self.assertEqual(found.total(*RING_DROPPED) + found.total(RECEIVED), 50_000)
        self.assertEqual(found.total("kestrelexp_capture_unread_packets"), 0)
