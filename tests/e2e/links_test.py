"""The pcap input on devices that are not Ethernet: tunnels, PPP, and "any"."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

import socket

from testbed.case import E2eCase
from testbed.flow_model import Flow
from testbed.frames import ACK, SYN, ethernet, icmp, ipv4, ipv6, tcp, udp
from testbed.netflow_v5 import SAMPLING_MODE
from testbed.probe import netflow_v5
from testbed.tunnel import MONITOR_DEVICE, PPP_DEVICE, Tunnel

A, B = "10.0.0.1", "10.0.0.2"
QUERY = ipv4(udp(1000, 53, b"abcd"), A, B)
PACKETS = [QUERY, ipv4(tcp(2000, 80, SYN), A, B), ipv4(tcp(2000, 80, ACK, bytes(1000)), A, B),
           ipv4(icmp(8, 0), A, B, tos=0x10), ipv6(udp(1000, 53, b"abcd"), "fd00::1", "fd00::2"),
           QUERY]
# Beside the IPv6 flow, which NetFlow v5 cannot tell.
FLOWS = {Flow(A, B, 17, 1000, 53, 0, 0, 2, 64): 1,
         Flow(A, B, 6, 2000, 80, SYN | ACK, 0, 2, 1080): 1,
         Flow(A, B, 1, 0, 0x0800, 0, 0x10, 1, 36): 1}


class Tunnels(E2eCase):
    def tunnel(self, name="kt", **options):
        tunnel = Tunnel(name, **options)
        self.addCleanup(tunnel.close)
        return tunnel

    def flows_of(self, tunnel, *options, **probe_options):
        collector = self.collector()
        probe = self.probe(*options, *netflow_v5(collector.port), device=tunnel.name,
                           **probe_options)
        tunnel.send(*PACKETS)
        self.stop_in_order(probe, collector)
        self.assertIn("Queue flushed. 4 records out.", probe.lines)
        return collector.flows

    def test_a_tunnel_has_bare_packets(self):
        self.assert_flows(self.flows_of(self.tunnel()), FLOWS)

    def test_a_device_of_another_kind_has_cooked_frames(self):
        self.assert_flows(self.flows_of(self.tunnel(hardware=PPP_DEVICE)), FLOWS)

    def test_the_blocks_change_no_flow(self):
        options = ("-e", "vlan", "-e", "mpls", "-e", "mac", "-C", "0x1FF")
        self.assert_flows(self.flows_of(self.tunnel(), *options), FLOWS)

    def test_every_third_packet_is_sampled(self):
        collector = self.collector(sampling=SAMPLING_MODE | 3)
        tunnel = self.tunnel()
        probe = self.probe(*netflow_v5(collector.port), device=tunnel.name,
                           input_options=",sampling=3")
        tunnel.send(*PACKETS)
        self.stop_in_order(probe, collector)
        self.assert_flows(collector.flows, {Flow(A, B, 6, 2000, 80, ACK, 0, 1, 1040): 1,
                                            Flow(A, B, 17, 1000, 53, 0, 0, 1, 32): 1})

    def test_a_device_without_packets_of_ip_is_refused(self):
        tunnel = self.tunnel(hardware=MONITOR_DEVICE)
        probe = self.probe("-E", "null", device=tunnel.name, ready=False)
        self.assertEqual(probe.wait(), 255, probe.describe())
        self.assertEqual(probe.messages[-3:], [
            "Device kt does not deliver Ethernet frames but IEEE802_11_RADIO, which cannot be "
            "translated. Use an Ethernet, tunnel or PPP device, or \"any\"",
            "Unable to init plugin", "Driver initialization failed"])


class AnyDevice(E2eCase):
    """What is sent on one end of the veth pair arrives at the other, and is seen on both."""

    def flows_of(self, send, *options):
        collector = self.collector()
        probe = self.probe(*options, *netflow_v5(collector.port), device="any")
        send()
        self.stop_in_order(probe, collector)
        return collector.flows

    def test_a_packet_is_seen_on_every_device_that_it_passes(self):
        flows = self.flows_of(lambda: self.sender.send(ethernet(QUERY), ethernet(QUERY)))
        self.assert_flows(flows, {Flow(A, B, 17, 1000, 53, 0, 0, 4, 128): 1})

    def test_tags_and_labels_are_walked(self):
        tagged = [ethernet(QUERY, tags=[(0x8100, vid)]) for vid in (1, 2, 2)]
        labelled = [ethernet(QUERY, labels=[16, 17])]
        flows = self.flows_of(lambda: self.sender.send(*tagged, *labelled), "-C", "0xF7")
        self.assert_flows(flows, {Flow(A, B, 17, 1000, 53, 0, 0, 2, 64): 2,
                                  Flow(A, B, 17, 1000, 53, 0, 0, 4, 128): 1})

    def test_a_tunnel_is_among_them(self):
        tunnel = Tunnel("kt")
        self.addCleanup(tunnel.close)
        self.assert_flows(self.flows_of(lambda: tunnel.send(*PACKETS)), FLOWS)

    def test_loopback_is_seen_once(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            receiver.bind(("127.0.0.1", 0))
            sender.bind(("127.0.0.1", 0))
            ports = sender.getsockname()[1], receiver.getsockname()[1]
            flows = self.flows_of(lambda: [sender.sendto(b"abcd", ("127.0.0.1", ports[1]))
                                           for _ in range(3)])
        self.assert_flows(flows, {Flow("127.0.0.1", "127.0.0.1", 17, *ports, 0, 0, 3, 96): 1})
