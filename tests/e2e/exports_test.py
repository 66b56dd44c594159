"""What the export options do to packets on the wire: packing, sequence, interfaces, sampling."""

# Not under the address sanitizer: units, models and abi run this code.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from time import monotonic_ns, sleep

from testbed.case import E2eCase
from testbed.flow_model import Flow, packets_and_octets, predict
from testbed.frames import ethernet, ipv4, udp
from testbed.netflow_v5 import SAMPLING_MODE
from testbed.probe import netflow_v5

A, B = "10.0.0.1", "10.0.0.2"


def flows_of_one_packet(count):
    return [ethernet(ipv4(udp(1000 + number, 53), A, B)) for number in range(count)]


class Exports(E2eCase):
    def export(self, frames, collectors, *arguments, **options):
        """arguments: where a collector stands, its -E; returns when the probe has ended."""
        words = []
        for argument in arguments:
            words += [argument] if isinstance(argument, str) else netflow_v5(argument.port)
        probe = self.probe(*words, **options)
        self.sender.send(*frames)
        self.stop_in_order(probe, *collectors)

    def test_the_31st_flow_starts_a_new_packet(self):
        collector = self.collector()
        self.export(flows_of_one_packet(31), [collector], collector)
        self.assertEqual([header.count for header in collector.headers], [30, 1])
        self.assertEqual([header.sequence for header in collector.headers], [0, 30])

    def test_no_flow_is_no_packet(self):
        collector = self.collector()
        self.export([], [collector], collector)
        self.assertEqual(collector.headers, [])

    def test_the_source_id_leaves_its_low_byte(self):
        collector = self.collector(engine_id=0x2C)
        probe = self.probe(*netflow_v5(collector.port, ",source_id=300"))
        self.sender.send(*flows_of_one_packet(2))
        self.stop_in_order(probe, collector)
        self.assertEqual(len(collector.records), 2)

    def test_interface_numbers_last_for_the_exports_behind(self):
        first, second, third = (self.collector() for _ in range(3))
        self.export(flows_of_one_packet(1), [first, second, third],
                    first, "-N", "5", "-n", "6", second, "-n", "65534", third)
        seen = [next(iter(collector.flows)) for collector in (first, second, third)]
        self.assertEqual([(flow.input, flow.output) for flow in seen],
                         [(0, 0), (5, 6), (5, 65534)])

    def test_two_exports_get_the_same_flows(self):
        frames = flows_of_one_packet(50)
        first, second = self.collector(), self.collector()
        self.export(frames, [first, second], first, second)
        self.assert_flows(first.flows, predict(frames))
        self.assertEqual(first.records, second.records)

    def test_export_sampling_takes_every_third_flow_of_all(self):
        sampled, whole = self.collector(sampling=SAMPLING_MODE | 3), self.collector()
        self.export(flows_of_one_packet(100), [sampled, whole], "-S", "3", sampled, whole)
        self.assertEqual(len(whole.records), 100)
        self.assertEqual(sampled.records, whole.records[::3])

    def test_sampling_of_input_and_export_multiply(self):
        plain = self.collector(sampling=SAMPLING_MODE | 2)
        multiplied = self.collector(sampling=SAMPLING_MODE | 10)
        self.export(flows_of_one_packet(60), [plain, multiplied], plain, "-S", "5", multiplied,
                    input_options=",sampling=2")
        self.assertEqual(len(plain.records), 30)
        self.assertEqual(multiplied.records, plain.records[::5])

    def test_the_input_delivers_the_nth_of_every_n_frames(self):
        collector = self.collector(sampling=SAMPLING_MODE | 3)
        self.export(flows_of_one_packet(31), [collector], collector, input_options=",sampling=3")
        ports = sorted(record.flow.source_port for record in collector.records)
        self.assertEqual(ports, [1002 + 3 * number for number in range(10)])

    def test_input_sampling_of_one_takes_every_frame(self):
        frames = flows_of_one_packet(10)
        collector = self.collector(sampling=SAMPLING_MODE | 1)
        self.export(frames, [collector], collector, input_options=",sampling=1")
        self.assertEqual(packets_and_octets(collector.flows), (10, 280))

    def test_an_export_to_nowhere_hinders_nobody(self):
        frames = flows_of_one_packet(100)
        closed, collector = self.collector(), self.collector()
        closed.close()
        self.export(frames, [collector], closed, "-E", "null", collector)
        self.assert_flows(collector.flows, predict(frames))

    def test_flow_times_are_those_of_the_first_and_last_packet(self):
        collector = self.collector()
        probe = self.probe(*netflow_v5(collector.port))
        times = [self.send_timed(ethernet(ipv4(udp(1, 2), A, B))) for _ in range(3)]
        self.stop_in_order(probe, collector)
        (record,) = collector.records
        self.assertEqual(record.flow, Flow(A, B, 17, 1, 2, 0, 0, 3, 84))
        for shown, (before, after) in ((record.first_ms, times[0]), (record.last_ms, times[-1])):
            self.assertGreaterEqual(shown, before - 2)
            self.assertLessEqual(shown, after + 20)
        self.assertGreaterEqual(record.last_ms - record.first_ms, 400)

    def send_timed(self, frame):
        """Sends, waits, and returns the uptimes in ms around the sending."""
        before = monotonic_ns() // 1_000_000
        self.sender.send(frame)
        after = monotonic_ns() // 1_000_000
        sleep(0.2)
        return before, after
