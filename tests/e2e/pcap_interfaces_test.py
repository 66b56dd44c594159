"""What the pcap input does with devices that come and go, beside what interfaces_test has of every
input."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from testbed.accounts import Sum
from testbed.af_packet import RECEIVED, RING_DROPPED, packet
from testbed.case import E2eCase
from testbed.frames import ethernet
from testbed.interfaces import BACK, CHANGES, GONE, PCAP, FollowCase
from testbed.network import PROBED, SENDER, ip, make_pair
from testbed.probe import netflow_v5
from testbed.process import settle
from testbed.tunnel import MONITOR_DEVICE, Tunnel


class PcapInterfaces(FollowCase):
    def test_a_tunnel_that_comes_back_is_translated(self):
        tunnel = Tunnel("kb2")
        self.follow(device="kb2", inputs=[PCAP])
        tunnel.send(*[packet(1000)] * 3)
        self.note(1000, 3)
        tunnel.close()
        self.wait_for("Device kb2 is gone")
        tunnel = Tunnel("kb2")
        self.addCleanup(tunnel.close)
        self.wait_for("Device kb2 is back")
        tunnel.send(*[packet(2000)] * 4)
        self.note(2000, 4)
        self.assert_run("Device kb2 is gone: trying every second",
                        "Device kb2 is back: capturing again")

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_a_device_that_cannot_be_translated_is_said_once_in_ten_seconds(self):
        refused = ("Device kb does not deliver Ethernet frames but IEEE802_11_RADIO, which cannot "
                   "be translated. Use an Ethernet, tunnel or PPP device, or \"any\"")
        self.follow(inputs=[PCAP])
        (follower,) = self.followers
        probe = follower.probe
        ip("link del kb")
        self.wait_for(GONE)
        tunnel = Tunnel("kb", hardware=MONITOR_DEVICE)
        self.wait_for(refused)
        self.wait_for(f"{refused} (", timeout=15)
        tunnel.close()
        make_pair(SENDER, PROBED)
        self.wait_for(BACK)
        self.send(2000, 4)
        self.stop_in_order(probe, follower.collector)
        self.assert_flows(follower.collector.flows, {follower.flow(2000, 4, 0): 1})
        said = [line for line in probe.lines if line.startswith("Device ")]
        self.assertEqual(said[:2] + said[3:], [GONE, refused, BACK])
        self.assertRegex(said[2], r"\((9|10|11) times\)$")  # one try a second
        self.assertEqual(Sum(probe.lines).total(CHANGES), 2)

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_sampling_goes_on_where_it_was(self):
        collector = self.collector(sampling=0x4000 | 3)
        probe = self.probe(*netflow_v5(collector.port), input_options=",sampling=3")
        self.send_elsewhere(1000, 4)  # the third of them
        settle(0.2)
        ip("link del kb")
        probe.wait_for_line(GONE)
        make_pair(SENDER, PROBED)
        probe.wait_for_line(BACK)
        self.send_elsewhere(2000, 4)  # the sixth of all, so the second of these
        self.stop_in_order(probe, collector)
        self.assertEqual({(flow.source_port, flow.packets) for flow in collector.flows.elements()},
                         {(1000, 1), (2000, 1)})
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
