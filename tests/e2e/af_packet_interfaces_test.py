"""What af-packet does with devices that come and go, beside what interfaces_test has of every
input. A lane alone moves its ring to the new interface; several open new ones in a new group."""

# Not under the thread sanitizer: the threads are those of af_packet_lanes_test, which runs there.

from testbed.af_packet import RECEIVED, AfPacketCase, packet, received
from testbed.frames import ethernet
from testbed.interfaces import BACK, CHANGES, GONE
from testbed.network import PROBED, SENDER, ip, make_pair
from testbed.process import settle, wait_until
from testbed.tunnel import MONITOR_DEVICE, Tunnel

LANES = ",lanes=3"


class AfPacketInterfaces(AfPacketCase):
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

    # Not under the address sanitizer: memory changes hands as in those that stay.
    def test_deleted_and_made_again_in_a_group_of_a_given_number(self):
        probe = self.start(options=LANES + ",fanout=7")
        flows = {self.send_before(): 1}
        for turn in (1, 2):
            ip("link del kb")
            wait_until(lambda: probe.lines.count(GONE) == turn, GONE)
            make_pair(SENDER, PROBED)
            wait_until(lambda: probe.lines.count(BACK) == turn, BACK)
            flows[self.send_before(1000 + turn, 4)] = 1
        self.assert_run(probe, flows, GONE, BACK, GONE, BACK)

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
    def test_flows_age_while_the_device_is_gone(self):
        probe = self.start("-t", "60:1")
        before = {received(1000 + number, 1): 1 for number in range(31)}  # a packet and one
        self.sender.send(*[ethernet(packet(1000 + number)) for number in range(31)])
        settle(0.2)
        ip("link del kb")
        probe.wait_for_line(GONE)
        self.receiver.wait_for_flows(30, 20)
        self.assert_run(probe, before, GONE)

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
