"""Rule files between a veth pair and collectors: what reaches which export."""

# Not under the address sanitizer: units, models and abi run this code.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from testbed.case import E2eCase
from testbed.flow_model import predict
from testbed.frames import ethernet, icmp, ipv4, ipv6, tcp, udp
from testbed.probe import FLUSHED, netflow_v5
from testbed.process import settle

A, B, C = "10.0.0.1", "10.0.1.2", "192.0.2.3"

FRAMES = [ethernet(network) for network in (
    ipv4(udp(1000, 53), A, C),
    ipv4(udp(53, 1000), C, A),
    ipv4(tcp(1001, 443), A, B),
    ipv4(tcp(1002, 22), B, C),
    ipv4(tcp(1003, 22), B, A),
    ipv4(icmp(8, 0), A, C),
    ipv4(udp(1004, 4000), C, C),
    ipv6(udp(1000, 53), "2001:db8::1", "2001:db8::2"),
)]


def of(frames, keep):
    return {flow: count for flow, count in predict(frames).items() if keep(flow)}


class Filters(E2eCase):
    def rules(self, *lines):
        path = self.directory() / "rules.txt"
        path.write_text("".join(line + "\n" for line in lines), encoding="ascii")
        return f"filter:{path}"

    def run_frames(self, rules, frames=FRAMES, options=()):
        """Sends to a filtered export and to one beside it, which has to get everything."""
        filtered, whole = self.collector(), self.collector()
        probe = self.probe(*options, "-F", rules, *netflow_v5(filtered.port),
                           *netflow_v5(whole.port))
        self.sender.send(*frames)
        self.stop_in_order(probe, filtered, whole)
        self.assert_flows(whole.flows, predict(frames))
        return filtered.flows

    def test_a_list_of_networks(self):
        flows = self.run_frames(self.rules(
            "fast src addr 10.0.0.0/24", "# the rest is dropped", "fast src addr 10.0.1.0/24"))
        self.assert_flows(flows, of(FRAMES, lambda f: f.source in (A, B)))

    def test_exceptions_before_everything_else(self):
        flows = self.run_frames(self.rules("not port domain", "not proto icmp", "any"))
        self.assert_flows(flows, of(FRAMES, lambda f: 53 not in (f.source_port,
                                                                 f.destination_port)
                                    and f.protocol != 1))

    def test_a_list_of_networks_and_conditions_on_top(self):
        flows = self.run_frames(self.rules("fast src addr 10.0.0.0/16", "dst port ssh",
                                           "addr 10.0.0.1 proto udp"))
        self.assert_flows(flows, of(FRAMES, lambda f: f.destination_port == 22
                                    or (f.source, f.protocol) == (A, 17)))

    def test_no_rule_keeps_nothing(self):
        self.assert_flows(self.run_frames(self.rules("# no rule")), {})

    def test_small_flows_are_dropped(self):
        frames = FRAMES + [ethernet(ipv4(udp(5000, 5000, bytes(600)), A, B))]
        flows = self.run_frames(self.rules("bytes 0-500", "any"), frames)
        self.assert_flows(flows, of(frames, lambda f: f.source_port == 5000))

    def test_vlans_are_seen_where_the_record_has_them(self):
        frames = [ethernet(ipv4(udp(port, 53), A, B), tags=[(0x8100, vlan)])
                  for port, vlan in ((1, 9), (2, 10), (3, 11))]
        flows = self.run_frames(self.rules("vlan 10-11"), frames, ("-e", "vlan"))
        self.assert_flows(flows, of(frames, lambda f: f.source_port in (2, 3)))
        self.assert_flows(self.run_frames(self.rules("vlan 10-11"), frames), {})

    def test_a_global_filter_that_drops_a_flow_ends_the_probe_without_a_flush(self):
        collector = self.collector()
        probe = self.probe("-t", "4:1", "-G", self.rules("not dst port ssh", "any"),
                           *netflow_v5(collector.port))
        self.sender.send(*FRAMES[:3])
        settle()
        self.assertTrue(probe.running)
        self.sender.send(FRAMES[3])
        self.assertEqual(probe.wait(20), 0, probe.describe())
        collector.drain()
        self.assertEqual(collector.headers, [])  # the three flows before it were never sent
        self.assertNotIn(FLUSHED, probe.lines)
